// The real bundle is installed from a staging directory inside its own old container: the
// bundle, its VPN plug-in and its store metadata are renamed there, never copied, so that
// staging costs nothing and a cut-off attempt finds them again in the same place.
#include <atomic>

#include "AppMigrator/VXAppMigrator.h"
#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
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
constexpr const char* kStagingName = "Staging";
constexpr const char* kPayloadName = "Payload";
constexpr mode_t kStagingMode = 0755;
constexpr unsigned kMigrationInstallType = 6;
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

// Only an installation consumes the staged package, so a bundle that is neither in its old
// place nor staged, in a container whose store data has gone too, was installed by an
// attempt cut off before it could remove the container. (Store data still lying there
// means the earlier attempt failed before it installed anything of this container.)
bool InstalledByEarlierAttempt(const FileURL& bundle, const FileURL& stagedBundle,
                               const FileURL& container, const std::string& identifier) {
  const VXFileManager& fileManager = VXFileManager::defaultManager();
  if (!fileManager.itemDoesNotExistAtURL(bundle) ||
      !fileManager.itemDoesNotExistAtURL(stagedBundle)) {
    return false;
  }
  for (const std::string& name :
       VXGlobalConfiguration::sharedInstance().appBundleMetadataItemNames()) {
    if (!fileManager.itemDoesNotExistAtURL(container.URLByAppendingPathComponent(name))) {
      return false;
    }
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
  if (InstalledByEarlierAttempt(bundle, stagedBundle, container, identifier)) {
    VX_MIGRATION_LOG(5, kOperation,
                     "VXAppMigrator: App %@ at %@ was installed by an earlier attempt; nothing "
                     "left to install.",
                     identifier, bundle.path());
    return true;
  }

  ErrorRef error;
  if (!fileManager.createDirectoryAtURL(payload, true, kStagingMode, &error)) {
    VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to create %@ : %@", payload, error);
    return false;
  }
  // A bundle that an earlier attempt already staged is missing here, and the move is a
  // no-op; the install then takes what the payload holds.
  if (!fileManager.moveItemIfExistsAtURL(bundle, stagedBundle, &error)) {
    VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to move bundle from %@ to %@: %@",
                     bundle, stagedBundle, error);
    return false;
  }
  if (vpnPlugin) {
    const FileURL stagedPlugin =
        payload.URLByAppendingPathComponent(vpnPlugin->lastPathComponent(), true);
    if (!fileManager.moveItemIfExistsAtURL(*vpnPlugin, stagedPlugin, &error)) {
      VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to move vpn bundle from %@ to %@: %@",
                       *vpnPlugin, stagedPlugin, error);
      return false;
    }
  }
  if (!fileManager.captureStoreDataFromDirectory(container, staging, false, false, &error)) {
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
  if (AppWorkspace::defaultWorkspace().installApplication(
          staging, CustomerInstallOptions(identifier), &installError, progress)) {
    return true;
  }
  // The data has already moved; the built-in copy is newer and serves it.
  if (alreadyInstalled) return true;
  VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to install %@ : %@", staging,
                   installError);
  return false;
}

}  // namespace vx
