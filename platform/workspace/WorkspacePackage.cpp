#include "platform/workspace/WorkspacePackage.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "platform/bundle/BundleHandle.h"
#include "platform/files/UniqueFd.h"
#include "platform/workspace/AppWorkspace.h"
#include "platform/workspace/Workspace.h"
#include "platform/workspace/WorkspaceLayout.h"
#include "support/types/Format.h"

namespace vx {
namespace {

InstallFailure Failure(int64_t code, const char* name, std::string message) {
  return InstallFailure{code, name, std::move(message), nullptr};
}

bool IsDirectory(const FileURL& url) {
  struct stat st {};
  return ::lstat(url.fileSystemRepresentation(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The real directories in `directory`, by name, so that a package is read the same way
// every time.
std::vector<std::string> SubdirectoryNames(const FileURL& directory) {
  std::vector<std::string> names;
  for (std::string& name : SortedEntryNames(directory)) {
    if (IsDirectory(directory.URLByAppendingPathComponent(name, true))) {
      names.push_back(std::move(name));
    }
  }
  return names;
}

std::optional<PackageBundle> ReadBundle(const FileURL& url, const std::string* fallbackIdentifier,
                                        InstallFailure* failure) {
  auto handle = BundleHandle::open(url);
  if (!handle || !handle->infoDictionary()) {
    *failure = Failure(kWorkspaceInvalidPackageError, "InvalidBundle",
                       Format("Bundle %@ has no readable Info.plist", url));
    return std::nullopt;
  }
  PackageBundle bundle;
  bundle.url = url;
  bundle.isVPNPlugin = url.pathExtension() == "vpnplugin";
  auto identifier = handle->bundleIdentifier();
  if (identifier && !identifier->empty()) {
    bundle.identifier = *identifier;
  } else if (fallbackIdentifier && !fallbackIdentifier->empty()) {
    bundle.identifier = *fallbackIdentifier;
  } else {
    *failure = Failure(kWorkspaceInvalidPackageError, "InvalidBundle",
                       Format("Bundle %@ has no bundle identifier", url));
    return std::nullopt;
  }
  const PlistValue info(*handle->infoDictionary());
  bundle.version = BundleVersionText(info.find("KBBundleVersion"));
  if (const PlistValue* groups = info.find("VXAppGroups")) {
    if (!groups->array()) {
      *failure = Failure(kWorkspaceInvalidPackageError, "InvalidBundle",
                         Format("VXAppGroups of %@ is not an array", url));
      return std::nullopt;
    }
    for (const PlistValue& group : *groups->array()) {
      if (group.string() && !group.string()->empty()) bundle.appGroups.push_back(*group.string());
    }
  }
  return bundle;
}

std::optional<InstallPackage> ReadCustomerPackage(const FileURL& location,
                                                  InstallFailure* failure) {
  const FileURL payload = location.URLByAppendingPathComponent("Payload", true);
  if (!IsDirectory(payload)) {
    *failure = Failure(kWorkspaceInvalidPackageError, "InvalidPackage",
                       Format("No Payload directory in %@", location));
    return std::nullopt;
  }
  std::vector<FileURL> apps, plugins;
  for (const std::string& name : SubdirectoryNames(payload)) {
    const FileURL url = payload.URLByAppendingPathComponent(name, true);
    if (url.pathExtension() == "app") apps.push_back(url);
    if (url.pathExtension() == "vpnplugin") plugins.push_back(url);
  }
  if (apps.size() > 1 || plugins.size() > 1 || (apps.empty() && plugins.empty())) {
    *failure = Failure(kWorkspaceInvalidPackageError, "InvalidPackage",
                       Format("Payload of %@ must hold one application (and at most one VPN "
                              "plug-in); it holds %zu and %zu",
                              location, apps.size(), plugins.size()));
    return std::nullopt;
  }

  InstallPackage package;
  package.metadataDirectory = location;
  // A VPN plug-in alone is installed as the main bundle.
  const FileURL mainURL = apps.empty() ? plugins.front() : apps.front();
  auto main = ReadBundle(mainURL, nullptr, failure);
  if (!main) return std::nullopt;
  package.main = std::move(*main);
  if (!apps.empty() && !plugins.empty()) {
    auto plugin = ReadBundle(plugins.front(), nullptr, failure);
    if (!plugin) return std::nullopt;
    if (plugin->identifier == package.main.identifier) {
      *failure = Failure(kWorkspaceInvalidPackageError, "InvalidPackage",
                         Format("VPN plug-in %@ has the application's own identifier %@",
                                plugin->url, plugin->identifier));
      return std::nullopt;
    }
    package.plugin = std::move(*plugin);
  }
  return package;
}

std::optional<InstallPackage> ReadPlaceholderPackage(const FileURL& location,
                                                     const PlistDictionary& options,
                                                     InstallFailure* failure) {
  if (!IsDirectory(location)) {
    *failure = Failure(kWorkspaceInvalidPackageError, "InvalidPackage",
                       Format("Placeholder %@ is not a bundle directory", location));
    return std::nullopt;
  }
  const PlistValue all(options);
  auto main = ReadBundle(location, all.stringForKey("KBBundleIdentifier"), failure);
  if (!main) return std::nullopt;
  InstallPackage package;
  package.placeholder = true;
  package.main = std::move(*main);
  if (const PlistValue* metadata = all.find(StoreMetadataKey)) {
    if (!metadata->data()) {
      *failure = Failure(kWorkspaceInvalidPackageError, "InvalidPackage",
                         Format("Store metadata for %@ is not data", location));
      return std::nullopt;
    }
    package.storeMetadata = *metadata->data();
  }
  return package;
}

bool OptionIsTrue(const PlistValue& options, const char* key) {
  const PlistValue* value = options.find(key);
  return value && value->boolean().value_or(false);
}

// The digits a version component starts with; "3b2" counts as 3.
unsigned long long LeadingNumber(const std::string& component) {
  unsigned long long value = 0;
  for (char c : component) {
    if (!std::isdigit(static_cast<unsigned char>(c))) break;
    value = value * 10 + static_cast<unsigned long long>(c - '0');
  }
  return value;
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    size_t end = text.find(separator, start);
    parts.push_back(text.substr(start, end - start));
    if (end == std::string::npos) return parts;
    start = end + 1;
  }
}

}  // namespace

std::optional<InstallPackage> ReadInstallPackage(const FileURL& location,
                                                 const PlistDictionary& options,
                                                 InstallFailure* failure) {
  const PlistValue all(options);
  const PlistValue* type = all.find(PackageTypeKey);
  if (!type || (type->string() && *type->string() == PackageTypeCustomer)) {
    return ReadCustomerPackage(location, failure);
  }
  if (type->string() && *type->string() == PackageTypePlaceholder) {
    return ReadPlaceholderPackage(location, options, failure);
  }
  *failure = Failure(kWorkspaceInvalidPackageError, "InvalidPackageType",
                     Format("Unknown package type %@", *type));
  return std::nullopt;
}

bool CheckInstallOptions(const InstallPackage& package, const PlistDictionary& options,
                         const std::set<std::string>& blacklist, InstallFailure* failure) {
  const PlistValue all(options);
  const std::string& identifier = package.main.identifier;
  if (OptionIsTrue(all, "VerifyForMigrator")) {
    const std::string* expected = all.stringForKey("KBBundleIdentifier");
    if (!expected || *expected != identifier) {
      *failure = Failure(kWorkspaceVerificationError, "BundleIdentifierMismatch",
                         Format("Bundle %@ has identifier %@, expected %@", package.main.url,
                                identifier, expected));
      return false;
    }
  }
  if (!OptionIsTrue(all, "SkipBlacklist")) {
    for (const PackageBundle* bundle :
         {&package.main, package.plugin ? &*package.plugin : nullptr}) {
      if (bundle && blacklist.count(bundle->identifier)) {
        *failure = Failure(kWorkspaceBlacklistedError, "ApplicationBlacklisted",
                           Format("%@ may not be installed", bundle->identifier));
        return false;
      }
    }
  }
  return true;
}

int CompareBundleVersions(const std::string& a, const std::string& b) {
  const auto left = Split(a, '.');
  const auto right = Split(b, '.');
  for (size_t i = 0; i < std::max(left.size(), right.size()); ++i) {
    const auto x = i < left.size() ? LeadingNumber(left[i]) : 0;
    const auto y = i < right.size() ? LeadingNumber(right[i]) : 0;
    if (x != y) return x < y ? -1 : 1;
  }
  return 0;
}

std::optional<std::string> BundleVersionText(const PlistValue* value) {
  if (!value) return std::nullopt;
  if (value->string()) return *value->string();
  if (value->isInteger()) return std::to_string(*value->int64Value());
  if (value->isReal()) {
    char text[64];
    std::snprintf(text, sizeof text, "%g", *value->doubleValue());
    return std::string(text);
  }
  return std::nullopt;
}

}  // namespace vx
