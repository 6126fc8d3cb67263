// The migration run over the old container root, on the test binary's device: what the
// plug-in reads at creation, how it counts, when it clears the old layout and records the
// system version, and what it says along the way.
#include <gtest/gtest.h>

#include "platform/log/Log.h"
#include "platform/system/SystemVersion.h"
#include "support/MigratorTestKit.h"

namespace vx {
namespace {

using namespace vx::test;

constexpr const char* kInit = "-[VXAppMigrator init]";
const std::string kOldRoot = "private/var/mobile/Applications";
const std::string kDataDirectory = "private/var/mobile/Library/Velotrix";
const std::string kVersionFile = kDataDirectory + "/AppMigratorLastSystemVersion.plist";
const std::string kNotice = kOldRoot + "/WhereDidMyApplicationsGo.txt";
const std::string kFailedRun =
    "Returning migration failed. Please include the contents of /var/mobile/Library/Logs/Velotrix "
    "and /var/Mobile/Library/Logs/Transhift in a bug report.";

class AppMigratorRunTest : public MigratorTest {
 protected:
  // Each test arranges the old layout before it creates the plug-in.
  void SetUp() override {
    ResetTestDevice();
    WriteFile(DevicePath("etc/os-release"), "NAME=\"Test OS\"\nVERSION_ID=2.0\nBUILD_ID=2A101\n");
  }
};

TEST_F(AppMigratorRunTest, WithoutOldRootTheRunStillSucceedsAndRecordsTheVersion) {
  create();
  EXPECT_FALSE(migrator->itemsToMigrate());
  EXPECT_EQ(migrator->estimatedDuration(), 20.0f);
  EXPECT_EQ(migrator->migrationProgress(), 0.5f);
  EXPECT_TRUE(migrator->performMigration());
  EXPECT_EQ(migrator->migrationProgress(), 0.5f);
  EXPECT_EQ(ReadPropertyListDictionary(DevicePath(kVersionFile)), SystemVersionRecord());
  EXPECT_TRUE(Logged(5, "Recorded current system version as 2A101"));
  // A root that is missing at the end is the expected outcome, not a listing failure.
  EXPECT_TRUE(log.messages(3).empty()) << log.messages(3).front();
}

TEST_F(AppMigratorRunTest, EmptyRootGoesAtCreationButAnUnlistableOneRefusesIt) {
  MakeDirs(DevicePath(kOldRoot));
  WriteInstallMap({{"GroupContainers", PlistDictionary{}}});
  create();
  EXPECT_FALSE(Exists(DevicePath(kOldRoot)));
  EXPECT_FALSE(migrator->itemsToMigrate());
  EXPECT_FALSE(migrator->groupContainerMap()) << "the map is not read without items";
  EXPECT_TRUE(migrator->performMigration());
  EXPECT_TRUE(Exists(DevicePath(kInstallMap)));
  EXPECT_TRUE(Exists(DevicePath(kVersionFile)));

  ResetTestDevice();
  WriteFile(DevicePath(kOldRoot), "not a directory");
  EXPECT_FALSE(VXAppMigrator::create());
  EXPECT_TRUE(log.contains("VXAppMigrator: Failed to get items at " + DevicePath(kOldRoot) + " : ",
                           3));
}

TEST_F(AppMigratorRunTest, NoticeAloneIsRemovedAndTheOldLayoutCleared) {
  WriteFile(DevicePath(kNotice), "They moved.");
  WriteInstallMap(GroupMap({{"group.shared", "/private/var/mobile/G"}}));
  create();
  EXPECT_TRUE(Logged(5, "1 items to migrate", kInit));
  ASSERT_TRUE(migrator->groupContainerMap());
  EXPECT_EQ(migrator->groupContainerMap()->count("group.shared"), 1u);
  EXPECT_EQ(migrator->estimatedDuration(), 22.25f);
  EXPECT_EQ(migrator->migrationProgress(), 0.0f);

  EXPECT_TRUE(migrator->performMigration());
  EXPECT_TRUE(Logged(5, "Introspecting " + DevicePath(kNotice)));
  EXPECT_EQ(migrator->migrationProgress(), 1.0f);
  EXPECT_FALSE(Exists(DevicePath(kOldRoot)));
  EXPECT_FALSE(Exists(DevicePath(kInstallMap)));
  EXPECT_EQ(ReadPropertyListDictionary(DevicePath(kVersionFile)), SystemVersionRecord());
}

TEST_F(AppMigratorRunTest, SymbolicLinkInTheRootIsNoItemButKeepsTheOldLayout) {
  WriteFile(DevicePath(kNotice), "They moved.");
  MakeSymlink("/nowhere", DevicePath(kOldRoot + "/Link"));
  WriteInstallMap({});
  create();
  ASSERT_TRUE(migrator->itemsToMigrate());
  EXPECT_EQ(migrator->itemsToMigrate()->size(), 1u);

  EXPECT_FALSE(migrator->performMigration());
  EXPECT_FALSE(log.contains("Introspecting " + DevicePath(kOldRoot + "/Link")));
  EXPECT_TRUE(Logged(3, "Not removing " + DevicePath(kInstallMap) +
                            " because 1 items remain unmigrated."));
  EXPECT_TRUE(Logged(3, kFailedRun));
  EXPECT_TRUE(Exists(DevicePath(kOldRoot + "/Link")));
  EXPECT_TRUE(Exists(DevicePath(kInstallMap)));
  EXPECT_FALSE(Exists(DevicePath(kNotice)));
  EXPECT_FALSE(Exists(DevicePath(kVersionFile)));
}

// Reads the plug-in's progress each time the run announces the next item, as the host's
// progress thread would see it.
class ProgressSampler : public LogSink {
 public:
  void Write(const LogRecord& record) override {
    if (record.message.rfind("VXAppMigrator: Introspecting ", 0) == 0) {
      samples.push_back(migrator->migrationProgress());
    }
  }
  const VXAppMigrator* migrator = nullptr;
  std::vector<float> samples;
};

TEST_F(AppMigratorRunTest, EveryEntryCountsOnceWhateverBecameOfIt) {
  for (const char* name : {"a", "b", "c"}) WriteFile(DevicePath(kOldRoot + "/" + name), "");
  WriteFile(DevicePath(kNotice), "");
  create();
  EXPECT_EQ(migrator->estimatedDuration(), 29.0f) << "a fixed part and a share per item";
  auto sampler = std::make_shared<ProgressSampler>();
  sampler->migrator = migrator.get();
  AddLogSink(sampler);
  migrator->performMigration();
  RemoveLogSink(sampler.get());
  EXPECT_EQ(sampler->samples, (std::vector<float>{0.0f, 0.25f, 0.5f, 0.75f}));
  EXPECT_EQ(migrator->countItemsMigrated(), 4u);
  EXPECT_EQ(migrator->migrationProgress(), 1.0f);
}

TEST_F(AppMigratorRunTest, GroupContainerMapNeedsADictionaryInAReadableInstallMap) {
  const std::pair<const char*, std::optional<PlistDictionary>> cases[] = {
      {"no install map", std::nullopt},
      {"no GroupContainers", PlistDictionary{{"User", PlistDictionary{}}}},
      {"GroupContainers not a dictionary", PlistDictionary{{"GroupContainers", "nope"}}}};
  for (const auto& [what, map] : cases) {
    SCOPED_TRACE(what);
    ResetTestDevice();
    log.clear();
    WriteFile(DevicePath(kOldRoot + "/item"), "");
    if (map) WriteInstallMap(*map);
    create();
    EXPECT_FALSE(migrator->groupContainerMap());
    EXPECT_TRUE(Logged(5, "No group container map found in install map", kInit));
    EXPECT_EQ(log.contains("Old install map not found at " + DevicePath(kInstallMap), 5), !map);
  }
}

TEST_F(AppMigratorRunTest, UnreadableHarborMapAndVersionFileAreReportedWithoutFailingTheRun) {
  const std::string harborMap = DevicePath(kDataDirectory + "/SafeHarbor.plist");
  WriteFile(harborMap, "<plist>broken");
  // A non-empty directory where the version file belongs: nothing can be renamed over it.
  WriteFile(DevicePath(kVersionFile + "/occupied"), "");
  create();
  EXPECT_FALSE(migrator->harborMap());
  EXPECT_TRUE(Logged(3, "Failed to load existing harbor map from " + harborMap, kInit));
  EXPECT_TRUE(migrator->performMigration());
  EXPECT_TRUE(Exists(harborMap));
  EXPECT_TRUE(Logged(3, "Failed to write current build info to " + DevicePath(kVersionFile)));
  EXPECT_FALSE(log.contains(kFailedRun));
}

}  // namespace
}  // namespace vx
