// The real bundle is installed from a staging directory inside its own old container: the
// bundle, its VPN plug-in and its store metadata are renamed there, never copied, so that
// staging costs nothing and a cut-off attempt finds them again in the same place.
#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "AppMigrator/ContainerFiles.h"
#include "AppMigrator/VXAppMigrator.h"
#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
#include "platform/files/Beneath.h"
#include "platform/installer/RecoveryArea.h"
#include "platform/log/MigrationLog.h"
#include "platform/workspace/AppWorkspace.h"

namespace vx {
namespace {

constexpr const char* kOperation =
    "-[VXAppMigrator _stageAndInstallBundleAtURL:withIdentifier:andVPNPluginAtURL:"
    "inContainerURL:]";
constexpr const char* kProgressOperation =
    "__93-[VXAppMigrator _stageAndInstallBundleAtURL:withIdentifier:andVPNPluginAtURL:"
    "inContainerURL:]_block_invoke";
constexpr mode_t kStagingMode = 0755;
constexpr const char* kPlaceholderBundleType = "Placeholder";

PlistDictionary CustomerInstallOptions(const std::string& identifier) {
  return {{InstallTypeKey, kMigrationInstallType},
          {PackageTypeKey, PackageTypeCustomer},
          {"VerifyForMigrator", true},
          {"SkipBlacklist", true},
          {"KBBundleIdentifier", identifier}};
}

const PlistValue* ReportEntry(const InstallProgressReport& report, const char* key) {
  auto it = report.find(key);
  return it == report.end() ? nullptr : &it->second;
}

bool AbsentBeneath(int containerFd, const std::string& relative) {
  const size_t slash = relative.rfind('/');
  UniqueFd parent;
  int at = containerFd;
  if (slash != std::string::npos) {
    parent = OpenBeneath(containerFd, relative.substr(0, slash), O_RDONLY | O_DIRECTORY);
    if (!parent) return errno == ENOENT;
    at = parent.get();
  }
  struct stat st {};
  const std::string name = slash == std::string::npos ? relative : relative.substr(slash + 1);
  return ::fstatat(at, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
}

// Only an installation consumes the staged package, so a bundle that is neither in its old
// place nor staged, in a container whose store data has gone too, was installed by an
// attempt cut off before it could remove the container. (Store data still lying there
// means the earlier attempt failed before it installed anything of this container.)
bool InstalledByEarlierAttempt(int containerFd, const std::string& bundleInContainer,
                               const std::string& stagedInContainer,
                               const std::string& identifier) {
  if (!AbsentBeneath(containerFd, bundleInContainer) ||
      !AbsentBeneath(containerFd, stagedInContainer)) {
    return false;
  }
  for (const std::string& name :
       VXGlobalConfiguration::sharedInstance().appBundleMetadataItemNames()) {
    if (!AbsentBeneath(containerFd, name)) return false;
  }
  std::optional<BundleProxy> proxy =
      AppWorkspace::defaultWorkspace().bundleProxyForIdentifier(identifier);
  return proxy && proxy->bundleType != kPlaceholderBundleType;
}

}  // namespace

bool VXAppMigrator::_stageAndInstallBundleAtURL(const FileURL& bundle,
                                                const std::string& identifier,
                                                const std::optional<FileURL>& vpnPlugin,
                                                const FileURL& container) {
  const VXFileManager& fileManager = VXFileManager::defaultManager();
  const FileURL staging = container.URLByAppendingPathComponent(kStagingName, true);
  const FileURL payload = staging.URLByAppendingPathComponent(kPayloadName, true);
  const FileURL stagedBundle =
      payload.URLByAppendingPathComponent(bundle.lastPathComponent(), true);
  const std::string stagedName =
      std::string(kStagingName) + "/" + kPayloadName + "/" + bundle.lastPathComponent();

  // Everything below happens beneath this descriptor: a "Staging" or "Payload" planted as a
  // link, or swapped in meanwhile, fails the step instead of taking the bundle, the store
  // data or our writes out of the container.
  const UniqueFd containerFd = OpenDirectoryNoFollow(container.fileSystemRepresentation());
  if (!containerFd) {
    const int saved = errno;
    VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to create %@ : %@", payload,
                     std::string(std::strerror(saved)));
    return false;
  }
  const std::optional<std::string> bundleInContainer =
      BundleLocationInContainer(container.path(), bundle.path());
  if (bundleInContainer &&
      InstalledByEarlierAttempt(containerFd.get(), *bundleInContainer, stagedName, identifier)) {
    VX_MIGRATION_LOG(5, kOperation,
                     "VXAppMigrator: App %@ at %@ was installed by an earlier attempt; nothing "
                     "left to install.",
                     identifier, bundle.path());
    return true;
  }

