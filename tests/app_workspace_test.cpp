// The workspace of a device directory: installation of customer and placeholder packages,
// replacement that keeps data, refusals, and group containers.
#include <gtest/gtest.h>

#include "filemanager/VXFileManager.h"
#include "platform/PlistFile.h"
#include "platform/Workspace.h"
#include "support/AppPackages.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using test::ContainerNames;
using test::Exists;
using test::ReadFile;
using test::TestBundle;

class AppWorkspaceTest : public ::testing::Test {
 protected:
  std::string containers(const std::string& kind) {
    return device / ("private/var/mobile/Containers/" + kind);
  }

  bool install(const std::string& location, const PlistDictionary& options,
               ErrorRef* error = nullptr, std::vector<InstallProgressReport>* reports = nullptr) {
    return workspace.installApplication(FileURL::fileURLWithPath(location, true), options, error,
                                        [reports](const InstallProgressReport& report) {
                                          if (reports) reports->push_back(report);
                                        });
  }

  test::TempDir device;
  DeviceWorkspace workspace{device.path()};
};

const std::string* ReportText(const InstallProgressReport& report, const char* key) {
  auto it = report.find(key);
  return it == report.end() ? nullptr : it->second.string();
}

TEST_F(AppWorkspaceTest, CustomerPackageInstallsWithPluginMetadataAndProgress) {
  const std::string staging = test::MakeCustomerPackage(
      device / "Staging", "Demo.app", {.identifier = "com.example.demo", .version = "3.1"},
      TestBundle{.identifier = "com.example.demo.tunnel"});
  std::vector<InstallProgressReport> reports;
  ErrorRef error;
  ASSERT_TRUE(install(staging, test::MigratorCustomerOptions("com.example.demo"), &error, &reports))
      << (error ? Describe(*error) : "");

  ASSERT_FALSE(reports.empty());
  EXPECT_EQ(reports.back().at(kInstallProgressPercentKey).int64Value(), 100);
  EXPECT_FALSE(ReportText(reports.back(), kInstallProgressErrorKey));

  auto app = workspace.bundleProxyForIdentifier("com.example.demo");
  ASSERT_TRUE(app);
  EXPECT_EQ(app->bundleType, "User");
  EXPECT_EQ(app->bundleVersion, "3.1");
  EXPECT_EQ(app->bundleURL->path(), app->bundleContainerURL->path() + "/Demo.app");
  EXPECT_EQ(ReadFile(app->bundleURL->path() + "/App"), "executable");
  EXPECT_EQ(ReadFile(app->bundleContainerURL->path() + "/LyrandMetadata.plist"),
            "metadata of com.example.demo");
  EXPECT_EQ(VXFileManager::defaultManager().installTypeForBundle(*app->bundleURL, nullptr), 6u);
  ASSERT_TRUE(app->dataContainerURL);
  EXPECT_EQ(app->dataContainerURL->URLByDeletingLastPathComponent().path(), containers("Data"));
  EXPECT_TRUE(Exists(app->dataContainerURL->path() + "/Library"));

  // The VPN plug-in is its own installation, with a plug-in data container.
  auto tunnel = workspace.bundleProxyForIdentifier("com.example.demo.tunnel");
  ASSERT_TRUE(tunnel);
  EXPECT_EQ(tunnel->bundleType, "VPNPlugin");
  EXPECT_EQ(tunnel->dataContainerURL->URLByDeletingLastPathComponent().path(),
            containers("PluginData"));

  EXPECT_FALSE(Exists(staging));

  // Nothing lives in memory: a workspace made afresh reads the same installation from disk.
  DeviceWorkspace again(device.path());
  EXPECT_EQ(again.bundleProxyForIdentifier("com.example.demo")->dataContainerURL,
            app->dataContainerURL);
  EXPECT_EQ(again.installedBundleIdentifiers(),
            (std::vector<std::string>{"com.example.demo", "com.example.demo.tunnel"}));
  EXPECT_FALSE(again.bundleProxyForIdentifier("com.example.unknown"));
}

