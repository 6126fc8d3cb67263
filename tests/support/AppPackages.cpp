#include "support/AppPackages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "platform/plist/PlistFile.h"
#include "platform/workspace/AppWorkspace.h"
#include "support/TempDir.h"

namespace vx::test {

std::string MakeBundle(const std::string& path, const TestBundle& bundle) {
  MakeDirs(path);
  PlistArray groups;
  for (const auto& group : bundle.groups) groups.emplace_back(group);
  PlistDictionary info{{"KBBundleIdentifier", bundle.identifier},
                       {"KBBundleVersion", bundle.version},
                       {"KBBundleExecutable", "App"}};
  if (!bundle.groups.empty()) info["VXAppGroups"] = std::move(groups);
  EXPECT_TRUE(WritePropertyListFile(path + "/Info.plist", PlistValue(std::move(info))));
  WriteFile(path + "/App", bundle.executable);
  return path;
}

std::string MakeCustomerPackage(const std::string& staging, const std::string& appName,
                                const TestBundle& app, const std::optional<TestBundle>& vpnPlugin) {
  MakeBundle(staging + "/Payload/" + appName, app);
  if (vpnPlugin) MakeBundle(staging + "/Payload/Tunnel.vpnplugin", *vpnPlugin);
  WriteFile(staging + "/LyrandMetadata.plist", "metadata of " + app.identifier);
  WriteFile(staging + "/Manifest.plist", "manifest");
  return staging;
}

PlistDictionary MigratorCustomerOptions(const std::string& identifier) {
  return {{InstallTypeKey, 6u},
          {PackageTypeKey, PackageTypeCustomer},
          {"VerifyForMigrator", true},
          {"SkipBlacklist", true},
          {"KBBundleIdentifier", identifier}};
}

PlistDictionary PlaceholderOptions(const std::string& identifier) {
  return {{InstallTypeKey, 6u},
          {PackageTypeKey, PackageTypePlaceholder},
          {"KBBundleIdentifier", identifier},
          {"SkipBlacklist", true}};
}

bool InstallCustomerPackage(AppWorkspace& workspace, const std::string& staging,
                            const std::string& appName, const TestBundle& app) {
  MakeCustomerPackage(staging, appName, app);
  return workspace.installApplication(FileURL::fileURLWithPath(staging, true),
                                      MigratorCustomerOptions(app.identifier), nullptr);
}

bool InstallPlaceholder(AppWorkspace& workspace, const std::string& path,
                        const TestBundle& bundle) {
  return workspace.installApplication(FileURL::fileURLWithPath(MakeBundle(path, bundle), true),
                                      PlaceholderOptions(bundle.identifier), nullptr);
}

std::vector<std::string> DirectoryEntries(const std::string& directory) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(directory, ec)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> ContainerNames(const std::string& classDirectory) {
  auto names = DirectoryEntries(classDirectory);
  std::erase_if(names, [](const std::string& name) { return name.front() == '.'; });
  return names;
}

}  // namespace vx::test
