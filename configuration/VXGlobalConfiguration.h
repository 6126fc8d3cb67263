// The one process-wide configuration object of the installer family: where everything lives
// on the device, the installer's settings, the built-in bundles and the disk images.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "support/types/FileURL.h"
#include "support/types/PlistValue.h"

namespace vx {

// A bundle's "KBBundleIdentifier" and "KBBundleVersion" plus "com.tarsel.Velotrix.bundleURL".
using BundleInfoRecord = PlistDictionary;
using BundleMap = std::map<std::string, BundleInfoRecord>;
using BundleMapRef = std::shared_ptr<const BundleMap>;
using IdentifierSet = std::set<std::string>;
using IdentifierSetRef = std::shared_ptr<const IdentifierSet>;
using LocationSetRef = std::shared_ptr<const std::set<FileURL>>;

extern const char* const kVXBundleURLKey;  // "com.tarsel.Velotrix.bundleURL"

class VXGlobalConfiguration {
 public:
  // The one instance, made on the first call under a once-only guard, rooted at the device
  // root (DeviceRoot()); it lives until the process ends.
  static VXGlobalConfiguration& sharedInstance();

  // An instance rooted at another device root ("/" is the device itself). The shared
  // instance is the one the system uses; separate instances serve tools and tests.
  explicit VXGlobalConfiguration(const std::string& deviceRoot);
  VXGlobalConfiguration(const VXGlobalConfiguration&) = delete;
  VXGlobalConfiguration& operator=(const VXGlobalConfiguration&) = delete;

  // --- Directory layout ---------------------------------------------------------------
  FileURL homeDirectory() const { return _homePath; }
  FileURL oldContainerPath() const;
  FileURL oldInstallMapPath() const;
  FileURL carrierBundlesDirectory();
  FileURL cachesDirectory();
  FileURL stagingRoot();
  FileURL logDirectory();
  FileURL dataDirectory();
  // Where dataDirectory lies, without making it: for tools that only look.
  FileURL dataDirectoryLocation();
  FileURL archiveDirectory();
  FileURL coreServicesDirectory();
  FileURL systemAppsDirectory();
  FileURL internalAppsDirectory();
  FileURL developerAppsDirectory();
  FileURL factoryMountDirectory();
  FileURL systemFrameworksRootDirectory();
  FileURL internalFrameworksRootDirectory();
  FileURL developerFrameworksRootDirectory();
  LocationSetRef allFrameworksDirectories();

  // --- Installer settings -------------------------------------------------------------
  bool lowerInstallPriority() const { return _lowerInstallPriority; }
  bool skipDeviceFamilyCheck() const { return _skipDeviceFamilyCheck; }
  bool skipThinningCheck() const { return _skipThinningCheck; }
  int32_t nSimultaneousInstallations() const { return _nSimultaneousInstallations; }
  uint32_t uid() const { return _uid; }
  uint32_t gid() const { return _gid; }
  std::vector<std::string> appBundleMetadataItemNames() const;
  std::vector<std::string> appUserDataItemNames() const;
  IdentifierSetRef installationBlacklist() const;
  bool haveUpdatedPluginContainersWithParentID() const;
  void setHaveUpdatedPluginContainersWithParentID(bool value) const;
  std::optional<std::string> alternateThinningModelIdentifier() const;

  // --- Built-in bundle registry -------------------------------------------------------
  BundleMapRef _bundleIDMapForBundlesInDirectory(const FileURL& directory,
                                                 const std::string& extension);
  BundleMapRef _bundleIDMapForAppsInDirectory(const FileURL& directory);
  BundleMapRef systemAppBundleIDToInfoMap();
  BundleMapRef coreServicesAppBundleIDToInfoMap();
  BundleMapRef internalAppBundleIDToInfoMap();
  IdentifierSetRef builtInFrameworkBundleIDs();
  IdentifierSet builtInApplicationBundleIDs();
  void reScanSystemApps();
  void reScanCoreServicesApps();
  void reScanInternalApps();

  // --- Disk-image mount discovery -----------------------------------------------------
  std::optional<std::string> mountPointForDevice(uint32_t device);
  std::vector<std::string> diskImageMountPoints();
  std::vector<FileURL> diskImageApplicationsDirectories();
  BundleMap diskImageAppBundleIDToInfoMap();

 private:
  // Reads the installer settings from the preference store (step 1 of creation).
  void _readInstallerSettings();
  // The cached, created accessors share one shape: compute once, create on every call.
  FileURL _createdLocation(std::optional<FileURL>& cache, const FileURL& base,
                           const char* component, int32_t protectionClass,
                           const char* function, const char* message);
  FileURL _cachedLocation(std::optional<FileURL>& cache, const FileURL& base,
                          const char* component);
  BundleMapRef _cachedAppMap(BundleMapRef& cache, FileURL (VXGlobalConfiguration::*directory)());

  // Held while a cached location, bundle map or identifier set is built.
  std::recursive_mutex _lock;

  FileURL _homePath;
  FileURL _rootPath;
  std::optional<FileURL> _carrierBundlesDir;
  std::optional<FileURL> _stagingRoot;
  std::optional<FileURL> _coreServicesDir;
  std::optional<FileURL> _systemAppsDir;
  std::optional<FileURL> _internalAppsDir;
  std::optional<FileURL> _developerAppsDir;
  std::optional<FileURL> _factoryMountDir;
  std::optional<FileURL> _systemFrameworksRootDirectory;
  std::optional<FileURL> _internalFrameworksRootDirectory;
  std::optional<FileURL> _developerFrameworksRootDirectory;
  std::optional<FileURL> _dataDir;
  std::optional<FileURL> _archiveDir;
  std::optional<FileURL> _cachesDir;
  LocationSetRef _allFrameworksDirectories;
  BundleMapRef _systemAppBundleIDToInfoMap;
  BundleMapRef _coreServicesAppBundleIDToInfoMap;
  BundleMapRef _internalAppBundleIDToInfoMap;
  IdentifierSetRef _builtInFrameworkBundleIDs;
  bool _lowerInstallPriority = true;
  bool _skipDeviceFamilyCheck = false;
  bool _skipThinningCheck = false;
  int32_t _nSimultaneousInstallations = 4;
  uint32_t _uid = 501;
  uint32_t _gid = 501;
};

}  // namespace vx
