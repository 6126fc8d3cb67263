// platform/bundle: the device's bundle reader. Uses platform/plist, platform/files and the
// shared types.
//
// An opened bundle directory. Each open reads the bundle afresh (no cache), so what it
// gives is the current content of its files.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/files/UniqueFd.h"
#include "support/types/FileURL.h"
#include "support/types/PlistValue.h"

namespace vx {

// The information dictionary's entry that the platform adds: the location of "Info.plist".
extern const char* const kKBBundleInfoPlistURLKey;  // "KBBundleInfoPlistURL"
extern const char* const kKBBundleIdentifierKey;    // "KBBundleIdentifier"

class BundleHandle {
 public:
  // Opening needs only the bundle's directory, reached without following a final symbolic
  // link; nothing when there is no such directory. Its "Info.plist" is read at the open, as a
  // regular file beneath that directory (never through a link, never waiting on a FIFO, and
  // of bounded size). A file that is missing, unreadable or corrupt still lets the bundle
  // open: the handle then has no information, and its information reads say so. A list whose
  // top level is not a dictionary gives no information dictionary, and a filtered read of
  // the top level as it is.
  static std::unique_ptr<BundleHandle> open(const FileURL& bundle);
  // The same for a bundle inside a tree that its application could write: the directory is
  // reached from `dirfd` by `relative` without following any link on the way
  // (OpenBeneath). `bundle` is the location the handle reports.
  static std::unique_ptr<BundleHandle> openBeneath(int dirfd, std::string_view relative,
                                                   const FileURL& bundle);
  ~BundleHandle();
  BundleHandle(const BundleHandle&) = delete;
  BundleHandle& operator=(const BundleHandle&) = delete;

  const FileURL& bundleURL() const { return bundleURL_; }
  // The bundle's directory as the open found it. What is read of the bundle later is read
  // beneath it, so that a rename or a link planted after the open cannot redirect the read.
  int directory() const { return directory_.get(); }
  // The whole information dictionary, including "KBBundleInfoPlistURL"; nullptr when the
  // file could not be read or its top level is not a dictionary.
  const PlistDictionary* infoDictionary() const {
    return contents_ ? contents_->dictionary() : nullptr;
  }
  // Why "Info.plist" could not be read ("No such file or directory", "nesting deeper than
  // 256", ...); empty when it was.
  const std::string& infoProblem() const { return infoProblem_; }
  std::optional<std::string> bundleIdentifier() const;
  // A new value holding only the entries whose keys are in `keys`; the value's type is
  // whatever the file's top level holds. Nothing when the file cannot be read.
  std::optional<PlistValue> filteredInfoPlist(const std::set<std::string>& keys) const;

  // Handles alive in the process now, and the most alive at once since the last take:
  // lets a caller that promises one handle at a time be held to it.
  static size_t openCount();
  static size_t takePeakOpenCount();

 private:
  BundleHandle(FileURL bundleURL, UniqueFd directory, std::optional<PlistValue> contents);
  static std::unique_ptr<BundleHandle> fromDirectory(const FileURL& bundle, UniqueFd directory);
  FileURL bundleURL_;
  UniqueFd directory_;
  std::optional<PlistValue> contents_;  // nothing: "Info.plist" could not be read
  std::string infoProblem_;
};

// The printed form: the bundle's path, as "BundleHandle <path>".
std::string Describe(const BundleHandle& bundle);

// The name of a property-list value's type ("Dictionary", "Array", "String", ...), for
// messages about values of an unexpected type.
const char* TypeName(const PlistValue& value);

}  // namespace vx
