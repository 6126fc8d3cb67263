// The migration run over the old container root, on the test binary's device: what the
// plug-in reads at creation, how it counts, when it clears the old layout and records the
// system version, and what it says along the way.
#include <gtest/gtest.h>

#include <algorithm>

#include "AppMigrator/VXAppMigrator.h"
#include "platform/Log.h"
#include "platform/PlistFile.h"
#include "platform/SystemVersion.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/TestDevice.h"

namespace vx {
namespace {

using test::DevicePath;
using test::Exists;
using test::MakeDirs;
using test::WriteFile;

const std::string kOldRoot = "private/var/mobile/Applications";
const std::string kInstallMap = "private/var/mobile/Library/Caches/com.tarsel.velotrix.plist";
const std::string kDataDirectory = "private/var/mobile/Library/Velotrix";
const std::string kVersionFile = kDataDirectory + "/AppMigratorLastSystemVersion.plist";
const std::string kNotice = kOldRoot + "/WhereDidMyApplicationsGo.txt";
const std::string kFailedRun =
    "VXAppMigrator: Returning migration failed. Please include the contents of "
    "/var/mobile/Library/Logs/Velotrix and /var/Mobile/Library/Logs/Transhift in a bug report.";

class AppMigratorRunTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test::ResetTestDevice();
    WriteFile(DevicePath("etc/os-release"), "NAME=\"Test OS\"\nVERSION_ID=2.0\nBUILD_ID=2A101\n");
  }

  static void WriteInstallMap(const PlistDictionary& map) {
    MakeDirs(DevicePath("private/var/mobile/Library/Caches"));
    ASSERT_TRUE(WritePropertyListFile(DevicePath(kInstallMap), PlistValue(map)));
  }

  // The one migration-log record with exactly this message, checked for its level and for
  // the source, category and operation every record of the run carries.
  ::testing::AssertionResult Logged(int level, const std::string& message,
                                    const char* operation = "-[VXAppMigrator performMigration]") {
    const auto records = log.records();
    const auto n = std::count_if(records.begin(), records.end(),
                                 [&](const LogRecord& r) { return r.message == message; });
    if (n != 1) return ::testing::AssertionFailure() << n << " records of \"" << message << "\"";
    const LogRecord& r = *std::find_if(records.begin(), records.end(),
                                       [&](const LogRecord& r) { return r.message == message; });
    if (r.log != LogKind::Migration || r.level != level || r.function != operation ||
        r.file != "AppMigrator/AppMigrator" || r.category != "Transhifter" || !r.line) {
      return ::testing::AssertionFailure()
             << "\"" << message << "\" at level " << r.level << " from " << r.function;
    }
    return ::testing::AssertionSuccess();
  }

  test::LogCapture log;
};

TEST_F(AppMigratorRunTest, WithoutOldRootTheRunStillSucceedsAndRecordsTheVersion) {
  auto migrator = VXAppMigrator::create();
  ASSERT_TRUE(migrator);
  EXPECT_EQ(migrator->dataClassName(), "VXAppMigrator");
  EXPECT_FALSE(migrator->itemsToMigrate());
  EXPECT_EQ(migrator->estimatedDuration(), 20.0f);
  EXPECT_EQ(migrator->migrationProgress(), 0.5f);

  EXPECT_TRUE(migrator->performMigration());
  EXPECT_EQ(migrator->migrationProgress(), 0.5f);
  EXPECT_EQ(ReadPropertyListDictionary(DevicePath(kVersionFile)), SystemVersionRecord());
  EXPECT_TRUE(Logged(5, "VXAppMigrator: Recorded current system version as 2A101"));
  // A root that is missing at the end is the expected outcome, not a listing failure.
  EXPECT_TRUE(log.messages(3).empty()) << log.messages(3).front();
}

TEST_F(AppMigratorRunTest, EmptyRootGoesAtCreationAndTheInstallMapStays) {
  MakeDirs(DevicePath(kOldRoot));
  WriteInstallMap({{"GroupContainers", PlistDictionary{}}});
  auto migrator = VXAppMigrator::create();
  ASSERT_TRUE(migrator);
  EXPECT_FALSE(Exists(DevicePath(kOldRoot)));
  EXPECT_FALSE(migrator->itemsToMigrate());
  EXPECT_FALSE(migrator->groupContainerMap()) << "the map is not read without items";
  EXPECT_EQ(migrator->migrationProgress(), 0.5f);

  EXPECT_TRUE(migrator->performMigration());
  EXPECT_TRUE(Exists(DevicePath(kInstallMap)));
  EXPECT_TRUE(Exists(DevicePath(kVersionFile)));
}

TEST_F(AppMigratorRunTest, RootThatCannotBeListedRefusesCreation) {
  WriteFile(DevicePath(kOldRoot), "not a directory");
  EXPECT_FALSE(VXAppMigrator::create());
  const auto failures = log.messages(3);
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_EQ(failures[0].rfind("VXAppMigrator: Failed to get items at " + DevicePath(kOldRoot) +
                                  " : ",
                              0),
            0u)
      << failures[0];
}

