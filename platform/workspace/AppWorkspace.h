// platform/workspace: the device's application workspace. The top of the platform layer
// below the installer service: it uses configuration/, filemanager/, support/errors and the
// lower platform services (bundle, files, log, plist, system).
//
// The application workspace: which applications are installed, their containers, and
// installation. Its state lives on disk under the device root and nowhere else; the file
// system is its database, so a second process (or a run after a crash) sees exactly what
// the first left.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/types/FileURL.h"
#include "support/types/InstallerError.h"
#include "support/types/PlistValue.h"

namespace vx {

// Install option keys and values.
extern const char* const InstallTypeKey;          // "InstallType"
extern const char* const PackageTypeKey;          // "PackageType"
extern const char* const PackageTypeCustomer;     // "Customer"
extern const char* const PackageTypePlaceholder;  // "Placeholder"
extern const char* const StoreMetadataKey;        // "StoreMetadata"
// The install type of an application that comes over from the old layout, its data following
// item by item from its old container.
inline constexpr unsigned kMigrationInstallType = 6;
// Where a migrated bundle comes from: a dictionary with the old container's device path
// ("Path") and identity ("Device", "Inode"). The bundle may replace only an installation
// from the same container or one without an origin; no built-in application.
extern const char* const MigrationOriginKey;  // "MigrationOrigin"
// A VPN plug-in belongs to its application: its identifier is the application's followed by
// "." and a suffix.
inline bool PluginIdentifierExtends(const std::string& application, const std::string& plugin) {
  return plugin.size() > application.size() + 1 &&
         plugin.compare(0, application.size(), application) == 0 &&
         plugin[application.size()] == '.';
}
// Progress report entries.
extern const char* const kInstallProgressPercentKey;         // "PercentComplete"
extern const char* const kInstallProgressStatusKey;          // "Status"
extern const char* const kInstallProgressErrorKey;           // "Error"
extern const char* const kInstallProgressErrorDescriptionKey;  // "ErrorDescription"
extern const char* const kInstallProgressErrorDetailKey;     // "ErrorDetail"
extern const char* const kApplicationAlreadyInstalledError;  // "ApplicationAlreadyInstalled"
// The identifier belongs to a bundle of another old container, or to a built-in application.
extern const char* const kIdentifierTakenError;  // "IdentifierTaken"

// A dictionary of text keys the workspace sends while it installs.
using InstallProgressReport = PlistDictionary;
using InstallProgressCallback = std::function<void(const InstallProgressReport& report)>;

// What the workspace knows of one installed (or built-in) bundle.
class BundleProxy {
 public:
  std::string bundleIdentifier;
  std::string bundleType;  // "User", "Placeholder", "System", "VPNPlugin"
  std::optional<std::string> bundleVersion;  // "KBBundleVersion" as text, when the bundle has one
  std::optional<FileURL> bundleURL;
  std::optional<FileURL> bundleContainerURL;
  std::optional<FileURL> dataContainerURL;
  // Group identifier to the group's container; nullopt when they could not be had.
  std::optional<std::map<std::string, FileURL>> groupContainerURLs;
  bool foundBackingBundle = false;
};

class AppWorkspace {
 public:
  virtual ~AppWorkspace() = default;

  // The workspace of the device under the device root, made on first use.
  static AppWorkspace& defaultWorkspace();
  // Replaces the default workspace (tests substitute their own); returns the previous one.
  static AppWorkspace* setDefaultWorkspaceForTesting(AppWorkspace* workspace);

  virtual bool applicationIsInstalled(const std::string& identifier) = 0;
  // Nothing when no bundle of that identifier is known.
  virtual std::optional<BundleProxy> bundleProxyForIdentifier(const std::string& identifier) = 0;
  // Every identifier the workspace knows (installed and built-in), sorted. A workspace that
  // cannot enumerate answers none.
  virtual std::vector<std::string> installedBundleIdentifiers() { return {}; }
  // Installs from `location` synchronously; every progress call happens before it returns.
  virtual bool installApplication(const FileURL& location, const PlistDictionary& options,
                                  ErrorRef* error, const InstallProgressCallback& progress) = 0;
  bool installApplication(const FileURL& location, const PlistDictionary& options,
                          ErrorRef* error) {
    return installApplication(location, options, error, nullptr);
  }
  // Removes what installations left to remove later: the containers of replaced
  // placeholders. A caller that installs many applications in a row calls it when done.
  virtual void removeRetiredContainers() {}
};

}  // namespace vx
