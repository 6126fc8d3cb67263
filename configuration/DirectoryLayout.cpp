// Where everything lives on the device. Locations are computed once under the instance's
// lock; the directories the installer writes into are made again on every request, so that
// one removed while the process runs comes back at the next use.
#include <mutex>

#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
#include "platform/files/DirChain.h"
#include "platform/log/InstallerLog.h"
#include "platform/system/DeviceRoot.h"

namespace vx {
namespace {

constexpr mode_t kDirectoryMode = 0755;
constexpr int32_t kInstallerDataClass = 4;
constexpr int32_t kClassUnchanged = -1;

// A failed creation is only logged: the caller gets the location either way and will meet
// the real problem when it writes there.
void CreateOrLog(const FileURL& url, int32_t protectionClass, const char* function,
                 const char* message) {
  const VXFileManager& fm = VXFileManager::defaultManager();
  // These directories hold what must outlive a power cut (the recovery area, the records of
  // the migration): each one made is synced into its parent before anything goes in. When
  // they exist, as they nearly always do, this costs one failing mkdir.
  dirchain(url.fileSystemRepresentation(), kDirectoryMode, DirChainSync::Durable);
  ErrorRef error;
  bool made = protectionClass == kClassUnchanged
                  ? fm.createDirectoryAtURL(url, true, kDirectoryMode, &error)
                  : fm.createDirectoryAtURL(url, true, kDirectoryMode, protectionClass, &error);
  if (!made) VX_INSTALLER_LOG(3, function, message, url, error);
}

constexpr const char* kDataDirectoryComponent = "Library/Velotrix";

}  // namespace

VXGlobalConfiguration& VXGlobalConfiguration::sharedInstance() {
  // Never destroyed: what it hands out must stay valid for code running at exit.
  static VXGlobalConfiguration* const instance = new VXGlobalConfiguration(DeviceRoot());
  return *instance;
}

VXGlobalConfiguration::VXGlobalConfiguration(const std::string& deviceRoot)
    : _homePath(FileURL::fileURLWithPath(deviceRoot, true)
                    .URLByAppendingPathComponent("private/var/mobile", true)),
      _rootPath(FileURL::fileURLWithPath(deviceRoot, true)) {
  // The preferences live under the home location, so it is set before the settings are read.
  _readInstallerSettings();
}

FileURL VXGlobalConfiguration::_cachedLocation(std::optional<FileURL>& cache,
                                               const FileURL& base, const char* component) {
  std::lock_guard lock(_lock);
  if (!cache) cache = base.URLByAppendingPathComponent(component, true);
  return *cache;
}

FileURL VXGlobalConfiguration::_createdLocation(std::optional<FileURL>& cache,
                                                const FileURL& base, const char* component,
                                                int32_t protectionClass, const char* function,
                                                const char* message) {
  // Held across the creation, so that concurrent first callers make the directory once.
  std::lock_guard lock(_lock);
  FileURL url = _cachedLocation(cache, base, component);
  CreateOrLog(url, protectionClass, function, message);
  return url;
}

FileURL VXGlobalConfiguration::oldContainerPath() const {
  return _homePath.URLByAppendingPathComponent("Applications", true);
}

FileURL VXGlobalConfiguration::oldInstallMapPath() const {
  return _homePath.URLByAppendingPathComponent("Library/Caches/com.tarsel.velotrix.plist", false);
}

FileURL VXGlobalConfiguration::carrierBundlesDirectory() {
  return _createdLocation(_carrierBundlesDir, _homePath, "Library/Carrier Bundles",
                          kClassUnchanged, "-[VXGlobalConfiguration carrierBundlesDirectory]",
                          "Failed to create carrier bundles directory at \"%@\": %@");
}

FileURL VXGlobalConfiguration::cachesDirectory() {
  return _createdLocation(_cachesDir, _homePath, "Library/Caches", kClassUnchanged,
                          "-[VXGlobalConfiguration cachesDirectory]",
                          "Failed to create caches directory at \"%@\": %@");
}

FileURL VXGlobalConfiguration::stagingRoot() {
  std::lock_guard lock(_lock);
  if (!_stagingRoot) {
    // Asking for the caches directory makes it, without a class, before its child gets one.
    _stagingRoot = cachesDirectory().URLByAppendingPathComponent(
        "com.tarsel.mobile.velotrixd.staging", true);
  }
  CreateOrLog(*_stagingRoot, kInstallerDataClass, "-[VXGlobalConfiguration stagingRoot]",
              "Failed to create staging root at \"%@\": %@");
  return *_stagingRoot;
}

FileURL VXGlobalConfiguration::logDirectory() {
  // Reads only the home location, which never changes, so no lock.
  FileURL url = _homePath.URLByAppendingPathComponent("Library/Logs/Velotrix", true);
  CreateOrLog(url, kInstallerDataClass, "-[VXGlobalConfiguration logDirectory]",
              "Failed to create log directory at \"%@\": %@");
  return url;
}

FileURL VXGlobalConfiguration::dataDirectory() {
  return _createdLocation(_dataDir, _homePath, kDataDirectoryComponent, kInstallerDataClass,
                          "-[VXGlobalConfiguration dataDirectory]",
                          "Failed to create data dir at \"%@\": %@");
}

FileURL VXGlobalConfiguration::dataDirectoryLocation() {
  return _cachedLocation(_dataDir, _homePath, kDataDirectoryComponent);
}

FileURL VXGlobalConfiguration::archiveDirectory() {
  return _createdLocation(_archiveDir, _homePath, "Media/ApplicationArchives",
                          kInstallerDataClass, "-[VXGlobalConfiguration archiveDirectory]",
                          "Failed to create archive dir at \"%@\": %@");
}

FileURL VXGlobalConfiguration::coreServicesDirectory() {
  return _cachedLocation(_coreServicesDir, _rootPath, "System/Library/CoreServices");
}

FileURL VXGlobalConfiguration::systemAppsDirectory() {
  return _cachedLocation(_systemAppsDir, _rootPath, "Applications");
}

FileURL VXGlobalConfiguration::internalAppsDirectory() {
  return _cachedLocation(_internalAppsDir, _rootPath, "TarselInternal/Applications");
}

FileURL VXGlobalConfiguration::developerAppsDirectory() {
  return _cachedLocation(_developerAppsDir, _rootPath, "Developer/Applications");
}

FileURL VXGlobalConfiguration::factoryMountDirectory() {
  return _cachedLocation(_factoryMountDir, _rootPath, "private/var/factory_mount/");
}

FileURL VXGlobalConfiguration::systemFrameworksRootDirectory() {
  return _cachedLocation(_systemFrameworksRootDirectory, _rootPath, "System/Library");
}

FileURL VXGlobalConfiguration::internalFrameworksRootDirectory() {
  return _cachedLocation(_internalFrameworksRootDirectory, _rootPath, "TarselInternal");
}

FileURL VXGlobalConfiguration::developerFrameworksRootDirectory() {
  return _cachedLocation(_developerFrameworksRootDirectory, _rootPath, "Developer");
}

LocationSetRef VXGlobalConfiguration::allFrameworksDirectories() {
  std::lock_guard lock(_lock);
  if (!_allFrameworksDirectories) {
    // Developer frameworks are left out on purpose: they are not part of the built system.
    const FileURL system = systemFrameworksRootDirectory();
    const FileURL internal = internalFrameworksRootDirectory();
    _allFrameworksDirectories = std::make_shared<const std::set<FileURL>>(std::set<FileURL>{
        system.URLByAppendingPathComponent("Frameworks", true),
        system.URLByAppendingPathComponent("PrivateFrameworks", true),
        internal.URLByAppendingPathComponent("Frameworks", true),
        internal.URLByAppendingPathComponent("PrivateFrameworks", true),
    });
  }
  return _allFrameworksDirectories;
}

}  // namespace vx