TEST_F(AppWorkspaceTest, PlaceholderIsReplacedByTheRealBundleKeepingItsData) {
  const std::string placeholder = test::MakeBundle(
      device / "tmp/com.example.notes.app", {.identifier = "com.example.notes", .version = "2.0"});
  PlistDictionary options = test::PlaceholderOptions("com.example.notes");
  const PlistData metadata{0x00, 0xFF, 'm', 'd'};
  options[StoreMetadataKey] = metadata;
  ASSERT_TRUE(install(placeholder, options));
  EXPECT_FALSE(Exists(placeholder));
  EXPECT_TRUE(workspace.applicationIsInstalled("com.example.notes"));

  auto before = workspace.bundleProxyForIdentifier("com.example.notes");
  ASSERT_TRUE(before && before->dataContainerURL);
  EXPECT_EQ(before->bundleType, "Placeholder");
  EXPECT_TRUE(VXFileManager::defaultManager().bundleAtURLIsPlaceholder(*before->bundleURL));
  EXPECT_EQ(ReadFile(before->bundleContainerURL->path() + "/LyrandMetadata.plist"),
            std::string(metadata.begin(), metadata.end()));
  test::WriteFile(before->dataContainerURL->path() + "/Documents/notes.txt", "precious");

  const std::string staging = test::MakeCustomerPackage(
      device / "Staging", "Notes.app",
      {.identifier = "com.example.notes", .version = "2.0", .executable = "real"});
  ASSERT_TRUE(install(staging, test::MigratorCustomerOptions("com.example.notes")));

  auto after = workspace.bundleProxyForIdentifier("com.example.notes");
  ASSERT_TRUE(after);
  EXPECT_EQ(after->bundleType, "User");
  EXPECT_FALSE(VXFileManager::defaultManager().bundleAtURLIsPlaceholder(*after->bundleURL));
  EXPECT_EQ(ReadFile(after->bundleURL->path() + "/App"), "real");
  EXPECT_NE(after->bundleContainerURL, before->bundleContainerURL);
  EXPECT_EQ(after->dataContainerURL, before->dataContainerURL);
  EXPECT_EQ(ReadFile(after->dataContainerURL->path() + "/Documents/notes.txt"), "precious");
  // The placeholder's container is gone whole; no second data container was made.
  EXPECT_EQ(test::DirectoryEntries(containers("Bundles")).size(), 1u);
  EXPECT_EQ(test::DirectoryEntries(containers("Data")).size(), 1u);
}

TEST_F(AppWorkspaceTest, BuiltInApplicationRefusesCustomerInstallsUnlessNewer) {
  test::MakeBundle(device / "Applications/Clock.app",
                   {.identifier = "com.tarsel.clock", .version = "5.2"});
  EXPECT_TRUE(workspace.applicationIsInstalled("com.tarsel.clock"));
  auto existing = workspace.existingBundleProxy("com.tarsel.clock");
  ASSERT_TRUE(existing);
  EXPECT_EQ(existing->bundleType, "System");
  EXPECT_EQ(existing->bundleURL->path(), device / "Applications/Clock.app");
  EXPECT_FALSE(existing->dataContainerURL);

  // The data container of a built-in application is made on its first request, once.
  auto first = workspace.bundleProxyForIdentifier("com.tarsel.clock");
  ASSERT_TRUE(first && first->dataContainerURL);
  EXPECT_TRUE(Exists(first->dataContainerURL->path() + "/Documents"));
  EXPECT_EQ(workspace.bundleProxyForIdentifier("com.tarsel.clock")->dataContainerURL,
            first->dataContainerURL);

  for (const char* version : {"5.2", "5.1.9", "5", "5.2.0"}) {
    SCOPED_TRACE(version);
    const std::string staging = test::MakeCustomerPackage(
        device / "Staging", "Clock.app", {.identifier = "com.tarsel.clock", .version = version});
    std::vector<InstallProgressReport> reports;
    ErrorRef error;
    EXPECT_FALSE(
        install(staging, test::MigratorCustomerOptions("com.tarsel.clock"), &error, &reports));
    EXPECT_EQ(error->code(), kWorkspaceAlreadyInstalledError);
    EXPECT_EQ(*ReportText(reports.back(), kInstallProgressErrorKey), "ApplicationAlreadyInstalled");
    EXPECT_FALSE(Exists(staging));  // consumed, as after a success
    EXPECT_EQ(workspace.bundleProxyForIdentifier("com.tarsel.clock")->bundleType, "System");
  }
  EXPECT_TRUE(ContainerNames(containers("Bundles")).empty());

  // Versions compare as numbers: 5.10 is newer than 5.2.
  const std::string staging = test::MakeCustomerPackage(
      device / "Staging", "Clock.app", {.identifier = "com.tarsel.clock", .version = "5.10"});
  ASSERT_TRUE(install(staging, test::MigratorCustomerOptions("com.tarsel.clock")));
  auto user = workspace.bundleProxyForIdentifier("com.tarsel.clock");
  EXPECT_EQ(user->bundleType, "User");
  EXPECT_EQ(user->dataContainerURL, first->dataContainerURL);
}

