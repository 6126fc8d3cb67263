// One old container, from its record to its removal. The order is what makes the migration
// resumable and lossless: the marker first; the application made known (a placeholder if
// need be) so that it has a data container; the data moved before the bundle is installed;
// and the container removed only when nothing in it was missed. What was missed (an item the
// migration has no place for) goes to the recovery area with the container, for an old
// placeholder bundle as for a real one, so that the container can leave the old root and the
// device can finish.
#include <sys/stat.h>

#include "AppMigrator/ContainerFiles.h"
#include "AppMigrator/VXAppMigrator.h"
#include "filemanager/VXFileManager.h"
#include "platform/installer/RecoveryArea.h"
#include "platform/log/MigrationLog.h"
#include "platform/workspace/AppWorkspace.h"

namespace vx {
namespace {

constexpr const char* kOperation = "-[VXAppMigrator _migrateContainerWithInfo:]";

const std::string* Text(const ContainerInfo& info, const char* key) {
  auto it = info.find(key);
  return it == info.end() ? nullptr : it->second.string();
}

// The proxy's details go to the log because a missing data container is the platform's
// fault, and whoever reads the log needs to see what the platform believed.
void LogProxyWithoutDataContainer(const std::string& identifier, const BundleProxy& proxy) {
  VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to get data container URL for %@",
                   identifier);
  VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Proxy had bundle identifier %@",
                   proxy.bundleIdentifier);
  VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Proxy had bundle type %@", proxy.bundleType);
  VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Proxy had bundle URL %@", proxy.bundleURL);
  VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Proxy had bundle container URL %@",
                   proxy.bundleContainerURL);
  VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Proxy %s have backing bundle",
                   proxy.foundBackingBundle ? "did" : "did not");
}

// Where the container's bundles come from, as their installations record it. The device path
// decides (it survives a copy of the device image); the identity is kept for whoever looks.
PlistDictionary MigrationOrigin(const FileURL& container) {
  PlistDictionary origin{
      {"Path", DevicePathOfLocation(container.path()).value_or(container.path())}};
  struct stat st {};
  if (::lstat(container.fileSystemRepresentation(), &st) == 0) {
    origin["Device"] = static_cast<long long>(st.st_dev);
    origin["Inode"] = static_cast<long long>(st.st_ino);
  }
  return origin;
}

}  // namespace

void VXAppMigrator::_addMigrationOrigin(PlistDictionary* options) const {
  if (_migrationOrigin) (*options)[MigrationOriginKey] = *_migrationOrigin;
}

std::optional<FileURL> VXAppMigrator::_vpnPluginToInstall(const FileURL& plugin,
                                                          const std::string& identifier,
                                                          const FileURL& container) {
  // An earlier attempt may have staged it already; it is read wherever it lies now.
  FileURL where = plugin;
  struct stat st {};
  if (::lstat(plugin.fileSystemRepresentation(), &st) != 0 && errno == ENOENT) {
    where = container.URLByAppendingPathComponent(kStagingName, true)
                .URLByAppendingPathComponent(kPayloadName, true)
                .URLByAppendingPathComponent(plugin.lastPathComponent(), true);
    if (::lstat(where.fileSystemRepresentation(), &st) != 0 && errno == ENOENT) return plugin;
  }
  const std::optional<std::string> own = _bundleIdentifierForBundle(where);
  if (own && PluginIdentifierExtends(identifier, *own)) return plugin;
  VX_MIGRATION_LOG(3, kOperation,
                   "VXAppMigrator: Not installing VPN plugin %@ : its identifier %@ does not "
                   "extend %@ ; it is kept with its container",
                   where.path(), own, identifier);
  return std::nullopt;
}