  // Until the bundle has left its place, no "Staging" directory is ours but an empty one a
  // cut-off attempt made: one that holds anything is the application's own, and would leave
  // with the package's leftovers. It goes to the recovery area before the name is used. (A
  // link or file there fails the step below, and the container goes whole.)
  struct stat st {};
  if (::fstatat(containerFd.get(), bundle.lastPathComponent().c_str(), &st, AT_SYMLINK_NOFOLLOW) ==
          0 &&
      ::fstatat(containerFd.get(), kStagingName, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISDIR(st.st_mode) &&
      !_setAsideItemAtURL(staging, identifier, kRecoveryCourseReservedName)) {
    return false;
  }

  ErrorRef error;
  UniqueFd stagingFd =
      fileManager.createDirectoryBeneath(containerFd.get(), kStagingName, kStagingMode, staging,
                                         &error);
  UniqueFd payloadFd;
  if (stagingFd) {
    payloadFd = fileManager.createDirectoryBeneath(stagingFd.get(), kPayloadName, kStagingMode,
                                                   payload, &error);
  }
  if (!payloadFd) {
    VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to create %@ : %@", payload, error);
    return false;
  }
  // A bundle is taken only from its place in this container. One that an earlier attempt
  // already staged is missing there, and the move is a no-op; the install then takes what
  // the payload holds.
  const auto stage = [&](const FileURL& item, const FileURL& staged, ErrorRef* moveError,
                         std::string* refusal) {
    const std::optional<std::string> where =
        BundleLocationInContainer(container.path(), item.path());
    if (!where) {
      *refusal = "not inside the container " + container.path();
      return false;
    }
    if (where->find('/') != std::string::npos) return true;  // already in the payload
    return fileManager.moveItemIfExistsBeneath(containerFd.get(), *where, payloadFd.get(),
                                               item.lastPathComponent(), item, staged,
                                               moveError);
  };
  std::string refusal;
  if (!stage(bundle, stagedBundle, &error, &refusal)) {
    if (refusal.empty()) {
      VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to move bundle from %@ to %@: %@",
                       bundle, stagedBundle, error);
    } else {
      VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to move bundle from %@ to %@: %@",
                       bundle, stagedBundle, refusal);
    }
    return false;
  }
  if (vpnPlugin) {
    const FileURL stagedPlugin =
        payload.URLByAppendingPathComponent(vpnPlugin->lastPathComponent(), true);
    if (!stage(*vpnPlugin, stagedPlugin, &error, &refusal)) {
      if (refusal.empty()) {
        VX_MIGRATION_LOG(3, kOperation,
                         "VXAppMigrator: Failed to move vpn bundle from %@ to %@: %@", *vpnPlugin,
                         stagedPlugin, error);
      } else {
        VX_MIGRATION_LOG(3, kOperation,
                         "VXAppMigrator: Failed to move vpn bundle from %@ to %@: %@", *vpnPlugin,
                         stagedPlugin, refusal);
      }
      return false;
    }
  }
  if (!fileManager.captureStoreDataBeneath(containerFd.get(), stagingFd.get(), container, staging,
                                           false, &error)) {
    VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to move app metadata from %@ to %@: %@",
                     container, staging, error);
    return false;
  }
  // The callback may run on a thread of the workspace's choosing.
  std::atomic<bool> alreadyInstalled{false};
  const std::string bundlePath = bundle.path();
  const InstallProgressCallback progress = [&](const InstallProgressReport& report) {
    const PlistValue* failure = ReportEntry(report, kInstallProgressErrorKey);
    if (!failure) return;
    const std::string* name = failure->string();
    if (name && *name == kIdentifierTakenError) _identifierTaken = true;
    if (name && *name == kApplicationAlreadyInstalledError) {
      VX_MIGRATION_LOG(5, kProgressOperation,
                       "VXAppMigrator: Installation of %@ failed because it's older than what's "
                       "built into the system. Data migration already happened so we're done "
                       "here.",
                       bundlePath);
      alreadyInstalled = true;
      return;
    }
    VX_MIGRATION_LOG(3, kProgressOperation,
                     "VXAppMigrator: Installation of %@ failed with Velotrix error %@ (%@ : %@)",
                     bundlePath, ReportEntry(report, kInstallProgressErrorDescriptionKey), failure,
                     ReportEntry(report, kInstallProgressErrorDetailKey));
  };

  ErrorRef installError;
  PlistDictionary options = CustomerInstallOptions(identifier);
  _addMigrationOrigin(&options);
  _identifierTaken = false;
  if (AppWorkspace::defaultWorkspace().installApplication(staging, options, &installError,
                                                          progress)) {
    return true;
  }
  // The data has already moved; the built-in copy is newer and serves it.
  if (alreadyInstalled) return true;
  VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to install %@ : %@", staging,
                   installError);
  return false;
}

}  // namespace vx