TEST_F(AppWorkspaceTest, RefusedPackagesAreLeftAsTheyWere) {
  auto expectRefused = [&](const std::string& staging, const PlistDictionary& options,
                           int64_t code) {
    const auto entriesBefore = test::DirectoryEntries(staging);
    std::vector<InstallProgressReport> reports;
    ErrorRef error;
    EXPECT_FALSE(install(staging, options, &error, &reports));
    ASSERT_TRUE(error && !reports.empty());
    EXPECT_EQ(error->code(), code);
    EXPECT_TRUE(ReportText(reports.back(), kInstallProgressErrorKey));
    EXPECT_EQ(test::DirectoryEntries(staging), entriesBefore);
  };
  const PlistDictionary customer{{PackageTypeKey, PackageTypeCustomer}};
  const std::string updater = test::MakeCustomerPackage(device / "S1", "Updater.app",
                                                        {.identifier = "com.tarsel.Orvik6Updater"});
  expectRefused(updater, customer, kWorkspaceBlacklistedError);
  expectRefused(
      test::MakeCustomerPackage(device / "S2", "Real.app", {.identifier = "com.example.real"}),
      test::MigratorCustomerOptions("com.example.other"), kWorkspaceVerificationError);
  test::MakeBundle(device / "S3/Payload/B.app", {.identifier = "com.example.b"});
  expectRefused(test::MakeCustomerPackage(device / "S3", "A.app", {.identifier = "com.example.a"}),
                customer, kWorkspaceInvalidPackageError);
  EXPECT_TRUE(ContainerNames(containers("Data")).empty());
  EXPECT_TRUE(workspace.installedBundleIdentifiers().empty());

  // The blacklist gives way when the caller asks it to.
  EXPECT_TRUE(install(updater, {{PackageTypeKey, PackageTypeCustomer}, {"SkipBlacklist", true}}));
}

TEST_F(AppWorkspaceTest, GroupContainersAreSharedByEveryApplicationDeclaringThem) {
  ASSERT_TRUE(install(test::MakeCustomerPackage(
                          device / "S1", "A.app",
                          {.identifier = "com.example.a", .groups = {"group.shared", "group.a"}}),
                      test::MigratorCustomerOptions("com.example.a")));
  ASSERT_TRUE(install(
      test::MakeCustomerPackage(device / "S2", "B.app",
                                {.identifier = "com.example.b", .groups = {"group.shared"}}),
      test::MigratorCustomerOptions("com.example.b")));

  auto a = workspace.bundleProxyForIdentifier("com.example.a");
  auto b = workspace.bundleProxyForIdentifier("com.example.b");
  ASSERT_TRUE(a && a->groupContainerURLs && b && b->groupContainerURLs);
  EXPECT_EQ(a->groupContainerURLs->size(), 2u);
  ASSERT_EQ(b->groupContainerURLs->size(), 1u);
  EXPECT_EQ(a->groupContainerURLs->at("group.shared"), b->groupContainerURLs->at("group.shared"));
  EXPECT_NE(a->groupContainerURLs->at("group.a"), a->groupContainerURLs->at("group.shared"));
  EXPECT_EQ(ContainerNames(containers("Groups")).size(), 2u);

  // A new version of A keeps the groups' containers and what is in them.
  const FileURL shared = a->groupContainerURLs->at("group.shared");
  test::WriteFile(shared.path() + "/shared.db", "rows");
  ASSERT_TRUE(install(
      test::MakeCustomerPackage(
          device / "S3", "A.app",
          {.identifier = "com.example.a", .version = "2.0", .groups = {"group.shared", "group.a"}}),
      test::MigratorCustomerOptions("com.example.a")));
  auto a2 = workspace.bundleProxyForIdentifier("com.example.a");
  EXPECT_EQ(a2->groupContainerURLs, a->groupContainerURLs);
  EXPECT_EQ(ReadFile(shared.path() + "/shared.db"), "rows");
  EXPECT_EQ(ContainerNames(containers("Groups")).size(), 2u);
}

}  // namespace
}  // namespace vx
