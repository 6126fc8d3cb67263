// The plug-in's steps that install: one container's whole migration, the real bundle through
// its staging directory, and the placeholder built from the old bundle.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>

#include "AppMigrator/VXAppMigrator.h"
#include "filemanager/VXFileManager.h"
#include "platform/PlistFile.h"
#include "platform/Workspace.h"
#include "support/AppPackages.h"
#include "support/FakeWorkspace.h"
#include "support/MigratorTestKit.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using namespace vx::test;

constexpr const char* kMigrate = "-[VXAppMigrator _migrateContainerWithInfo:]";
const std::string kMarker = "/com.tarsel.velotrix.container_migrator.plist";
const std::string kRefusal = "{LocalizedDescription = refused;}";

class ContainerMigrationTest : public ::testing::Test {
 protected:
  // Placeholders are built in the process's temporary directory; each test has its own.
  void SetUp() override {
    ResetTestDevice();
    if (const char* previous = getenv("TMPDIR")) savedTmpdir = previous;
    setenv("TMPDIR", tmp.path().c_str(), 1);
    ASSERT_TRUE(migrator = VXAppMigrator::create());
  }
  void TearDown() override {
    if (savedTmpdir) setenv("TMPDIR", savedTmpdir->c_str(), 1);
    else unsetenv("TMPDIR");
  }

  // An application container as introspection describes it; `known` makes the application
  // installed with a data container.
  ContainerInfo app(const std::string& name, bool known = true) {
    const std::string c = OldContainer(name);
    MakeBundle(c + "/" + name + ".app", {.identifier = "com." + name});
    WriteFile(c + "/Documents/notes", "notes of " + name);
    WriteFile(c + "/LyrandMetadata.plist", "meta");
    if (known) workspace.installed.insert("com." + name);
    workspace.addApplication("com." + name, data(name));
    return {{"ContainerPath", c}, {"BundlePath", c + "/" + name + ".app"},
            {"ContainerType", "App"}, {"BundleIdentifier", "com." + name}};
  }
  std::string data(const std::string& name) { return DevicePath("data/" + name); }
  bool resume(const std::string& name) {
    bool early = false;
    auto info = migrator->_introspectContainer(Dir(OldContainer(name)), &early);
    return info && migrator->_migrateContainerWithInfo(*info);
  }

  TempDir tmp;
  std::optional<std::string> savedTmpdir;
  std::unique_ptr<VXAppMigrator> migrator;
  FakeWorkspace workspace;
  LogCapture log;
};

TEST_F(ContainerMigrationTest, NewApplicationGetsAPlaceholderThenItsDataThenItsBundle) {
  EXPECT_TRUE(migrator->_migrateContainerWithInfo(app("Foo", false)));
  ASSERT_EQ(workspace.installs.size(), 2u);
  PlistDictionary placeholder = PlaceholderOptions("com.Foo");
  placeholder[StoreMetadataKey] = PlistData{'m', 'e', 't', 'a'};
  EXPECT_EQ(workspace.installs[0].options, placeholder);
  EXPECT_EQ(workspace.installs[1].location.path(), OldContainer("Foo/Staging"));
  EXPECT_EQ(workspace.installs[1].options, MigratorCustomerOptions("com.Foo"));
  EXPECT_EQ(ReadFile(data("Foo") + "/Documents/notes"), "notes of Foo");
  EXPECT_FALSE(Exists(OldContainer("Foo")));
  EXPECT_TRUE(LoggedOnce(log, 5, "VXAppMigrator: Staging and installing app com.Foo at " +
                                     OldContainer("Foo/Foo.app") + " (and secondary (null))",
                         kMigrate));
}

