// What a plug-in may tell the host about each item of its run, beyond what the plug-in base
// answers. A plug-in offers it by also deriving from `MigrationReporter`; the host asks for it
// only when a cast of the plug-in object finds it, so a plug-in without it runs as before.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vx {

// The course one item of the old container root took, as the report names it.
inline constexpr const char* kCourseMigrated = "migrated";
inline constexpr const char* kCourseFailedKept = "failed-kept";
// The bundle could not be installed after the data moved: the container went to the
// recovery area (or, holding nothing of the user's, was removed).
inline constexpr const char* kCourseFailedBundleRecovered = "failed-bundle-recovered";
inline constexpr const char* kCourseFailedBundleGivenUp = "failed-bundle-given-up";
inline constexpr const char* kCourseRemovedNoBundle = "removed-no-bundle";
inline constexpr const char* kCourseRecoveredNoBundle = "recovered-no-bundle";
inline constexpr const char* kCourseStrayRemoved = "stray-removed";
inline constexpr const char* kCourseStrayRecovered = "stray-recovered";
// Migrated, and what the container held beyond its data and bundle went to the recovery area
// with the container.
inline constexpr const char* kCourseMigratedLeftOversRecovered = "migrated-leftovers-recovered";
inline constexpr const char* kCourseLeftHostile = "left-hostile";
inline constexpr const char* kCourseLeftUnreadable = "left-unreadable";
inline constexpr const char* kCourseVanished = "vanished";
// Runs died at it twice in a row: it went to the recovery area unread (or, holding nothing of
// the user's, was removed).
inline constexpr const char* kCourseRecoveredAfterCrashes = "recovered-after-crashes";
inline constexpr const char* kCourseRemovedAfterCrashes = "removed-after-crashes";

struct ContainerReport {
  std::string path;        // the item as the old root listed it
  std::string identifier;  // empty when the item never showed one
  std::string course;      // one of the courses above
  std::string reason;      // the first failure the plug-in logged for the item; may be empty
  uint64_t dataItems = 0;  // user-data items moved into the data container
  // Their regular files and those files' sizes, counted only when the host asked for counts:
  // counting walks every file the user has, where the moves themselves are renames.
  uint64_t dataFiles = 0;
  uint64_t dataBytes = 0;
  double seconds = 0;
};

class MigrationReporter {
 public:
  virtual ~MigrationReporter() = default;
  // One entry per item of the old root, in the order the root listed them; complete once
  // the run has returned.
  virtual std::vector<ContainerReport> containerReports() const = 0;
  // Asked before the run: count the files and bytes of each data item as it moves.
  virtual void countDataItems(bool count) = 0;
};

}  // namespace vx