TEST_F(AppMigratorRunTest, NoticeAloneIsRemovedAndTheOldLayoutCleared) {
  WriteFile(DevicePath(kNotice), "They moved.");
  WriteInstallMap({{"GroupContainers",
                    PlistDictionary{{"group.com.example.shared",
                                     PlistDictionary{{"Container", "/private/var/mobile/G"}}}}}});
  auto migrator = VXAppMigrator::create();
  ASSERT_TRUE(migrator);
  EXPECT_TRUE(Logged(5, "VXAppMigrator: 1 items to migrate", "-[VXAppMigrator init]"));
  ASSERT_TRUE(migrator->groupContainerMap());
  EXPECT_EQ(migrator->groupContainerMap()->count("group.com.example.shared"), 1u);
  EXPECT_EQ(migrator->estimatedDuration(), 22.25f);
  EXPECT_EQ(migrator->migrationProgress(), 0.0f);

  EXPECT_TRUE(migrator->performMigration());
  EXPECT_TRUE(Logged(5, "VXAppMigrator: Introspecting " + DevicePath(kNotice)));
  EXPECT_EQ(migrator->countItemsMigrated(), 1u);
  EXPECT_EQ(migrator->migrationProgress(), 1.0f);
  EXPECT_FALSE(Exists(DevicePath(kOldRoot)));
  EXPECT_FALSE(Exists(DevicePath(kInstallMap)));
  EXPECT_EQ(ReadPropertyListDictionary(DevicePath(kVersionFile)), SystemVersionRecord());
  EXPECT_FALSE(log.contains(kFailedRun));
}

TEST_F(AppMigratorRunTest, SymbolicLinkInTheRootIsNoItemButKeepsTheOldLayout) {
  WriteFile(DevicePath(kNotice), "They moved.");
  test::MakeSymlink("/nowhere", DevicePath(kOldRoot + "/Link"));
  WriteInstallMap({});
  auto migrator = VXAppMigrator::create();
  ASSERT_TRUE(migrator);
  ASSERT_TRUE(migrator->itemsToMigrate());
  EXPECT_EQ(migrator->itemsToMigrate()->size(), 1u);

  EXPECT_FALSE(migrator->performMigration());
  EXPECT_FALSE(log.contains("Introspecting " + DevicePath(kOldRoot + "/Link")));
  EXPECT_TRUE(Logged(3, "VXAppMigrator: Not removing " + DevicePath(kInstallMap) +
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
    if (migrator && record.message.rfind("VXAppMigrator: Introspecting ", 0) == 0) {
      samples.push_back(migrator->migrationProgress());
    }
  }
  const VXAppMigrator* migrator = nullptr;
  std::vector<float> samples;
};

TEST_F(AppMigratorRunTest, ProgressAndDurationFollowTheItems) {
  for (int i = 0; i < 10; ++i) WriteFile(DevicePath(kOldRoot + "/stray" + std::to_string(i)), "");
  auto ten = VXAppMigrator::create();
  ASSERT_TRUE(ten);
  EXPECT_EQ(ten->estimatedDuration(), 42.5f);

  test::ResetTestDevice();
  for (const char* name : {"a", "b", "c"}) WriteFile(DevicePath(kOldRoot + "/" + name), "");
  WriteFile(DevicePath(kNotice), "");
  auto four = VXAppMigrator::create();
  ASSERT_TRUE(four);
  auto sampler = std::make_shared<ProgressSampler>();
  sampler->migrator = four.get();
  AddLogSink(sampler);
  four->performMigration();
  RemoveLogSink(sampler.get());
  // Whatever became of each entry, every one counts once.
  EXPECT_EQ(sampler->samples, (std::vector<float>{0.0f, 0.25f, 0.5f, 0.75f}));
  EXPECT_EQ(four->countItemsMigrated(), 4u);
  EXPECT_EQ(four->migrationProgress(), 1.0f);
}

TEST_F(AppMigratorRunTest, GroupContainerMapNeedsADictionaryInAReadableInstallMap) {
  const std::string noMap = "VXAppMigrator: No group container map found in install map";
  const std::string notFound = "VXAppMigrator: Old install map not found at " +
                               DevicePath(kInstallMap);
  struct Case {
    const char* what;
    std::optional<PlistDictionary> installMap;
    bool mapNotFound;
  } cases[] = {
      {"missing install map", std::nullopt, true},
      {"no GroupContainers", PlistDictionary{{"User", PlistDictionary{}}}, false},
      {"GroupContainers not a dictionary", PlistDictionary{{"GroupContainers", "nope"}}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    test::ResetTestDevice();
    log.clear();
    WriteFile(DevicePath(kOldRoot + "/item"), "");
    if (c.installMap) WriteInstallMap(*c.installMap);
    auto migrator = VXAppMigrator::create();
    ASSERT_TRUE(migrator);
    EXPECT_FALSE(migrator->groupContainerMap());
    EXPECT_TRUE(Logged(5, noMap, "-[VXAppMigrator init]"));
    EXPECT_EQ(log.contains(notFound, 5), c.mapNotFound);
  }
}

TEST_F(AppMigratorRunTest, UnreadableHarborMapIsReportedAndKept) {
  WriteFile(DevicePath(kDataDirectory + "/SafeHarbor.plist"), "<plist>broken");
  auto migrator = VXAppMigrator::create();
  ASSERT_TRUE(migrator);
  EXPECT_FALSE(migrator->harborMap());
  EXPECT_TRUE(Logged(3,
                     "VXAppMigrator: Failed to load existing harbor map from " +
                         DevicePath(kDataDirectory + "/SafeHarbor.plist"),
                     "-[VXAppMigrator init]"));
  EXPECT_TRUE(Exists(DevicePath(kDataDirectory + "/SafeHarbor.plist")));
}

TEST_F(AppMigratorRunTest, VersionFileThatCannotBeWrittenDoesNotFailTheRun) {
  // A non-empty directory where the file belongs: nothing can be renamed over it.
  WriteFile(DevicePath(kVersionFile + "/occupied"), "");
  auto migrator = VXAppMigrator::create();
  ASSERT_TRUE(migrator);
  EXPECT_TRUE(migrator->performMigration());
  EXPECT_TRUE(Logged(3, "VXAppMigrator: Failed to write current build info to " +
                            DevicePath(kVersionFile)));
  EXPECT_FALSE(log.contains(kFailedRun));
}

}  // namespace
}  // namespace vx