TEST_F(ContainerMigrationTest, KnownApplicationsAndOldPlaceholdersGetNoPlaceholder) {
  EXPECT_TRUE(migrator->_migrateContainerWithInfo(app("Known")));
  EXPECT_TRUE(LoggedOnce(
      log, 5, "VXAppMigrator: App com.Known is already installed, so not creating placeholder.",
      kMigrate));

  const ContainerInfo old = app("Ph");
  if (!VXFileManager::defaultManager().markBundleAsPlaceholder(
          FileURL::fileURLWithPath(OldContainer("Ph/Ph.app")), nullptr)) {
    GTEST_SKIP() << "this file system keeps no extended attributes";
  }
  EXPECT_TRUE(migrator->_migrateContainerWithInfo(old));
  EXPECT_EQ(workspace.installs.size(), 1u) << "an old placeholder has nothing to install";
  EXPECT_TRUE(Exists(data("Ph") + "/Documents/notes"));
  EXPECT_FALSE(Exists(OldContainer("Ph")));
}

TEST_F(ContainerMigrationTest, ContainerStaysWithItsMarkerUnlessItsDataIsSafe) {
  workspace.outcomes.push_back({{}, false});
  EXPECT_FALSE(migrator->_migrateContainerWithInfo(app("Refused", false)));
  EXPECT_TRUE(Exists(OldContainer("Refused/Documents/notes")));
  EXPECT_TRUE(Exists(OldContainer("Refused") + kMarker));

  EXPECT_TRUE(LoggedOnce(
      log, 3, "VXAppMigrator: Failed to install placeholder for com.Refused: " + kRefusal,
      "-[VXAppMigrator _stageAndInstallPlaceholderForBundleAtURL:withIdentifier:inContainerURL:]"));

  // The package is refused after the data moved: keeping the container would keep nothing.
  workspace.outcomes.push_back({{}, false});
  EXPECT_FALSE(migrator->_migrateContainerWithInfo(app("Unwanted")));
  EXPECT_TRUE(Exists(data("Unwanted") + "/Documents/notes"));
  EXPECT_FALSE(Exists(OldContainer("Unwanted")));

  // Installed, but an item was missed: kept, and a later run only tidies up.
  const ContainerInfo untidy = app("Untidy");
  WriteFile(OldContainer("Untidy/Unexpected"), "?");
  EXPECT_FALSE(migrator->_migrateContainerWithInfo(untidy));
  EXPECT_EQ(ReadPropertyListDictionary(OldContainer("Untidy") + kMarker), untidy);
  std::filesystem::remove(OldContainer("Untidy/Unexpected"));
  EXPECT_TRUE(resume("Untidy"));
  EXPECT_EQ(workspace.installs.size(), 3u) << "no second installation";
  EXPECT_FALSE(Exists(OldContainer("Untidy")));
}

TEST_F(ContainerMigrationTest, StoreDataThatCannotBeStagedIsAMissedItem) {
  // The capture passes over an item it cannot move; the installation goes on, and the item
  // left behind keeps the container (with its marker) for a later run.
  const ContainerInfo blocked = app("Blocked");
  WriteFile(OldContainer("Blocked/Staging/LyrandMetadata.plist/obstacle"), "");
  EXPECT_FALSE(migrator->_migrateContainerWithInfo(blocked));
  EXPECT_EQ(workspace.installs.size(), 1u);
  EXPECT_TRUE(Exists(OldContainer("Blocked/LyrandMetadata.plist")));
  EXPECT_TRUE(Exists(OldContainer("Blocked") + kMarker));
  EXPECT_TRUE(log.contains("VXAppMigrator: Found missed items in " + OldContainer("Blocked"), 3));
}

