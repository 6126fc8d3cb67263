// The plug-in's steps that install: one container's whole migration, the real bundle through
// its staging directory, and the placeholder built from the old bundle.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <set>

#include "filemanager/VXFileManager.h"
#include "platform/installer/RecoveryArea.h"
#include "support/MigratorTestKit.h"

namespace vx {
namespace {

using namespace vx::test;

constexpr const char* kMigrate = "-[VXAppMigrator _migrateContainerWithInfo:]";
const std::string kRefusal = "{LocalizedDescription = refused;}";

class ContainerMigrationTest : public AppContainerTest {
 protected:
  // With store data beside the bundle.
  ContainerInfo app(const std::string& name, bool known = true) {
    ContainerInfo record = AppContainerTest::app(name, known);
    WriteFile(OldContainer(name) + "/LyrandMetadata.plist", "meta");
    return record;
  }

  const std::string c = OldContainer("C");
};

TEST_F(ContainerMigrationTest, PlaceholderOnlyForANewApplicationAndNothingForAnOldPlaceholder) {
  EXPECT_TRUE(migrator->_migrateContainerWithInfo(app("Foo", false)));
  ASSERT_EQ(workspace.installs.size(), 2u);
  // The placeholder, made while the store data still lay in the container.
  EXPECT_EQ(workspace.installs[0].options[StoreMetadataKey],
            PlistValue(PlistData{'m', 'e', 't', 'a'}));
  EXPECT_EQ(workspace.installs[1].location.path(), OldContainer("Foo/Staging"));
  EXPECT_EQ(ReadFile(data("Foo") + "/Documents/notes"), "notes of Foo");
  EXPECT_FALSE(Exists(OldContainer("Foo")));
  EXPECT_TRUE(Logged(5, "Staging and installing app com.Foo at " + OldContainer("Foo/Foo.app") +
                            " (and secondary (null))", kMigrate));

  EXPECT_TRUE(migrator->_migrateContainerWithInfo(app("Known")));
  EXPECT_TRUE(Logged(5, "App com.Known is already installed, so not creating placeholder.",
                     kMigrate));

  const ContainerInfo old = app("Ph");
  if (!VXFileManager::defaultManager().markBundleAsPlaceholder(
          FileURL::fileURLWithPath(OldContainer("Ph/Ph.app")), nullptr)) {
    GTEST_SKIP() << "this file system keeps no extended attributes";
  }
  EXPECT_TRUE(migrator->_migrateContainerWithInfo(old));
  EXPECT_EQ(workspace.installs.size(), 3u) << "an old placeholder has nothing to install";
  EXPECT_TRUE(Exists(data("Ph") + "/Documents/notes"));
  EXPECT_FALSE(Exists(OldContainer("Ph")));
}

TEST_F(ContainerMigrationTest, ContainerStaysWithItsMarkerUnlessItsDataIsSafe) {
  workspace.outcomes.push_back({{}, false});
  const ContainerInfo refused = app("Refused", false);
  EXPECT_FALSE(migrator->_migrateContainerWithInfo(refused));
  EXPECT_TRUE(Exists(OldContainer("Refused/Documents/notes")));
  ContainerInfo onDevice = refused;
  for (const char* key : {"ContainerPath", "BundlePath"}) {
    onDevice[key] = OnDevice(*refused.at(key).string());
  }
  EXPECT_EQ(ReadPropertyListDictionary(OldContainer("Refused") + kMarker), onDevice)
      << "the marker names the container as the device does";
  EXPECT_TRUE(Logged(3, "Failed to install placeholder for com.Refused: " + kRefusal,
                     "-[VXAppMigrator _stageAndInstallPlaceholderForBundleAtURL:withIdentifier:"
                     "inContainerURL:]"));

  // The package is refused after the data moved: keeping the container would keep nothing.
  workspace.outcomes.push_back({{}, false});
  EXPECT_FALSE(migrator->_migrateContainerWithInfo(app("Unwanted")));
  EXPECT_TRUE(Exists(data("Unwanted") + "/Documents/notes"));
  EXPECT_FALSE(Exists(OldContainer("Unwanted")));

  // What the application kept under "Staging" is set aside before the name is used, and the
  // store data then moves as usual; an item missed after the installation leaves the old root
  // with its container, for the recovery area. Both containers are done.
  WriteFile(OldContainer("Blocked/Staging/LyrandMetadata.plist/obstacle"), "");
  EXPECT_TRUE(migrator->_migrateContainerWithInfo(app("Blocked")));
  WriteFile(OldContainer("Untidy/Unexpected"), "?");
  EXPECT_TRUE(migrator->_migrateContainerWithInfo(app("Untidy")));
  EXPECT_EQ(workspace.installs.size(), 4u);
  EXPECT_TRUE(log.contains("VXAppMigrator: Found missed items in " + OldContainer("Untidy"), 3));
  EXPECT_FALSE(Exists(OldContainer("Blocked")) || Exists(OldContainer("Untidy")));
  std::multiset<std::string> courses;
  for (const RecoveredEntry& entry : RecoveredEntries()) courses.insert(entry.record.course);
  EXPECT_EQ(courses, (std::multiset<std::string>{"InstallFailed", "LeftOver", "ReservedName"}));
}

TEST_F(ContainerMigrationTest, StagedPackageIsInstalledAsItLiesAndReportsDecideFailures) {
  MakeBundle(c + "/Foo.app", {.identifier = "com.foo"});
  MakeBundle(c + "/T.vpnplugin", {.identifier = "com.foo.tunnel"});
  WriteFile(c + "/Manifest.plist", "manifest");
  const InstallProgressReport plain{{"PercentComplete", 50}};
  workspace.outcomes = {
      {{plain, {{"Error", "Bad"}, {"ErrorDescription", "d"}, {"ErrorDetail", "x"}}}, false},
      {{plain, {{"Error", "ApplicationAlreadyInstalled"}}}, false}};
  const auto stage = [&] {
    return migrator->_stageAndInstallBundleAtURL(Dir(c + "/Foo.app"), "com.given",
                                                 Dir(c + "/T.vpnplugin"), Dir(c));
  };

  EXPECT_FALSE(stage());
  const auto failures = log.messages(3);
  ASSERT_EQ(failures.size(), 2u);
  EXPECT_EQ(failures[0], "VXAppMigrator: Installation of " + c +
                             "/Foo.app failed with Velotrix error d (Bad : x)");
  EXPECT_EQ(failures[1].rfind("VXAppMigrator: Failed to install " + c + "/Staging : ", 0), 0u);

  // Resumed from what the first attempt staged; refused as older than the built-in copy,
  // which counts as done, since the data has already moved.
  log.clear();
  EXPECT_TRUE(stage());
  EXPECT_TRUE(log.messages(3).empty());
  EXPECT_TRUE(Logged(5, "Installation of " + c + "/Foo.app failed because it's older than what's "
                     "built into the system. Data migration already happened so we're done here.",
                     "__93-[VXAppMigrator _stageAndInstallBundleAtURL:withIdentifier:"
                     "andVPNPluginAtURL:inContainerURL:]_block_invoke"));
  for (const auto& install : workspace.installs) {
    EXPECT_EQ(install.location.path(), c + "/Staging");
    EXPECT_EQ(install.options, MigratorCustomerOptions("com.given"));
    EXPECT_EQ(install.entries, (std::vector<std::string>{
                                   "Manifest.plist", "Payload", "Payload/Foo.app",
                                   "Payload/Foo.app/App", "Payload/Foo.app/Info.plist",
                                   "Payload/T.vpnplugin", "Payload/T.vpnplugin/App",
                                   "Payload/T.vpnplugin/Info.plist"}));
  }
}

TEST_F(ContainerMigrationTest, PlaceholderCarriesFiveInfoEntriesIconAndMetadataWhereItCan) {
  const auto placeholder = [&](const std::string& bundle) {
    return migrator->_stageAndInstallPlaceholderForBundleAtURL(Dir(c + "/" + bundle), "com.foo",
                                                               Dir(c));
  };
  PlistDictionary info{{"KBBundleIdentifier", "com.foo"}, {"KBBundleDisplayName", "Foo"},
                       {"KBBundleExecutable", "App"},     {"KBBundleVersion", 3},
                       {"KBBundleShortVersionString", "3.0"}, {"VXAppGroups", PlistArray{}}};
  MakeBundle(c + "/Foo.app", {.identifier = "com.foo"});
  ASSERT_TRUE(WritePropertyListFile(c + "/Foo.app/Info.plist", PlistValue(info)));
  WriteFile(c + "/LyrandMetadata.plist", "<m/>");
  EXPECT_TRUE(placeholder("Foo.app"));
  // Built in a directory of its own under the device's temporary location.
  const std::string staged = workspace.installs[0].location.path();
  const std::string tmp = DeviceTemporaryLocation() + "/vxmigrator.";
  EXPECT_EQ(staged.rfind(tmp, 0), 0u) << staged;
  EXPECT_EQ(staged.substr(tmp.size() + 6), "/com.tarsel.velotrix.migrator/com.foo.app");
  EXPECT_EQ(workspace.installs[0].entries, (std::vector<std::string>{"Icon.png", "Info.plist"}));
  info.erase("VXAppGroups");
  info["KBBundleIconFile"] = "Icon.png";
  EXPECT_EQ(workspace.installs[0].infoPlist, info);
  PlistDictionary options = PlaceholderOptions("com.foo");
  options[StoreMetadataKey] = PlistData{'<', 'm', '/', '>'};
  EXPECT_EQ(workspace.installs[0].options, options);

  // An icon that cannot be decoded and metadata that cannot be read are only reported.
  ASSERT_TRUE(WritePropertyListFile(c + "/Foo.app/Info.plist",
                                    PlistValue(PlistDictionary{{"KBBundleIconFile", "Bad.png"}})));
  WriteFile(c + "/Foo.app/Bad.png", "not a png");
  std::filesystem::remove(c + "/LyrandMetadata.plist");
  MakeDirs(c + "/LyrandMetadata.plist");
  workspace.outcomes.push_back({{}, false});
  EXPECT_FALSE(placeholder("Foo.app"));
  EXPECT_EQ(workspace.installs[1].infoPlist, PlistDictionary{});
  EXPECT_EQ(workspace.installs[1].options, PlaceholderOptions("com.foo"));
  const auto failures = log.messages(3);
  ASSERT_EQ(failures.size(), 4u);
  EXPECT_EQ(failures[0].rfind("VXAppMigrator: Failed to read " + c + "/LyrandMetadata.plist : ", 0),
            0u);
  // The bundle is read where it lies, beneath the container; the work goes on in the one
  // private directory of the run.
  const std::string second = workspace.installs[1].location.path();
  EXPECT_EQ(second, staged);
  EXPECT_EQ(std::vector<std::string>(failures.begin() + 1, failures.end()),
            (std::vector<std::string>{
                "VXAppMigrator: Failed to create icon from bundle BundleHandle " + c + "/Foo.app",
                "VXAppMigrator: Writing placeholder icon for app com.foo to " + second +
                    "/Icon.png failed",
                "VXAppMigrator: Failed to install placeholder for com.foo: " + kRefusal}));

  EXPECT_FALSE(placeholder("Missing.app"));
  EXPECT_EQ(log.messages(3).back(), "VXAppMigrator: Failed to create KBBundle for " + c +
                                        "/Missing.app");
  EXPECT_EQ(workspace.installs.size(), 2u);
  // The placeholders go after each install; the private directory with the migrator.
  const std::string privateDirectory = staged.substr(0, staged.find("/com.tarsel.velotrix."));
  EXPECT_TRUE(DirectoryEntries(privateDirectory + "/com.tarsel.velotrix.migrator").empty());
  migrator.reset();
  EXPECT_TRUE(DirectoryEntries(DeviceTemporaryLocation()).empty());
}

}  // namespace
}  // namespace vx
