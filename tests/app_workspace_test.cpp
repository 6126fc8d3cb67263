// The workspace of a device directory: installation of customer and placeholder packages,
// replacement that keeps data, refusals, and group containers.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "filemanager/VXFileManager.h"
#include "platform/plist/PlistFile.h"
#include "platform/workspace/Workspace.h"
#include "platform/workspace/WorkspaceLayout.h"
#include "support/AppPackages.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using namespace test;

class AppWorkspaceTest : public ::testing::Test {
 protected:
  std::string containers(const std::string& kind) {
    return device / ("private/var/mobile/Containers/" + kind);
  }

  // Keeps the installation's error and progress reports for the checks.
  bool install(const std::string& location, const PlistDictionary& options) {
    error.reset();
    reports.clear();
    return workspace.installApplication(
        FileURL::fileURLWithPath(location, true), options, &error,
        [this](const InstallProgressReport& report) { reports.push_back(report); });
  }

  TempDir device;
  DeviceWorkspace workspace{device.path()};
  ErrorRef error;
  std::vector<InstallProgressReport> reports;
};

TEST_F(AppWorkspaceTest, CustomerPackageInstallsWithPluginMetadataAndProgress) {
  const std::string staging =
      MakeCustomerPackage(device / "Staging", "Demo.app", {.identifier = "com.example.demo"},
                          TestBundle{.identifier = "com.example.demo.tunnel"});
  ASSERT_TRUE(install(staging, MigratorCustomerOptions("com.example.demo")))
      << (error ? Describe(*error) : "");
  ASSERT_FALSE(reports.empty());
  EXPECT_EQ(reports.back().at(kInstallProgressPercentKey).int64Value(), 100);
  EXPECT_FALSE(Exists(staging));

  auto app = workspace.bundleProxyForIdentifier("com.example.demo");
  ASSERT_TRUE(app && app->dataContainerURL);
  EXPECT_EQ(app->bundleType, "User");
  EXPECT_EQ(ReadFile(app->bundleContainerURL->path() + "/Demo.app/App"), "executable");
  EXPECT_EQ(ReadFile(app->bundleContainerURL->path() + "/LyrandMetadata.plist"),
            "metadata of com.example.demo");
  EXPECT_EQ(VXFileManager::defaultManager().installTypeForBundle(*app->bundleURL, nullptr), 6u);
  EXPECT_EQ(app->dataContainerURL->URLByDeletingLastPathComponent().path(), containers("Data"));
  EXPECT_TRUE(Exists(app->dataContainerURL->path() + "/Library"));

  // The VPN plug-in is its own installation, with a plug-in data container.
  auto tunnel = workspace.bundleProxyForIdentifier("com.example.demo.tunnel");
  ASSERT_TRUE(tunnel);
  EXPECT_EQ(tunnel->bundleType, "VPNPlugin");
  EXPECT_EQ(tunnel->dataContainerURL->URLByDeletingLastPathComponent().path(),
            containers("PluginData"));

  // Nothing lives in memory: a workspace made afresh reads the same installation from disk.
  DeviceWorkspace again(device.path());
  EXPECT_EQ(again.bundleProxyForIdentifier("com.example.demo")->dataContainerURL,
            app->dataContainerURL);
  EXPECT_EQ(again.installedBundleIdentifiers(),
            (std::vector<std::string>{"com.example.demo", "com.example.demo.tunnel"}));
}

