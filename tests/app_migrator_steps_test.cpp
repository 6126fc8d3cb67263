// The plug-in's steps that read and move the old layout: introspection and the marker, the
// data and group container moves, and the safe harbors.
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/installer/RecoveryArea.h"
#include "support/AppPackages.h"
#include "support/FakeWorkspace.h"
#include "support/MigratorTestKit.h"

namespace vx {
namespace {

using namespace vx::test;

class IntrospectionTest : public MigratorTest {
 protected:
  std::optional<ContainerInfo> introspect(const std::string& c, bool* early = nullptr) {
    return migrator->_introspectContainer(Dir(c), early);
  }
  ::testing::AssertionResult said(int level, const std::string& message) {
    return Logged(level, message, "-[VXAppMigrator _introspectContainer:orderResultEarly:]");
  }
};

TEST_F(IntrospectionTest, ApplicationLeadsItsPluginAndBundlelessContainersGo) {
  // The listing order is the file system's: differently named entries meet in either order.
  for (const std::string& c : {OldContainer("AT"), OldContainer("TA")}) {
    const std::string app = MakeBundle(c + "/" + c.back() + "Foo.app", {.identifier = "com.foo"});
    MakeBundle(c + "/Tunnel.vpnplugin", {.identifier = "com.foo.tunnel"});
    bool early = false;
    EXPECT_EQ(introspect(c, &early),
              (ContainerInfo{{"ContainerPath", c}, {"BundlePath", app}, {"ContainerType", "App"},
                             {"BundleIdentifier", "com.foo"},
                             {"SecondBundlePath", c + "/Tunnel.vpnplugin"}}));
    EXPECT_TRUE(early);
  }
  const std::string vpn = MakeBundle(OldContainer("V/T.vpnplugin"), {.identifier = "com.t"});
  bool early = true;
  EXPECT_EQ(introspect(OldContainer("V"), &early),
            (ContainerInfo{{"ContainerPath", OldContainer("V")}, {"BundlePath", vpn},
                           {"ContainerType", "VPNBundle"}, {"BundleIdentifier", "com.t"}}));
  EXPECT_FALSE(early);

  WriteFile(OldContainer("Nameless/Foo.app/Info.plist"), "no property list");
  WriteFile(OldContainer("stray"), "x");
  for (const char* gone : {"Nameless", "stray", "Vanished"}) {
    EXPECT_FALSE(introspect(OldContainer(gone)));
    EXPECT_FALSE(Exists(OldContainer(gone))) << gone;
  }
  EXPECT_TRUE(said(3, "No app or vpn bundle found in container " + OldContainer("Nameless") +
                          " ; removing it"));
  EXPECT_TRUE(said(3, "Found regular file at " + OldContainer("stray") + " ; removing"));
}

TEST_F(IntrospectionTest, LinksAndBadMarkersLeaveTheContainerAndAGoodMarkerWins) {
  const std::string target = MakeBundle(DevicePath("elsewhere/R.app"), {.identifier = "com.r"});
  for (const auto& [name, message] : std::map<std::string, std::string>{
           {"L.app", "Skipping container with app symlink at "},
           {"L.vpnplugin", "VPN plugin was symlink; skipping container "},
           {kMarker.substr(1), "Migration marker was symlink; skipping container "}}) {
    const std::string c = OldContainer("Link" + name);
    MakeBundle(c + "/Genuine.app", {.identifier = "com.genuine"});
    MakeSymlink(target, c + "/" + name);
    EXPECT_FALSE(introspect(c));
    EXPECT_TRUE(Exists(c + "/Genuine.app"));
    EXPECT_TRUE(said(3, message + c + "/" + name));
  }

  const std::string c = OldContainer("Marked");
  const FileURL marker = FileURL::fileURLWithPath(c + kMarker);
  MakeBundle(c + "/Foo.app", {.identifier = "com.foo"});
  WriteFile(marker.path(), "");
  EXPECT_FALSE(introspect(c));
  EXPECT_TRUE(Exists(c + "/Foo.app")) << "its state is unknown, so it is kept";
  EXPECT_TRUE(log.contains("Failed to load migration marker file from " + c, 3));
  WriteFile(OldContainer("Husk") + kMarker, "junk");
  EXPECT_FALSE(introspect(OldContainer("Husk")));
  EXPECT_FALSE(Exists(OldContainer("Husk"))) << "nothing in it to resume";

  // Only the types are checked, and the first wrong one is reported.
  PlistDictionary record{{"ContainerPath", c}, {"BundlePath", c + "/Gone.app"}, {"ContainerType", 1},
                         {"BundleIdentifier", false}, {"SecondBundlePath", 7}};
  const std::pair<std::string, std::pair<const char*, PlistValue>> faults[] = {
      {"Failed to get container type from migration marker file " + marker.path(),
       {"ContainerType", "Other"}},  // any text will do
      {"Failed to get container bundle ID from migration marker file " + marker.path(),
       {"BundleIdentifier", ""}},
      {"Second bundle path was not a string: 7", {"SecondBundlePath", c + "/T.vpnplugin"}}};
  for (const auto& [expected, fix] : faults) {
    log.clear();
    ASSERT_TRUE(migrator->_writeMigrationMarker(record));
    EXPECT_FALSE(migrator->_loadAndValidateMigrationMarkerAtURL(marker));
    EXPECT_TRUE(Logged(3, expected, "-[VXAppMigrator _loadAndValidateMigrationMarkerAtURL:]"));
    EXPECT_EQ(log.messages().size(), 1u);
    record[fix.first] = fix.second;
  }
  // A good one outranks whatever the container holds now.
  record["SecondBundlePath"] = c + "/Staging/Payload/T.vpnplugin";
  ASSERT_TRUE(migrator->_writeMigrationMarker(record));
  bool early = true;
  EXPECT_EQ(introspect(c, &early), record);
  EXPECT_FALSE(early);
  // Earlier versions recorded this machine's paths: under the same root they still name
  // the container, and the record comes back in today's form.
  record["ContainerType"] = "App";
  ASSERT_TRUE(WritePropertyListFile(marker.path(), PlistValue(record)));
  EXPECT_EQ(introspect(c, &early), record);
  EXPECT_TRUE(early);
}

TEST_F(IntrospectionTest, WorkListTakesApplicationsFirstLatestFoundLeading) {
  FakeWorkspace workspace;  // has no proxies: every migration stops right after introspection
  MakeBundle(OldContainer("A/X.app"), {.identifier = "com.app"});
  MakeBundle(OldContainer("B/X.app"), {.identifier = "com.app"});
  MakeBundle(OldContainer("V/X.vpnplugin"), {.identifier = "com.vpn"});
  workspace.installed = {"com.app"};
  create();
  std::vector<std::string> expected = {"V"}, order;
  for (const FileURL& i : *migrator->itemsToMigrate()) {
    if (i.lastPathComponent() != "V") expected.insert(expected.begin(), i.lastPathComponent());
  }
  EXPECT_FALSE(migrator->performMigration());
  for (const std::string& m : log.messages(5)) {  // "Migrating com.app at .../A/X.app"
    if (m.find("Migrating com.") != m.npos) order.push_back(m.substr(m.rfind('/') - 1, 1));
  }
  EXPECT_EQ(order, expected);
}

class DataContainerTest : public MigratorTest {};

TEST_F(DataContainerTest, ItemsReplaceTheirNamesakesUntilOneCannotMoveAndOnlyBookkeepingStays) {
  const std::string from = DevicePath("old"), to = DevicePath("new");
  const std::string inside = from + "/Library/New";
  for (const char* n : {"Documents", "Library", "Marvish"}) WriteFile(from + "/" + n + "/f", n);
  for (const char* n : {"container_migrator.plist", "placeholder", "migration_marker"}) {
    WriteFile(from + "/com.tarsel.velotrix." + n, "");
  }
  for (const char* n : {"Documents", "Library"}) WriteFile(to + "/" + n + "/default", "");
  MakeDirs(inside);  // a directory cannot move into itself, so "Library" is stuck
  EXPECT_FALSE(migrator->_migrateDataContainerForIdentifier("com.a", Dir(from), Dir(inside)));
  EXPECT_TRUE(log.contains("VXAppMigrator: Failed to move " + from + "/Library to " + inside +
                           "/Library migrating for com.a : ", 3));
  EXPECT_EQ(ReadFile(inside + "/Documents/f"), "Documents");
  EXPECT_TRUE(Exists(from + "/Marvish/f")) << "nothing after the failure moves";

  // A later attempt moves the rest, and only the rest.
  EXPECT_TRUE(migrator->_migrateDataContainerForIdentifier("com.a", Dir(from), Dir(to)));
  EXPECT_EQ(ReadFile(to + "/Library/f"), "Library");
  EXPECT_FALSE(Exists(to + "/Library/default")) << "replaced by the old Library";
  EXPECT_EQ(ReadFile(to + "/Marvish/f"), "Marvish");
  EXPECT_TRUE(Exists(to + "/Documents/default")) << "the old Documents had already gone";

  // Only the bookkeeping is left, and nothing but it (in exactly its spelling) may be.
  EXPECT_FALSE(migrator->_containerHasMissedItems(Dir(from), "com.a"));
  MakeDirs(from + "/Staging");
  MakeSymlink("/nowhere", from + "/COM.TARSEL.VELOTRIX.PLACEHOLDER");
  EXPECT_TRUE(migrator->_containerHasMissedItems(Dir(from), "com.a"));
  EXPECT_TRUE(log.contains(from + "/Staging", 3) &&
              log.contains(from + "/COM.TARSEL.VELOTRIX.PLACEHOLDER", 3));
  EXPECT_TRUE(migrator->_containerHasMissedItems(Dir(DevicePath("none")), "com.a"));
  EXPECT_TRUE(log.contains("VXAppMigrator: Failed to enumerate container " + DevicePath("none") +
                           " for com.a : ", 3));
}

class GroupContainerTest : public MigratorTest {};

TEST_F(GroupContainerTest, SharedGroupMovesOnceAndUnmovableItemsKeepTheOldContainer) {
  const std::string old = DevicePath("private/var/G/"), fresh = DevicePath("new/");
  WriteFile(old + "shared/db", "old");
  MakeSymlink("db", old + "shared/link");
  WriteFile(old + "stuck/a", "a");
  MakeDirs(old + "stuck/New");  // the new container lies inside the old one, which cannot move
  WriteFile(fresh + "a/db", "fresh");
  // Namesakes without bytes, of another kind, which a rename alone could not replace.
  WriteFile(old + "shared/Caches", "a file now");
  MakeDirs(fresh + "a/Caches/Empty");
  WriteFile(old + "shared/Library/prefs", "a directory now");
  MakeSymlink("elsewhere", fresh + "a/Library");
  WriteFile(OldContainer("Any/x"), "");  // without items the map is not read
  WriteInstallMap(GroupMap({{"g.shared", "/private/var/G/shared"},
                            {"g.stuck", "/private/var/G/stuck"}, {"g.no", "/private/var/G/no"}}));
  FakeWorkspace workspace;
  create();
  workspace.addApplication("com.a", fresh + "data/a",
                           {{"g.shared", Dir(fresh + "a")}, {"g.stuck", Dir(old + "stuck/New")},
                            {"g.no", Dir(fresh + "no")}});
  workspace.addApplication("com.b", fresh + "data/b", {{"g.shared", Dir(fresh + "b")}});

  EXPECT_TRUE(migrator->_migrateGroupContainersForIdentifier("com.a"));
  EXPECT_EQ(ReadFile(fresh + "a/db"), "old");
  const std::vector<RecoveredEntry> keptAside = RecoveredEntries();  // what gave way
  ASSERT_EQ(keptAside.size(), 1u);
  EXPECT_EQ(ReadFile(keptAside[0].content.path() + "/db"), "fresh");
  EXPECT_TRUE(std::filesystem::is_symlink(fresh + "a/link"));
  EXPECT_EQ(ReadFile(fresh + "a/Caches"), "a file now");
  EXPECT_EQ(ReadFile(fresh + "a/Library/prefs"), "a directory now");
  EXPECT_FALSE(Exists(old + "shared"));
  EXPECT_EQ(ReadFile(old + "stuck/New/a"), "a");
  EXPECT_TRUE(Logged(3, "Not removing old group container at " + old +
                            "stuck because 1 items could not be moved",
                     "__54-[VXAppMigrator _migrateGroupContainersForIdentifier:]_block_invoke"));
  ASSERT_TRUE(migrator->groupContainerMap());
  EXPECT_EQ(migrator->groupContainerMap()->count("g.stuck"), 1u) << "for a later run";
  EXPECT_TRUE(log.contains("VXAppMigrator: Missing source group container at " + old + "no", 3));

  // The shared group moved with com.a; its entry is gone from the map.
  EXPECT_TRUE(migrator->_migrateGroupContainersForIdentifier("com.b"));
  EXPECT_TRUE(log.contains("No group container entry to migrate for com.b[g.shared]", 5));
  workspace.proxies["com.b"].groupContainerURLs.reset();
  EXPECT_FALSE(migrator->_migrateGroupContainersForIdentifier("com.b"));
  EXPECT_FALSE(migrator->_migrateGroupContainersForIdentifier("com.none"));

  // The leftover outlives the run in the install map, marked with its owner, so that a later
  // run with no old container left to lead it there still moves the rest.
  const auto map = ReadPropertyListDictionary(DevicePath(kInstallMap));
  ASSERT_TRUE(map);
  const PlistValue& stuck = map->at("GroupContainers").dictionary()->at("g.stuck");
  EXPECT_EQ(*stuck.stringForKey("MigratingIdentifier"), "com.a");
  std::filesystem::remove_all(OldContainer(""));
  MakeDirs(fresh + "stuck");
  workspace.proxies["com.a"].groupContainerURLs = {{{"g.stuck", Dir(fresh + "stuck")}}};
  create();
  EXPECT_TRUE(migrator->performMigration());
  EXPECT_EQ(ReadFile(fresh + "stuck/New/a"), "a");
  EXPECT_FALSE(Exists(old + "stuck"));
  EXPECT_FALSE(Exists(DevicePath(kInstallMap))) << "the map goes with its last leftover";
}

class SafeHarborTest : public MigratorTest {};

PlistValue Harbor(const char* path) { return PlistDictionary{{"HarborPathKey", path}}; }

TEST_F(SafeHarborTest, MapGoesOnlyWhenEveryWellFormedHarborIsRegistered) {
  const std::string dataDir = DevicePath("private/var/mobile/Library/Velotrix/");
  const std::string registry = dataDir + "SafeHarborRegister.plist";
  MakeDirs(dataDir);
  const auto migrate = [&](const PlistDictionary& map) {
    EXPECT_TRUE(WritePropertyListFile(dataDir + "SafeHarbor.plist", PlistValue(map)));
    create();
    return migrator->_migrateSafeHarbors();
  };
  MakeDirs(DevicePath("private/var/H/b"));
  EXPECT_FALSE(
      migrate({{"com.a", Harbor("/private/var/H/a")}, {"com.b", Harbor("/private/var/H/b")}}));
  EXPECT_TRUE(Exists(dataDir + "SafeHarbor.plist"));
  EXPECT_EQ(ReadPropertyListDictionary(registry),
            (PlistDictionary{{"com.b", PlistDictionary{{"Path", DevicePath("private/var/H/b")},
                                                       {"ContainerType", 2}}}}));
  EXPECT_TRUE(log.contains("VXAppMigrator: Failed to migrate safe harbor for identifier com.a at " +
                           DevicePath("private/var/H/a") + " : (null)", 3));

  MakeDirs(DevicePath("private/var/H/a"));
  EXPECT_TRUE(migrate({{"com.a", Harbor("/private/var/H/a")}, {"com.odd", "no dictionary"},
                       {"com.pathless", PlistDictionary{{"Other", 1}}}}));
  EXPECT_FALSE(Exists(dataDir + "SafeHarbor.plist"));
  EXPECT_EQ(ReadPropertyListDictionary(registry).value_or(PlistDictionary{}).size(), 2u);
  EXPECT_TRUE(Logged(3,
                     "Failed to get harbor path from harbor entry for com.pathless : {Other = 1;}",
                     "-[VXAppMigrator _migrateSafeHarbors]"));
}

}  // namespace
}  // namespace vx
