// The plug-in's steps that read and move the old layout: introspection and the marker, the
// data and group container moves, and the safe harbors.
#include <gtest/gtest.h>

#include <filesystem>

#include "AppMigrator/VXAppMigrator.h"
#include "platform/PlistFile.h"
#include "support/AppPackages.h"
#include "support/FakeWorkspace.h"
#include "support/MigratorTestKit.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using namespace vx::test;

constexpr const char* kIntrospect = "-[VXAppMigrator _introspectContainer:orderResultEarly:]";
const std::string kMarker = "/com.tarsel.velotrix.container_migrator.plist";
const std::string kDataDir = "private/var/mobile/Library/Velotrix";

class IntrospectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetTestDevice();
    create();
  }
  void create() { ASSERT_TRUE(migrator = VXAppMigrator::create()); }
  std::optional<ContainerInfo> introspect(const std::string& c, bool* early = nullptr) {
    bool flag = false;
    auto info = migrator->_introspectContainer(Dir(c), &flag);
    if (early) *early = flag;
    return info;
  }
  std::unique_ptr<VXAppMigrator> migrator;
  LogCapture log;
};

TEST_F(IntrospectionTest, ApplicationLeadsItsPluginAndBundlelessContainersGo) {
  // The listing order is the file system's: differently named entries meet in either order.
  for (const std::string& c : {OldContainer("AT"), OldContainer("TA")}) {
    MakeBundle(c + "/" + c.back() + "Foo.app", {.identifier = "com.example.foo"});
    MakeBundle(c + "/Tunnel.vpnplugin", {.identifier = "com.example.foo.tunnel"});
    bool early = false;
    EXPECT_EQ(introspect(c, &early),
              (ContainerInfo{{"ContainerPath", c},
                             {"BundlePath", c + "/" + c.back() + "Foo.app"},
                             {"ContainerType", "App"},
                             {"BundleIdentifier", "com.example.foo"},
                             {"SecondBundlePath", c + "/Tunnel.vpnplugin"}}));
    EXPECT_TRUE(early);
  }
  MakeBundle(OldContainer("V/T.vpnplugin"), {.identifier = "com.example.t"});
  bool early = true;
  const auto vpn = introspect(OldContainer("V"), &early);
  ASSERT_TRUE(vpn);
  EXPECT_EQ(vpn->at("ContainerType"), PlistValue("VPNBundle"));
  EXPECT_FALSE(vpn->count("SecondBundlePath"));
  EXPECT_FALSE(early);

  WriteFile(OldContainer("Data/Documents/notes"), "notes");
  WriteFile(OldContainer("Nameless/Foo.app/Info.plist"), "no property list");
  WriteFile(OldContainer("stray"), "x");
  for (const char* gone : {"Data", "Nameless", "stray", "Vanished"}) {
    EXPECT_FALSE(introspect(OldContainer(gone)));
    EXPECT_FALSE(Exists(OldContainer(gone))) << gone;
  }
  EXPECT_TRUE(LoggedOnce(log, 3, "VXAppMigrator: No app or vpn bundle found in container " +
                                     OldContainer("Nameless") + " ; removing it", kIntrospect));
  EXPECT_TRUE(LoggedOnce(log, 3, "VXAppMigrator: Found regular file at " + OldContainer("stray") +
                                     " ; removing", kIntrospect));
  EXPECT_TRUE(LoggedOnce(log, 5, "VXAppMigrator: Got ENOENT when introspecting " +
                                     OldContainer("Vanished") +
                                     " ; ignoring (likely raced with velotrixd)", kIntrospect));
}