TEST_F(AppWorkspaceTest, ReplacementsKeepDataAndSharedGroupContainers) {
  const std::string placeholder =
      MakeBundle(device / "tmp/com.example.notes.app", {.identifier = "com.example.notes"});
  PlistDictionary options = PlaceholderOptions("com.example.notes");
  options[StoreMetadataKey] = PlistData{0x00, 0xFF, 'm', 'd'};
  ASSERT_TRUE(install(placeholder, options));
  auto before = workspace.bundleProxyForIdentifier("com.example.notes");
  ASSERT_TRUE(before && before->dataContainerURL);
  EXPECT_EQ(before->bundleType, "Placeholder");
  EXPECT_TRUE(VXFileManager::defaultManager().bundleAtURLIsPlaceholder(*before->bundleURL));
  EXPECT_EQ(ReadFile(before->bundleContainerURL->path() + "/LyrandMetadata.plist"),
            std::string("\0\xFFmd", 4));
  // A migration's placeholder gets no default items: the old container's take their place.
  EXPECT_TRUE(ContainerNames(before->dataContainerURL->path()).empty());
  WriteFile(before->dataContainerURL->path() + "/Documents/notes.txt", "precious");

  TestBundle notes{.identifier = "com.example.notes",
                   .groups = {"group.shared", "group.notes"},
                   .executable = "real"};
  ASSERT_TRUE(InstallCustomerPackage(workspace, device / "S1", "Notes.app", notes));
  auto after = workspace.bundleProxyForIdentifier("com.example.notes");
  ASSERT_TRUE(after && after->groupContainerURLs);
  EXPECT_EQ(after->bundleType, "User");
  EXPECT_EQ(ReadFile(after->bundleURL->path() + "/App"), "real");
  EXPECT_EQ(after->dataContainerURL, before->dataContainerURL);
  // The application's own installation makes those that did not come.
  EXPECT_EQ(ContainerNames(after->dataContainerURL->path()),
            (std::vector<std::string>{"Documents", "Library", "tmp"}));
  // Should a cut leave the replaced container beside its successor, the successor wins
  // every later scan by its higher sequence, not by the chance of its name.
  auto sequence = [](const BundleProxy& proxy) {
    return WorkspaceLayout::readRecord(*proxy.bundleContainerURL)->installSequence;
  };
  const int64_t replacedSequence = sequence(*after);
  EXPECT_EQ(replacedSequence, 2);

  // Every application declaring a group shares its container.
  ASSERT_TRUE(InstallCustomerPackage(workspace, device / "S2", "B.app",
                                     {.identifier = "com.example.b", .groups = {"group.shared"}}));
  const FileURL shared = after->groupContainerURLs->at("group.shared");
  EXPECT_EQ(workspace.bundleProxyForIdentifier("com.example.b")->groupContainerURLs,
            (std::map<std::string, FileURL>{{"group.shared", shared}}));

  WriteFile(shared.path() + "/shared.db", "rows");
  notes.version = "2.0";
  ASSERT_TRUE(InstallCustomerPackage(workspace, device / "S3", "Notes.app", notes));
  auto newer = workspace.bundleProxyForIdentifier("com.example.notes");
  EXPECT_EQ(newer->bundleVersion, "2.0");
  EXPECT_EQ(sequence(*newer), replacedSequence + 1);
  EXPECT_EQ(newer->groupContainerURLs, after->groupContainerURLs);
  EXPECT_EQ(ReadFile(newer->dataContainerURL->path() + "/Documents/notes.txt"), "precious");
  EXPECT_EQ(ReadFile(shared.path() + "/shared.db"), "rows");
  // A replaced application's container is gone at once; the replaced placeholder's, and
  // what the packages left, wait hidden for the installer's end. Then nothing is left over,
  // and no second data or group container was made.
  EXPECT_EQ(ContainerNames(containers("Bundles")).size(), 2u);
  EXPECT_GT(DirectoryEntries(containers("Bundles")).size(), 2u);
  workspace.removeRetiredContainers();
  EXPECT_EQ(DirectoryEntries(containers("Bundles")).size(), 2u);
  EXPECT_EQ(DirectoryEntries(containers("Data")).size(), 2u);
  EXPECT_EQ(ContainerNames(containers("Groups")).size(), 2u);
}