bool VXAppMigrator::_migrateContainerWithInfo(const ContainerInfo& info) {
  const std::string* containerPath = Text(info, kContainerPathKey);
  const std::string* bundlePath = Text(info, kBundlePathKey);
  const std::string* identifierText = Text(info, kBundleIdentifierKey);
  if (!containerPath || !bundlePath || !identifierText) {
    // Introspection and the marker's validation never hand out such a record.
    VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Incomplete container record %@", info);
    return false;
  }
  const FileURL container = FileURL::fileURLWithPath(*containerPath, true);
  const FileURL bundle = FileURL::fileURLWithPath(*bundlePath, true);
  std::optional<FileURL> vpnPlugin;
  if (const std::string* second = Text(info, kSecondBundlePathKey)) {
    vpnPlugin = FileURL::fileURLWithPath(*second, true);
  }
  const std::string& identifier = *identifierText;
  const std::string* type = Text(info, kContainerTypeKey);
  const bool isApp = type && *type == kContainerTypeApp;
  // Every installation below carries the container's origin, and only those.
  _migrationOrigin = MigrationOrigin(container);
  struct OriginScope {
    std::optional<PlistDictionary>& origin;
    ~OriginScope() { origin.reset(); }
  } originScope{_migrationOrigin};

  const VXFileManager& fileManager = VXFileManager::defaultManager();
  AppWorkspace& workspace = AppWorkspace::defaultWorkspace();
  // Asked before anything moves: once staged, the bundle is no longer where the record says.
  const bool bundleIsPlaceholder = fileManager.bundleAtURLIsPlaceholder(bundle);

  if (!_writeMigrationMarker(info)) {
    VX_MIGRATION_LOG(3, kOperation,
                     "VXAppMigrator: Failed to write out container marker dictionary... "
                     "hopefully we don't need it to recover.");
  }

  if (isApp) {
    if (workspace.applicationIsInstalled(identifier)) {
      VX_MIGRATION_LOG(5, kOperation,
                       "VXAppMigrator: App %@ is already installed, so not creating placeholder.",
                       identifier);
    } else if (!_stageAndInstallPlaceholderForBundleAtURL(bundle, identifier, container)) {
      return false;
    }
  }

  std::optional<BundleProxy> proxy = workspace.bundleProxyForIdentifier(identifier);
  if (!proxy) {
    VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to get bundle proxy for identifier %@",
                     identifier);
    return false;
  }
  if (!proxy->dataContainerURL) {
    LogProxyWithoutDataContainer(identifier, *proxy);
    return false;
  }
  const FileURL& dataContainer = *proxy->dataContainerURL;

  VX_MIGRATION_LOG(5, kOperation, "VXAppMigrator: Moving data from container %@ to %@",
                   container.path(), dataContainer.path());
  if (!_migrateDataContainerForIdentifier(identifier, container, dataContainer)) return false;

  // An old placeholder has nothing to install; its data was all there was to keep.
  bool success = true;
  const char* course = kRecoveryCourseInstallFailed;
  if (!bundleIsPlaceholder) {
    VX_MIGRATION_LOG(5, kOperation,
                     "VXAppMigrator: Staging and installing app %@ at %@ (and secondary %@)",
                     identifier, bundle.path(),
                     vpnPlugin ? std::optional<std::string>(vpnPlugin->path()) : std::nullopt);
    // A refused plug-in stays in the container, which then goes to the recovery area.
    const std::optional<FileURL> plugin =
        vpnPlugin && isApp ? _vpnPluginToInstall(*vpnPlugin, identifier, container) : vpnPlugin;
    if (!_stageAndInstallBundleAtURL(bundle, identifier, plugin, container)) {
      // The data is already in its new home and the application keeps its place (its
      // placeholder, or the installation it had); the container leaves the old root all the
      // same, for the recovery area.
      success = false;
      if (_identifierTaken) {
        course = kRecoveryCourseIdentifierTaken;
        VX_MIGRATION_LOG(3, kOperation,
                         "VXAppMigrator: %@ is already installed from another container or built "
                         "in; the bundle of %@ is not installed over it",
                         identifier, container.path());
      }
    } else {
      if (!_migrateGroupContainersForIdentifier(identifier)) return false;
      if (plugin != vpnPlugin) {
        success = false;
        course = kRecoveryCourseIdentifierTaken;
      }
    }
  }
  if (success &&
      _containerHasMissedItems(container, identifier,
                               bundleIsPlaceholder ? bundle.lastPathComponent() : std::string())) {
    bool keptInRecovery = false;
    if (!_setAsideItemAtURL(container, identifier, kRecoveryCourseLeftOver, &keptInRecovery)) {
      return false;
    }
    if (ContainerReport* report = _currentReport(); report && keptInRecovery) {
      report->course = kCourseMigratedLeftOversRecovered;
    }
    return true;
  }

  VX_MIGRATION_LOG(5, kOperation, "VXAppMigrator: Removing container for %@ at %@", identifier,
                   container.path());
  if (!success) {
    // The bundle the installation gave up on is the only copy there is: it goes to the
    // recovery area with the container, from where `vxmigrate recover` installs it again.
    bool keptInRecovery = false;
    if (_setAsideItemAtURL(container, identifier, course, &keptInRecovery)) {
      if (ContainerReport* report = _currentReport()) {
        report->course = keptInRecovery ? kCourseFailedBundleRecovered : kCourseFailedBundleGivenUp;
      }
    }
    return false;
  }
  ErrorRef error;
  if (!fileManager.removeItemAtURL(container, &error)) {
    VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to remove container %@ : %@",
                     container.path(), error);
  }
  return success;
}

}  // namespace vx
