// Introspection decides what an entry of the old container root is and what becomes of it.
// It is deliberately suspicious: a symbolic link where a bundle or the marker should be could
// lead the migration to move or install something outside the container, so such a
// container is left alone for a person to look at.
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "AppMigrator/ContainerFiles.h"
#include "AppMigrator/VXAppMigrator.h"
#include "filemanager/VXFileManager.h"
#include "platform/installer/RecoveryArea.h"
#include "platform/bundle/BundleHandle.h"
#include "platform/files/Beneath.h"
#include "platform/log/MigrationLog.h"
#include "platform/plist/PlistFile.h"

namespace vx {
namespace {

constexpr const char* kOperation = "-[VXAppMigrator _introspectContainer:orderResultEarly:]";
constexpr const char* kAppExtension = "app";
constexpr const char* kVPNPluginExtension = "vpnplugin";

void SetFlag(bool* flag, bool value) {
  if (flag) *flag = value;
}

void SetCourse(IntrospectionOutcome* outcome, IntrospectionCourse course) {
  if (outcome) outcome->course = course;
}

// A seam beside the fault seam's, for the proof that a device converges: an entry of the old
// root named by VX_FAULT_ABORT_INTROSPECTING ends the process when it is introspected, as a
// crash of a reader would.
void AbortIfChosen(const FileURL& container) {
  static const char* const chosen = std::getenv("VX_FAULT_ABORT_INTROSPECTING");
  if (chosen && *chosen && container.lastPathComponent() == chosen) std::abort();
}

}  // namespace

// The bundle lies in a container its application could write: its information list is
// read through the bundle's descriptor, and only when it is a regular file, so that a link
// cannot show us another bundle's list and a FIFO cannot stop the run.
std::optional<std::string> VXAppMigrator::_bundleIdentifierForBundle(const FileURL& bundle,
                                                                     std::string* problem) {
  const std::optional<PlistValue> info = ReadBundleInfo(bundle, problem);
  const std::string* identifier = info ? info->stringForKey(kKBBundleIdentifierKey) : nullptr;
  if (!identifier) {
    if (problem && info) *problem = "no identifier";
    return std::nullopt;
  }
  return *identifier;
}

std::optional<ContainerInfo> VXAppMigrator::_introspectContainer(const FileURL& container,
                                                                 bool* orderResultEarly) {
  return _introspectContainer(container, orderResultEarly, nullptr);
}

// When planning, the same walk runs with the same reads and messages, and only the removals
// are left out: a plan and a run cannot disagree about what an entry is.
std::optional<ContainerInfo> VXAppMigrator::_introspectContainer(const FileURL& container,
                                                                 bool* orderResultEarly,
                                                                 IntrospectionOutcome* outcome) {
  if (outcome) *outcome = IntrospectionOutcome{};
  AbortIfChosen(container);
  const VXFileManager& fileManager = VXFileManager::defaultManager();
  ErrorRef error;
  const auto entries = fileManager.urlsForItemsInDirectoryAtURL(container, false, &error);
  if (!entries) {
    if (error && error->isPOSIX(ENOTDIR)) {
      VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Found regular file at %@ ; removing",
                       container.path());
      SetCourse(outcome, IntrospectionCourse::StrayFile);
      // Whatever it holds is someone's: it is removed only when empty, and otherwise kept in
      // the recovery area.
      _setAsideItemAtURL(container, std::string(), kRecoveryCourseStrayFile,
                         outcome ? &outcome->keptAside : nullptr);
    } else if (error && error->isPOSIX(ENOENT)) {
      SetCourse(outcome, IntrospectionCourse::Vanished);
      VX_MIGRATION_LOG(
          5, kOperation,
          "VXAppMigrator: Got ENOENT when introspecting %@ ; ignoring (likely raced with "
          "velotrixd)",
          container.path());
    } else {
      SetCourse(outcome, IntrospectionCourse::Unreadable);
      VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to get URLs in container %@ : %@",
                       container.path(), error);
    }
    return std::nullopt;
  }

  ContainerInfo record{{kContainerPathKey, container.path()}};
  std::optional<FileURL> app;
  std::optional<FileURL> vpnPlugin;
  // A marker that does not load means the container's true state is unknown: the walk goes
  // on only to learn whether there is anything to protect from removal.
  bool recordDropped = false;
  // Why it was dropped: a marker that names another place is planted, not damaged.
  bool markerMisplaced = false;

  for (const FileURL& entry : *entries) {
    struct stat st {};
    if (::lstat(entry.fileSystemRepresentation(), &st) != 0) {
      const int saved = errno;
      VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to stat path %s : %s",
                       entry.fileSystemRepresentation(), std::strerror(saved));
      SetCourse(outcome, IntrospectionCourse::Unreadable);
      return std::nullopt;
    }
    const bool isLink = S_ISLNK(st.st_mode);
    const std::string extension = entry.pathExtension();

    if (extension == kAppExtension) {
      if (isLink) {
        VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Skipping container with app symlink at %@",
                         entry.path());
        SetCourse(outcome, IntrospectionCourse::SymlinkBundle);
        return std::nullopt;
      }
      VX_MIGRATION_LOG(5, kOperation, "VXAppMigrator: Found app %@", entry.path());
      std::string problem;
      std::optional<std::string> identifier = _bundleIdentifierForBundle(entry, &problem);
      if (!identifier) {
        // Why goes with it: it becomes the container's reason in the report and the plan.
        VX_MIGRATION_LOG(3, kOperation,
                         "VXAppMigrator: Could not get identifier for bundle at %@%@",
                         entry.path(), problem.empty() ? std::string() : " : " + problem);
        continue;
      }
      app = entry;
      record[kBundlePathKey] = entry.path();
      record[kContainerTypeKey] = kContainerTypeApp;
      record[kBundleIdentifierKey] = std::move(*identifier);
      SetFlag(orderResultEarly, true);
    } else if (extension == kVPNPluginExtension) {
      VX_MIGRATION_LOG(5, kOperation, "VXAppMigrator: Found vpn plugin %@", entry.path());
      if (isLink) {
        VX_MIGRATION_LOG(3, kOperation,
                         "VXAppMigrator: VPN plugin was symlink; skipping container %@",
                         entry.path());
        SetCourse(outcome, IntrospectionCourse::SymlinkBundle);
        return std::nullopt;
      }
      std::optional<std::string> identifier = _bundleIdentifierForBundle(entry);
      if (!identifier) continue;
      vpnPlugin = entry;
      // An application is always the main bundle; its plug-in rides along with it.
      if (!app) {
        record[kBundlePathKey] = entry.path();
        record[kContainerTypeKey] = kContainerTypeVPNBundle;
        record[kBundleIdentifierKey] = std::move(*identifier);
        SetFlag(orderResultEarly, false);
      }
    } else if (entry.lastPathComponent() == kMigrationMarkerName) {
      VX_MIGRATION_LOG(5, kOperation, "VXAppMigrator: Found migration marker %@", entry.path());
      if (isLink) {
        VX_MIGRATION_LOG(3, kOperation,
                         "VXAppMigrator: Migration marker was symlink; skipping container %@",
                         entry.path());
        SetCourse(outcome, IntrospectionCourse::Hostile);
        return std::nullopt;
      }
      // The marker describes the container as it was before a cut-off attempt began moving
      // things out of it, so it outranks whatever the container holds now.
      bool misplaced = false;
      if (std::optional<ContainerInfo> marked =
              _loadAndValidateMigrationMarkerAtURL(entry, &misplaced)) {
        const std::string* type = marked->at(kContainerTypeKey).string();
        SetFlag(orderResultEarly, type && *type == kContainerTypeApp);
        if (outcome) outcome->fromMarker = true;
        return marked;
      }
      markerMisplaced = markerMisplaced || misplaced;
      VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to load migration marker file from %@",
                       entry);
      recordDropped = true;
    }
  }

  if (!app && !vpnPlugin) {
    VX_MIGRATION_LOG(3, kOperation,
                     "VXAppMigrator: No app or vpn bundle found in container %@ ; removing it",
                     container.path());
    // With no bundle to say whose it is, what the container holds can only be kept aside.
    SetCourse(outcome, IntrospectionCourse::NoBundle);
    _setAsideItemAtURL(container, std::string(), kRecoveryCourseNoBundle,
                       outcome ? &outcome->keptAside : nullptr);
    return std::nullopt;
  }
  if (recordDropped) {
    SetCourse(outcome, markerMisplaced ? IntrospectionCourse::Hostile
                                       : IntrospectionCourse::Unreadable);
    return std::nullopt;
  }
  if (app && vpnPlugin) record[kSecondBundlePathKey] = vpnPlugin->path();
  return record;
}

}  // namespace vx