TEST_F(IntrospectionTest, LinksAndUnreadableMarkersLeaveTheContainerAndAGoodMarkerWins) {
  const std::string target = MakeBundle(DevicePath("elsewhere/R.app"), {.identifier = "com.r"});
  const std::pair<std::string, std::string> links[] = {
      {"L.app", "Skipping container with app symlink at "},
      {"L.vpnplugin", "VPN plugin was symlink; skipping container "},
      {kMarker.substr(1), "Migration marker was symlink; skipping container "}};
  for (const auto& [name, message] : links) {
    const std::string c = OldContainer("Link" + name);
    MakeBundle(c + "/Genuine.app", {.identifier = "com.example.genuine"});
    MakeSymlink(target, c + "/" + name);
    EXPECT_FALSE(introspect(c));
    EXPECT_TRUE(Exists(c + "/Genuine.app"));
    EXPECT_TRUE(LoggedOnce(log, 3, "VXAppMigrator: " + message + c + "/" + name, kIntrospect));
  }

  const std::string broken = OldContainer("Broken");
  MakeBundle(broken + "/Foo.app", {.identifier = "com.example.foo"});
  WriteFile(broken + kMarker, "");
  EXPECT_FALSE(introspect(broken));
  EXPECT_TRUE(Exists(broken + "/Foo.app")) << "its state is unknown, so it is kept";
  EXPECT_EQ(log.count("VXAppMigrator: Failed to load migration marker file from " + broken, 3), 2u);
  WriteFile(OldContainer("Husk") + kMarker, "junk");
  EXPECT_FALSE(introspect(OldContainer("Husk")));
  EXPECT_FALSE(Exists(OldContainer("Husk"))) << "nothing in it to resume";

  const std::string resumed = OldContainer("Resumed");
  MakeBundle(resumed + "/Foo.app", {.identifier = "com.example.foo"});
  const ContainerInfo marked{{"ContainerPath", resumed},
                             {"BundlePath", resumed + "/Gone.vpnplugin"},
                             {"ContainerType", "Other"},
                             {"BundleIdentifier", "com.example.gone"}};
  ASSERT_TRUE(migrator->_writeMigrationMarker(marked));
  bool early = true;
  EXPECT_EQ(introspect(resumed, &early), marked);
  EXPECT_FALSE(early);
}

TEST_F(IntrospectionTest, WorkListTakesApplicationsFirstLatestFoundLeading) {
  FakeWorkspace workspace;  // has no proxies: every migration stops right after introspection
  for (const char* app : {"A", "B"}) {
    MakeBundle(OldContainer(std::string(app) + "/X.app"), {.identifier = "com.example.app"});
  }
  MakeBundle(OldContainer("V/X.vpnplugin"), {.identifier = "com.example.vpn"});
  workspace.installed = {"com.example.app"};
  create();
  std::vector<std::string> expected = {"V"};
  for (const FileURL& item : *migrator->itemsToMigrate()) {
    const std::string name = item.lastPathComponent();
    if (name != "V") expected.insert(expected.begin(), name);
  }
  EXPECT_FALSE(migrator->performMigration());
  std::vector<std::string> order;
  for (const std::string& m : log.messages(5)) {
    if (m.rfind("VXAppMigrator: Migrating ", 0) != 0) continue;
    order.push_back(m.substr(m.rfind('/') - 1, 1));  // the container of ".../A/X.app"
  }
  EXPECT_EQ(order, expected);
}

class MigrationMarkerTest : public IntrospectionTest {};

TEST_F(MigrationMarkerTest, RecordReadsBackAndTheFirstWrongTypeIsReported) {
  PlistDictionary record{{"ContainerPath", OldContainer("C")}, {"BundlePath", "/c/F.app"},
                         {"ContainerType", "App"}, {"BundleIdentifier", ""},
                         {"SecondBundlePath", "/c/T.vpnplugin"}};
  const FileURL marker = FileURL::fileURLWithPath(OldContainer("C") + kMarker);
  MakeDirs(OldContainer("C"));
  ASSERT_TRUE(migrator->_writeMigrationMarker(record));
  EXPECT_EQ(migrator->_loadAndValidateMigrationMarkerAtURL(marker), record);

  record["SecondBundlePath"] = 7;
  record["ContainerType"] = 1;
  for (const char* expected : {"Failed to get container type from migration marker file ",
                               "Second bundle path was not a string: 7"}) {
    log.clear();
    ASSERT_TRUE(migrator->_writeMigrationMarker(record));
    EXPECT_FALSE(migrator->_loadAndValidateMigrationMarkerAtURL(marker));
    const std::string path = expected[0] == 'F' ? marker.path() : "";
    EXPECT_TRUE(LoggedOnce(log, 3, "VXAppMigrator: " + std::string(expected) + path,
                           "-[VXAppMigrator _loadAndValidateMigrationMarkerAtURL:]"));
    EXPECT_EQ(log.messages().size(), 1u);
    record["ContainerType"] = "Other";  // any text will do
  }
  record["ContainerPath"] = "/no/such/container";
  EXPECT_FALSE(migrator->_writeMigrationMarker(record));
}