// The same road through the device's own workspace, with a group container recorded by its
// device path.
TEST_F(ContainerMigrationTest, RunMigratesIntoTheDeviceWorkspace) {
  AppWorkspace::setDefaultWorkspaceForTesting(nullptr);
  const std::string c = OldContainer("Real");
  MakeBundle(c + "/Real.app", {.identifier = "com.real", .groups = {"group.real"}});
  MakeBundle(c + "/Real.vpnplugin", {.identifier = "com.real.tunnel"});
  WriteFile(c + "/Documents/doc", "document");
  WriteFile(DevicePath("private/var/G/shared.db"), "shared");
  MakeDirs(DevicePath("private/var/mobile/Library/Caches"));
  ASSERT_TRUE(WritePropertyListFile(
      DevicePath("private/var/mobile/Library/Caches/com.tarsel.velotrix.plist"),
      PlistValue(PlistDictionary{
          {"GroupContainers",
           PlistDictionary{{"group.real", PlistDictionary{{"Container", "/private/var/G"}}}}}})));
  migrator = VXAppMigrator::create();
  const bool migrated = migrator && migrator->performMigration();
  AppWorkspace::setDefaultWorkspaceForTesting(&workspace);
  ASSERT_TRUE(migrated) << ::testing::PrintToString(log.messages(3));

  DeviceWorkspace device(TestDeviceRoot());
  auto proxy = device.bundleProxyForIdentifier("com.real");
  ASSERT_TRUE(proxy && proxy->dataContainerURL && proxy->groupContainerURLs);
  EXPECT_EQ(proxy->bundleType, "User");
  EXPECT_EQ(ReadFile(proxy->dataContainerURL->path() + "/Documents/doc"), "document");
  EXPECT_EQ(ReadFile(proxy->groupContainerURLs->at("group.real").path() + "/shared.db"), "shared");
  EXPECT_TRUE(device.bundleProxyForIdentifier("com.real.tunnel"));
  EXPECT_FALSE(Exists(DevicePath("private/var/G")));
  EXPECT_FALSE(Exists(OldContainer("")));
}

class BundleStagingTest : public ContainerMigrationTest {
 protected:
  void SetUp() override {
    ContainerMigrationTest::SetUp();
    MakeBundle(c + "/Foo.app", {.identifier = "com.example.foo"});
  }
  bool stage(const std::optional<FileURL>& plugin = std::nullopt) {
    return migrator->_stageAndInstallBundleAtURL(Dir(c + "/Foo.app"), "com.given", plugin, Dir(c));
  }
  const std::string c = OldContainer("C");
};

TEST_F(BundleStagingTest, StagedPackageIsInstalledAsItLiesAndReportsDecideFailures) {
  constexpr const char* kProgress =
      "__93-[VXAppMigrator _stageAndInstallBundleAtURL:withIdentifier:andVPNPluginAtURL:"
      "inContainerURL:]_block_invoke";
  MakeBundle(c + "/T.vpnplugin", {.identifier = "com.example.foo.tunnel"});
  WriteFile(c + "/Manifest.plist", "manifest");
  const InstallProgressReport plain{{"PercentComplete", 50}};
  const InstallProgressReport older{{"Error", "ApplicationAlreadyInstalled"}};
  const InstallProgressReport bad{
      {"Error", "Bad"}, {"ErrorDescription", "d"}, {"ErrorDetail", "x"}};
  workspace.outcomes = {{{plain, bad}, false}, {{plain, older}, false}};

  EXPECT_FALSE(stage(Dir(c + "/T.vpnplugin")));
  const auto failures = log.messages(3);
  ASSERT_EQ(failures.size(), 2u);
  EXPECT_EQ(failures[0], "VXAppMigrator: Installation of " + c +
                             "/Foo.app failed with Velotrix error d (Bad : x)");
  EXPECT_EQ(failures[1].rfind("VXAppMigrator: Failed to install " + c + "/Staging : ", 0), 0u);

  // Resumed from what the first attempt staged; refused as older than the built-in copy,
  // which counts as done, since the data has already moved.
  log.clear();
  EXPECT_TRUE(stage(Dir(c + "/T.vpnplugin")));
  EXPECT_TRUE(log.messages(3).empty());
  EXPECT_TRUE(LoggedOnce(log, 5, "VXAppMigrator: Installation of " + c + "/Foo.app failed "
                         "because it's older than what's built into the system. Data migration "
                         "already happened so we're done here.", kProgress));
  const std::vector<std::string> staged = {
      "Manifest.plist",      "Payload",          "Payload/Foo.app", "Payload/Foo.app/App",
      "Payload/Foo.app/Info.plist", "Payload/T.vpnplugin", "Payload/T.vpnplugin/App",
      "Payload/T.vpnplugin/Info.plist"};
  for (const auto& install : workspace.installs) {
    EXPECT_EQ(install.location.path(), c + "/Staging");
    EXPECT_EQ(install.options, MigratorCustomerOptions("com.given"));
    EXPECT_EQ(install.entries, staged);
  }
}