TEST_F(AppWorkspaceTest, BuiltInApplicationRefusesCustomerInstallsUnlessNewer) {
  MakeBundle(device / "Applications/Clock.app",
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
    const std::string staging = MakeCustomerPackage(
        device / "Staging", "Clock.app", {.identifier = "com.tarsel.clock", .version = version});
    EXPECT_FALSE(install(staging, MigratorCustomerOptions("com.tarsel.clock")));
    EXPECT_EQ(error->code(), kWorkspaceAlreadyInstalledError);
    EXPECT_EQ(*reports.back().at(kInstallProgressErrorKey).string(), "ApplicationAlreadyInstalled");
    EXPECT_FALSE(Exists(staging));  // consumed, as after a success
  }
  EXPECT_TRUE(ContainerNames(containers("Bundles")).empty());

  // Versions compare as numbers: 5.10 is newer than 5.2.
  ASSERT_TRUE(InstallCustomerPackage(workspace, device / "Staging", "Clock.app",
                                     {.identifier = "com.tarsel.clock", .version = "5.10"}));
  auto user = workspace.bundleProxyForIdentifier("com.tarsel.clock");
  EXPECT_EQ(user->bundleType, "User");
  EXPECT_EQ(user->dataContainerURL, first->dataContainerURL);
}

TEST_F(AppWorkspaceTest, RefusedPackagesAreLeftAsTheyWere) {
  auto expectRefused = [&](const std::string& staging, const PlistDictionary& options,
                           int64_t code) {
    const auto entriesBefore = DirectoryEntries(staging);
    EXPECT_FALSE(install(staging, options));
    ASSERT_TRUE(error && !reports.empty());
    EXPECT_EQ(error->code(), code);
    EXPECT_TRUE(reports.back().count(kInstallProgressErrorKey));
    EXPECT_EQ(DirectoryEntries(staging), entriesBefore);
  };
  const PlistDictionary customer{{PackageTypeKey, PackageTypeCustomer}};
  const std::string updater =
      MakeCustomerPackage(device / "S1", "Updater.app", {.identifier = "com.tarsel.Orvik6Updater"});
  expectRefused(updater, customer, kWorkspaceBlacklistedError);
  expectRefused(MakeCustomerPackage(device / "S2", "Real.app", {.identifier = "com.example.real"}),
                MigratorCustomerOptions("com.example.other"), kWorkspaceVerificationError);
  MakeBundle(device / "S3/Payload/B.app", {.identifier = "com.example.b"});
  expectRefused(MakeCustomerPackage(device / "S3", "A.app", {.identifier = "com.example.a"}),
                customer, kWorkspaceInvalidPackageError);
  EXPECT_TRUE(ContainerNames(containers("Data")).empty());
  EXPECT_TRUE(workspace.installedBundleIdentifiers().empty());

  // The blacklist gives way when the caller asks it to.
  EXPECT_TRUE(install(updater, {{PackageTypeKey, PackageTypeCustomer}, {"SkipBlacklist", true}}));
}

