// Bundles and install packages for the workspace tests, written the way the migration
// stages them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "support/types/PlistValue.h"

namespace vx {
class AppWorkspace;
}

namespace vx::test {

struct TestBundle {
  std::string identifier;
  std::string version = "1.0";
  std::vector<std::string> groups = {};   // "VXAppGroups"
  std::string executable = "executable";  // content of the bundle's executable file
};

// A bundle directory at `path` with "Info.plist" and its executable; returns `path`.
std::string MakeBundle(const std::string& path, const TestBundle& bundle);

// A customer package: <staging>/Payload/<appName> (and a VPN plug-in beside it when given),
// with "LyrandMetadata.plist" and "Manifest.plist" beside Payload. Returns `staging`.
std::string MakeCustomerPackage(const std::string& staging, const std::string& appName,
                                const TestBundle& app,
                                const std::optional<TestBundle>& vpnPlugin = std::nullopt);

// The options the migration installs a staged application with.
PlistDictionary MigratorCustomerOptions(const std::string& identifier);
PlistDictionary PlaceholderOptions(const std::string& identifier);

// Stages `app` as a customer package at `staging` and installs it with the migration's options.
bool InstallCustomerPackage(AppWorkspace& workspace, const std::string& staging,
                            const std::string& appName, const TestBundle& app);
// Makes `bundle` at `path` and installs it as a placeholder.
bool InstallPlaceholder(AppWorkspace& workspace, const std::string& path, const TestBundle& bundle);

// Names of the containers in one container directory (hidden leftovers excluded).
std::vector<std::string> ContainerNames(const std::string& classDirectory);
// Every entry of a directory, hidden ones included, sorted.
std::vector<std::string> DirectoryEntries(const std::string& directory);

}  // namespace vx::test