class DataContainerTest : public IntrospectionTest {
 protected:
  const std::string from = DevicePath("old"), to = DevicePath("new");
};

TEST_F(DataContainerTest, ItemsReplaceTheirNamesakesUntilOneCannotMove) {
  for (const char* name : {"Documents", "Library", "Marvish"}) {
    WriteFile(from + "/" + name + "/f", name);
  }
  WriteFile(to + "/Documents/default", "");
  WriteFile(to + "/Library/default", "");
  WriteFile(to + "/tmp/t", "t");
  // A directory cannot move into itself, so "Library" is stuck.
  const std::string inside = from + "/Library/New";
  MakeDirs(inside);
  EXPECT_FALSE(migrator->_migrateDataContainerForIdentifier("com.a", Dir(from), Dir(inside)));
  EXPECT_EQ(log.count("VXAppMigrator: Failed to move " + from + "/Library to " + inside +
                      "/Library migrating for com.a : ", 3), 1u);
  EXPECT_TRUE(Exists(from + "/Marvish/f")) << "nothing after the failure moves";

  EXPECT_EQ(ReadFile(inside + "/Documents/f"), "Documents");

  // A later attempt moves the rest, and only the rest.
  EXPECT_TRUE(migrator->_migrateDataContainerForIdentifier("com.a", Dir(from), Dir(to)));
  EXPECT_EQ(ReadFile(to + "/Library/f"), "Library");
  EXPECT_FALSE(Exists(to + "/Library/default")) << "replaced by the old Library";
  EXPECT_EQ(ReadFile(to + "/Marvish/f"), "Marvish");
  EXPECT_TRUE(Exists(to + "/Documents/default")) << "the old Documents had already gone";
  EXPECT_EQ(ReadFile(to + "/tmp/t"), "t") << "the old container had none";
}

TEST_F(DataContainerTest, OnlyBookkeepingFilesMayStay) {
  for (const std::string& name : {kMarker.substr(1), std::string("com.tarsel.velotrix.placeholder"),
                                 std::string("com.tarsel.velotrix.migration_marker")}) {
    WriteFile(from + "/" + name, "");
  }
  EXPECT_FALSE(migrator->_containerHasMissedItems(Dir(from), "com.a"));
  MakeDirs(from + "/Staging");
  MakeSymlink("/nowhere", from + "/COM.TARSEL.VELOTRIX.PLACEHOLDER");
  EXPECT_TRUE(migrator->_containerHasMissedItems(Dir(from), "com.a"));
  const auto failures = log.messages(3);
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_NE(failures[0].find(from + "/Staging"), std::string::npos) << failures[0];
  EXPECT_NE(failures[0].find(from + "/COM.TARSEL.VELOTRIX.PLACEHOLDER"), std::string::npos);
  EXPECT_TRUE(migrator->_containerHasMissedItems(Dir(to), "com.a"));
  EXPECT_EQ(log.count("VXAppMigrator: Failed to enumerate container " + to + " for com.a : ", 3),
            1u);
}

class GroupContainerTest : public IntrospectionTest {};

