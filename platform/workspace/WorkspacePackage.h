// What an installation is given: a customer package (a staging directory with
// Payload/<Name>.app, perhaps a .vpnplugin beside it, and the store metadata items beside
// Payload) or a placeholder package (a bundle directory itself), read and checked before
// anything on the device changes.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "support/types/FileURL.h"
#include "support/types/InstallerError.h"
#include "support/types/PlistValue.h"

namespace vx {

class VXGlobalConfiguration;

struct PackageBundle {
  FileURL url;
  std::string identifier;
  std::optional<std::string> version;
  std::vector<std::string> appGroups;  // "VXAppGroups"
  bool isVPNPlugin = false;
};

struct InstallPackage {
  bool placeholder = false;
  PackageBundle main;
  // A VPN plug-in that comes with the application, installed under its own identifier.
  std::optional<PackageBundle> plugin;
  // Customer: the staging directory whose metadata items go beside the bundle.
  std::optional<FileURL> metadataDirectory;
  // Placeholder: bytes kept as "LyrandMetadata.plist" beside the bundle.
  std::optional<PlistData> storeMetadata;
};

// Why an installation stopped: the report's "Error" name and description, and the error
// the installer hands out.
struct InstallFailure {
  int64_t code = 0;
  std::string name;
  std::string message;
  ErrorRef cause;
};

std::optional<InstallPackage> ReadInstallPackage(const FileURL& location,
                                                 const PlistDictionary& options,
                                                 InstallFailure* failure);

// The checks the options ask for: "VerifyForMigrator" (the bundle's identifier equals
// "KBBundleIdentifier") and the blacklist unless "SkipBlacklist".
bool CheckInstallOptions(const InstallPackage& package, const PlistDictionary& options,
                         const std::set<std::string>& blacklist, InstallFailure* failure);

// Compares dotted numeric versions ("1.10" > "1.9"; "2" == "2.0"); negative, zero or
// positive as `a` is older, the same or newer. A component's leading digits count.
int CompareBundleVersions(const std::string& a, const std::string& b);

// A version as text, whether the information list holds it as text or as a number.
std::optional<std::string> BundleVersionText(const PlistValue* value);

// Why a customer bundle of `identifier` at `version` would be turned away: a built-in
// application of the same or a newer version serves that identifier. Nothing when it would
// be installed. A missing version counts as "0".
std::optional<std::string> BuiltInRefusalMessage(VXGlobalConfiguration& configuration,
                                                 const std::string& identifier,
                                                 const std::optional<std::string>& version);

}  // namespace vx
