#include <cerrno>
#include <mutex>

#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
#include "platform/log/InstallerLog.h"
#include "support/LoadInfoPlist.h"

namespace vx {

const char* const kVXBundleURLKey = "com.tarsel.Velotrix.bundleURL";

namespace {

constexpr const char* kScanFunction =
    "-[VXGlobalConfiguration _bundleIDMapForBundlesInDirectory:withExtension:]";

// A scan reads only what a record holds, never a bundle's whole information list.
const std::set<std::string>& ScanKeys() {
  static const std::set<std::string> keys{"KBBundleIdentifier", "KBBundleVersion"};
  return keys;
}

}  // namespace

BundleMapRef VXGlobalConfiguration::_bundleIDMapForBundlesInDirectory(
    const FileURL& directory, const std::string& extension) {
  ErrorRef error;
  auto entries =
      VXFileManager::defaultManager().urlsForItemsInDirectoryAtURL(directory, true, &error);
  if (!entries) {
    // A device without the directory simply has no such bundles.
    if (!error || !error->isPOSIX(ENOENT)) {
      VX_INSTALLER_LOG(3, kScanFunction, "Failed to search for apps in %@ : %@", directory, error);
    }
    return nullptr;
  }

  auto map = std::make_shared<BundleMap>();
  for (const FileURL& entry : *entries) {
    if (entry.pathExtension() != extension) continue;
    std::optional<PlistDictionary> record = VXLoadInfoPlist(entry, &ScanKeys());
    if (!record) {
      VX_INSTALLER_LOG(7, kScanFunction, "Failed to load Info.plist from bundle %@", entry);
      continue;
    }
    auto identifier = record->find("KBBundleIdentifier");
    if (identifier == record->end() || !identifier->second.isString()) {
      VX_INSTALLER_LOG(7, kScanFunction, "Failed to get KBBundleIdentifier from bundle %@", entry);
      continue;
    }
    std::string key = *identifier->second.string();
    (*record)[kVXBundleURLKey] = PlistValue(entry);
    (*map)[std::move(key)] = std::move(*record);
  }
  return map;
}

BundleMapRef VXGlobalConfiguration::_bundleIDMapForAppsInDirectory(const FileURL& directory) {
  return _bundleIDMapForBundlesInDirectory(directory, "app");
}

BundleMapRef VXGlobalConfiguration::_cachedAppMap(BundleMapRef& cache,
                                                  FileURL (VXGlobalConfiguration::*directory)()) {
  // Held across the whole scan, so concurrent first callers share one scan.
  std::lock_guard<std::recursive_mutex> guard(_lock);
  if (!cache) cache = _bundleIDMapForAppsInDirectory((this->*directory)());
  return cache;
}

BundleMapRef VXGlobalConfiguration::systemAppBundleIDToInfoMap() {
  return _cachedAppMap(_systemAppBundleIDToInfoMap, &VXGlobalConfiguration::systemAppsDirectory);
}

BundleMapRef VXGlobalConfiguration::coreServicesAppBundleIDToInfoMap() {
  return _cachedAppMap(_coreServicesAppBundleIDToInfoMap,
                       &VXGlobalConfiguration::coreServicesDirectory);
}

BundleMapRef VXGlobalConfiguration::internalAppBundleIDToInfoMap() {
  return _cachedAppMap(_internalAppBundleIDToInfoMap,
                       &VXGlobalConfiguration::internalAppsDirectory);
}

IdentifierSetRef VXGlobalConfiguration::builtInFrameworkBundleIDs() {
  std::lock_guard<std::recursive_mutex> guard(_lock);
  if (!_builtInFrameworkBundleIDs) {
    auto identifiers = std::make_shared<IdentifierSet>();
    if (LocationSetRef directories = allFrameworksDirectories()) {
      for (const FileURL& directory : *directories) {
        BundleMapRef map = _bundleIDMapForBundlesInDirectory(directory, "framework");
        if (!map) continue;
        for (const auto& entry : *map) identifiers->insert(entry.first);
      }
    }
    _builtInFrameworkBundleIDs = std::move(identifiers);
  }
  return _builtInFrameworkBundleIDs;
}

// The system and the internal image each carry frameworks as well as applications, so a
// rescan of either drops the framework identifiers too; core services carry none.
void VXGlobalConfiguration::reScanSystemApps() {
  std::lock_guard<std::recursive_mutex> guard(_lock);
  _systemAppBundleIDToInfoMap.reset();
  _builtInFrameworkBundleIDs.reset();
}

void VXGlobalConfiguration::reScanCoreServicesApps() {
  std::lock_guard<std::recursive_mutex> guard(_lock);
  _coreServicesAppBundleIDToInfoMap.reset();
}

void VXGlobalConfiguration::reScanInternalApps() {
  std::lock_guard<std::recursive_mutex> guard(_lock);
  _internalAppBundleIDToInfoMap.reset();
  _builtInFrameworkBundleIDs.reset();
}

}  // namespace vx