ino_t InodeOf(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

TEST_F(AppWorkspaceTest, BundlesMoveInAndOtherProcessesSeeTheChange) {
  // Same file system: the staged bundle itself becomes the installed one.
  const std::string staging =
      MakeCustomerPackage(device / "S1", "Moved.app", {.identifier = "com.example.moved"});
  const ino_t staged = InodeOf(staging + "/Payload/Moved.app");
  ASSERT_TRUE(install(staging, MigratorCustomerOptions("com.example.moved")));
  auto moved = workspace.existingBundleProxy("com.example.moved");
  ASSERT_TRUE(moved && moved->bundleURL);
  EXPECT_EQ(InodeOf(moved->bundleURL->path()), staged);
  EXPECT_EQ(VXFileManager::defaultManager().installTypeForBundle(*moved->bundleURL, nullptr), 6u);

  // Another process installs and replaces meanwhile; this one's index notices, without
  // being told.
  const pid_t child = ::fork();
  if (child == 0) {
    DeviceWorkspace other(device.path());
    const bool ok = InstallCustomerPackage(other, device / "S2", "Late.app",
                                           {.identifier = "com.example.late"}) &&
                    InstallCustomerPackage(other, device / "S3", "Moved.app",
                                           {.identifier = "com.example.moved", .version = "2.0"});
    ::_exit(ok ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_TRUE(workspace.applicationIsInstalled("com.example.late"));
  EXPECT_EQ(workspace.existingBundleProxy("com.example.moved")->bundleVersion, "2.0");
  EXPECT_EQ(workspace.installedBundleIdentifiers(),
            (std::vector<std::string>{"com.example.late", "com.example.moved"}));
  EXPECT_EQ(DirectoryEntries(containers("Bundles")).size(), 2u);
}

TEST_F(AppWorkspaceTest, ConcurrentWritersNeverMakeASecondContainer) {
  // Two processes install their own applications and ask for the same one's containers at
  // once, each with an index it believes current; the lock and the stamp keep them apart.
  // A built-in application's containers are made on its first request.
  MakeBundle(device / "Applications/Shared.app",
             {.identifier = "com.example.shared", .groups = {"group.both"}});
  std::vector<pid_t> children;
  for (const char* side : {"a", "b"}) {
    const pid_t child = ::fork();
    if (child == 0) {
      DeviceWorkspace mine(device.path());
      bool ok = true;
      for (int i = 0; i < 5; ++i) {
        const std::string name = std::string(side) + std::to_string(i);
        ok &=
            InstallCustomerPackage(mine, device / ("S-" + name), "App.app",
                                   {.identifier = "com.example." + name, .groups = {"group.both"}});
        auto shared = mine.bundleProxyForIdentifier("com.example.shared");
        ok &= shared && shared->dataContainerURL && shared->groupContainerURLs &&
              shared->groupContainerURLs->size() == 1;
      }
      ::_exit(ok ? 0 : 1);
    }
    children.push_back(child);
  }
  for (pid_t child : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  EXPECT_EQ(workspace.installedBundleIdentifiers().size(), 11u);
  EXPECT_EQ(ContainerNames(containers("Data")).size(), 11u);
  EXPECT_EQ(ContainerNames(containers("Groups")).size(), 1u);
  EXPECT_EQ(ContainerNames(containers("Bundles")).size(), 10u);  // the built-in has none
}

TEST_F(AppWorkspaceTest, PackagesBehindLinksStayWhereTheyAre) {
  // A package reached through a link planted in its path is not taken from where the link
  // leads.
  const std::string elsewhere =
      MakeCustomerPackage(device / "Elsewhere", "Lure.app", {.identifier = "com.example.lure"});
  ASSERT_EQ(::symlink(elsewhere.c_str(), (device / "Staging").c_str()), 0);
  EXPECT_FALSE(install(device / "Staging", MigratorCustomerOptions("com.example.lure")));
  EXPECT_EQ(ReadFile(elsewhere + "/Payload/Lure.app/App"), "executable");
  EXPECT_FALSE(workspace.applicationIsInstalled("com.example.lure"));

  // Across file systems the bundle is copied, whole, and the package consumed.
  std::string why;
  auto other = TempDirOnAnotherFileSystem(device.path(), &why);
  if (!other) GTEST_SKIP() << why;
  const std::string placeholder = MakeBundle(*other / "Far.app", {.identifier = "com.example.far"});
  ASSERT_TRUE(install(placeholder, PlaceholderOptions("com.example.far")));
  auto far = workspace.existingBundleProxy("com.example.far");
  ASSERT_TRUE(far && far->bundleURL);
  EXPECT_EQ(far->bundleType, "Placeholder");
  EXPECT_EQ(ReadFile(far->bundleURL->path() + "/App"), "executable");
  EXPECT_FALSE(Exists(placeholder));
}

}  // namespace
}  // namespace vx