class PlaceholderTest : public BundleStagingTest {
 protected:
  bool placeholder(const std::string& bundle = "Foo.app") {
    return migrator->_stageAndInstallPlaceholderForBundleAtURL(Dir(c + "/" + bundle),
                                                               "com.example.foo", Dir(c));
  }
};

TEST_F(PlaceholderTest, CarriesFiveInfoEntriesIconAndMetadataAsFarAsTheyCanBeHad) {
  PlistDictionary info{{"KBBundleIdentifier", "com.example.foo"}, {"KBBundleDisplayName", "Foo"},
                       {"KBBundleExecutable", "App"},            {"KBBundleVersion", 3},
                       {"KBBundleShortVersionString", "3.0"},    {"VXAppGroups", PlistArray{}}};
  ASSERT_TRUE(WritePropertyListFile(c + "/Foo.app/Info.plist", PlistValue(info)));
  WriteFile(c + "/LyrandMetadata.plist", "<m/>");
  EXPECT_TRUE(placeholder());
  const std::string staged = tmp.path() + "/com.tarsel.velotrix.migrator/com.example.foo.app";
  EXPECT_EQ(workspace.installs[0].location.path(), staged);
  EXPECT_EQ(workspace.installs[0].entries, (std::vector<std::string>{"Icon.png", "Info.plist"}));
  info.erase("VXAppGroups");
  info["KBBundleIconFile"] = "Icon.png";
  EXPECT_EQ(workspace.installs[0].infoPlist, info);
  PlistDictionary options = PlaceholderOptions("com.example.foo");
  options[StoreMetadataKey] = PlistData{'<', 'm', '/', '>'};
  EXPECT_EQ(workspace.installs[0].options, options);

  // An icon that cannot be decoded and metadata that cannot be read are only reported.
  ASSERT_TRUE(WritePropertyListFile(c + "/Foo.app/Info.plist",
                                    PlistValue(PlistDictionary{{"KBBundleIconFile", "Bad.png"}})));
  WriteFile(c + "/Foo.app/Bad.png", "not a png");
  std::filesystem::remove(c + "/LyrandMetadata.plist");
  MakeDirs(c + "/LyrandMetadata.plist");
  workspace.outcomes.push_back({{}, false});
  EXPECT_FALSE(placeholder());
  EXPECT_EQ(workspace.installs[1].infoPlist, PlistDictionary{});
  EXPECT_EQ(workspace.installs[1].options, PlaceholderOptions("com.example.foo"));
  const auto failures = log.messages(3);
  ASSERT_EQ(failures.size(), 4u);
  EXPECT_EQ(failures[0].rfind("VXAppMigrator: Failed to read " + c + "/LyrandMetadata.plist : ", 0),
            0u);
  EXPECT_EQ(failures[1], "VXAppMigrator: Failed to create icon from bundle BundleHandle " + c +
                             "/Foo.app");
  EXPECT_EQ(failures[2], "VXAppMigrator: Writing placeholder icon for app com.example.foo to " +
                             staged + "/Icon.png failed");
  EXPECT_EQ(failures[3], "VXAppMigrator: Failed to install placeholder for com.example.foo: " +
                             kRefusal);

  EXPECT_FALSE(placeholder("Missing.app"));
  EXPECT_EQ(log.messages(3).back(), "VXAppMigrator: Failed to create KBBundle for " + c +
                                        "/Missing.app");
  EXPECT_EQ(workspace.installs.size(), 2u);
  EXPECT_FALSE(Exists(staged));
  EXPECT_TRUE(Exists(tmp.path() + "/com.tarsel.velotrix.migrator"));
}

}  // namespace
}  // namespace vx