TEST_F(GroupContainerTest, SharedGroupMovesOnceAndUnmovableItemsKeepTheOldContainer) {
  constexpr const char* kGroup =
      "__54-[VXAppMigrator _migrateGroupContainersForIdentifier:]_block_invoke";
  const std::string shared = DevicePath("private/var/G/shared");
  const std::string stuck = DevicePath("private/var/G/stuck");
  WriteFile(shared + "/db", "old");
  MakeSymlink("db", shared + "/link");
  WriteFile(stuck + "/a", "a");
  MakeDirs(stuck + "/New");  // the new container lies inside the old one, which cannot move into it
  WriteFile(OldContainer("Any/x"), "");
  MakeDirs(DevicePath("private/var/mobile/Library/Caches"));
  PlistDictionary groups;
  for (const char* g : {"shared", "stuck", "no"}) {
    groups[std::string("g.") + g] =
        PlistDictionary{{"Container", std::string("/private/var/G/") + g}};
  }
  ASSERT_TRUE(WritePropertyListFile(
      DevicePath("private/var/mobile/Library/Caches/com.tarsel.velotrix.plist"),
      PlistValue(PlistDictionary{{"GroupContainers", groups}})));
  FakeWorkspace workspace;
  create();
  WriteFile(DevicePath("new/a/db"), "fresh");
  workspace.addApplication("com.a", DevicePath("data/a"),
                           {{"g.shared", Dir(DevicePath("new/a"))},
                            {"g.stuck", Dir(stuck + "/New")},
                            {"g.no", Dir(DevicePath("new/m"))},
                            {"g.unknown", Dir(DevicePath("new/u"))}});
  workspace.addApplication("com.b", DevicePath("data/b"), {{"g.shared", Dir(DevicePath("new/b"))}});

  EXPECT_TRUE(migrator->_migrateGroupContainersForIdentifier("com.a"));
  EXPECT_EQ(ReadFile(DevicePath("new/a/db")), "old");
  EXPECT_TRUE(std::filesystem::is_symlink(DevicePath("new/a/link")));
  EXPECT_FALSE(Exists(shared));
  EXPECT_EQ(ReadFile(stuck + "/New/a"), "a");
  EXPECT_TRUE(LoggedOnce(log, 3, "VXAppMigrator: Not removing old group container at " + stuck +
                                     " because 1 items could not be moved", kGroup));
  EXPECT_TRUE(LoggedOnce(log, 3, "VXAppMigrator: Missing source group container at " +
                                     DevicePath("private/var/G/no"), kGroup));
  EXPECT_TRUE(LoggedOnce(
      log, 5, "VXAppMigrator: No group container entry to migrate for com.a[g.unknown]", kGroup));
  EXPECT_EQ(migrator->groupContainerMap()->count("g.shared"), 0u);
  EXPECT_EQ(migrator->groupContainerMap()->count("g.stuck"), 1u);

  EXPECT_TRUE(migrator->_migrateGroupContainersForIdentifier("com.b"));
  EXPECT_TRUE(LoggedOnce(
      log, 5, "VXAppMigrator: No group container entry to migrate for com.b[g.shared]", kGroup));
  workspace.proxies["com.b"].groupContainerURLs.reset();
  EXPECT_FALSE(migrator->_migrateGroupContainersForIdentifier("com.b"));
  EXPECT_FALSE(migrator->_migrateGroupContainersForIdentifier("com.none"));
}

class SafeHarborTest : public IntrospectionTest {
 protected:
  bool migrate(const PlistDictionary& map) {
    MakeDirs(DevicePath(kDataDir));
    EXPECT_TRUE(WritePropertyListFile(DevicePath(kDataDir + "/SafeHarbor.plist"), PlistValue(map)));
    create();
    return migrator->_migrateSafeHarbors();
  }
  PlistDictionary registered() {
    return ReadPropertyListDictionary(DevicePath(kDataDir + "/SafeHarborRegister.plist"))
        .value_or(PlistDictionary{});
  }
};

PlistValue Harbor(const char* path) { return PlistDictionary{{"HarborPathKey", path}}; }

TEST_F(SafeHarborTest, MapGoesOnlyWhenEveryWellFormedHarborIsRegistered) {
  MakeDirs(DevicePath("private/var/H/b"));
  EXPECT_FALSE(migrate({{"com.a", Harbor("/private/var/H/absent")},
                        {"com.b", Harbor("/private/var/H/b")}}));
  EXPECT_TRUE(Exists(DevicePath(kDataDir + "/SafeHarbor.plist")));
  EXPECT_EQ(registered().at("com.b"),
            PlistValue(PlistDictionary{{"Path", DevicePath("private/var/H/b")},
                                       {"ContainerType", 2}}));
  EXPECT_EQ(log.count("VXAppMigrator: Failed to migrate safe harbor for identifier com.a at " +
                      DevicePath("private/var/H/absent") + " : (null)", 3), 1u);

  MakeDirs(DevicePath("private/var/H/absent"));
  EXPECT_TRUE(migrate({{"com.a", Harbor("/private/var/H/absent")}, {"com.odd", "no dictionary"},
                       {"com.pathless", PlistDictionary{{"Other", 1}}}}));
  EXPECT_FALSE(Exists(DevicePath(kDataDir + "/SafeHarbor.plist")));
  EXPECT_EQ(registered().size(), 2u);
  EXPECT_TRUE(LoggedOnce(log, 3, "VXAppMigrator: Failed to get harbor path from harbor entry for "
                                 "com.pathless : {Other = 1;}",
                         "-[VXAppMigrator _migrateSafeHarbors]"));
}

}  // namespace
}  // namespace vx
