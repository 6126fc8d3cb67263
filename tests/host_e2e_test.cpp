// The built host and plug-in, run as a user would run them, on device directories of their
// own.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "platform/PlistFile.h"
#include "support/RunProgram.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using nlohmann::json;
using test::Exists;
using test::RunProgram;
using test::TempDir;
using test::WriteFile;

const std::string kHost = std::string(VX_BIN_DIR) + "/vxmigrate";
const std::string kOldRoot = "private/var/mobile/Applications";
const std::string kNotice = kOldRoot + "/WhereDidMyApplicationsGo.txt";
const std::string kInstallMap = "private/var/mobile/Library/Caches/com.tarsel.velotrix.plist";
const std::string kVersionFile =
    "private/var/mobile/Library/Velotrix/AppMigratorLastSystemVersion.plist";

// A device whose old container root holds nothing but the notice.
void LayOutNoticeOnlyDevice(const TempDir& device) {
  WriteFile(device / "etc/os-release",
            "# test device\nNAME=\"Test Device\"\nVERSION_ID=9.0\nBUILD_ID='9Z999'\n");
  WriteFile(device / kNotice, "Your applications moved.\n");
  test::MakeDirs(device / "private/var/mobile/Library/Caches");
  ASSERT_TRUE(WritePropertyListFile(device / kInstallMap,
                                    PlistValue(PlistDictionary{{"GroupContainers",
                                                                PlistDictionary{}}})));
}

std::vector<json> JsonLines(const std::string& text) {
  std::vector<json> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(json::parse(line, nullptr, false));
    EXPECT_FALSE(lines.back().is_discarded()) << line;
  }
  return lines;
}

TEST(HostEndToEndTest, MigratesANoticeOnlyDevice) {
  TempDir device, logs;
  LayOutNoticeOnlyDevice(device);
  const std::string jsonLog = logs / "run.jsonl";
  // No --plugin-dir: the host finds the plug-in beside its own installation.
  auto run = RunProgram(kHost, {"migrate", "--root", device.path(), "--json", "--log-json",
                                jsonLog, "--no-progress"});
  ASSERT_EQ(run.exitStatus, 0) << run.describe();

  EXPECT_FALSE(Exists(device / kNotice));
  EXPECT_FALSE(Exists(device / kOldRoot));
  EXPECT_FALSE(Exists(device / kInstallMap));
  const PlistDictionary expectedRecord{
      {"NAME", "Test Device"}, {"VERSION_ID", "9.0"}, {"BUILD_ID", "9Z999"}};
  EXPECT_EQ(ReadPropertyListDictionary(device / kVersionFile), expectedRecord);

  const json report = json::parse(run.out, nullptr, false);
  ASSERT_TRUE(report.is_object()) << run.out;
  EXPECT_EQ(report["result"], true);
  ASSERT_EQ(report["plugins"].size(), 1u);
  const json& plugin = report["plugins"][0];
  EXPECT_EQ(plugin["dataClassName"], "VXAppMigrator");
  EXPECT_EQ(plugin["estimatedDuration"], 22.25);
  EXPECT_EQ(plugin["result"], true);
  EXPECT_EQ(plugin["progress"], 1.0);
  EXPECT_GE(plugin["seconds"].get<double>(), 0.0);

  const std::set<std::string> keys{"time", "log", "level", "category",
                                   "function", "file", "line", "message"};
  int recorded = 0;
  for (const json& line : JsonLines(test::ReadFile(jsonLog))) {
    std::set<std::string> present;
    for (const auto& item : line.items()) present.insert(item.key());
    EXPECT_EQ(present, keys) << line.dump();
    if (line["message"] == "VXAppMigrator: Recorded current system version as 9Z999") {
      ++recorded;
      EXPECT_EQ(line["log"], "migration");
      EXPECT_EQ(line["level"], 5);
      EXPECT_EQ(line["category"], "Transhifter");
      EXPECT_EQ(line["file"], "AppMigrator/AppMigrator");
      EXPECT_EQ(line["function"], "-[VXAppMigrator performMigration]");
      EXPECT_TRUE(line["line"].is_number_integer());
    }
  }
  EXPECT_EQ(recorded, 1);
  // The device keeps its own text log of the migration.
  EXPECT_NE(test::ReadFile(device / "private/var/mobile/Library/Logs/Transhift/migration.log")
                .find("Recorded current system version as 9Z999"),
            std::string::npos);
}

TEST(HostEndToEndTest, UsageAndLoadingProblemsExitTwo) {
  TempDir device, plugins;
  LayOutNoticeOnlyDevice(device);

  auto help = RunProgram(kHost, {"--help"});
  EXPECT_EQ(help.exitStatus, 0) << help.describe();
  EXPECT_NE(help.out.find("migrate"), std::string::npos);
  auto migrateHelp = RunProgram(kHost, {"migrate", "--help"});
  EXPECT_EQ(migrateHelp.exitStatus, 0) << migrateHelp.describe();
  EXPECT_NE(migrateHelp.out.find("--plugin-dir"), std::string::npos);

  auto missingPlugins = RunProgram(
      kHost, {"migrate", "--root", device.path(), "--plugin-dir", plugins / "absent"});
  EXPECT_EQ(missingPlugins.exitStatus, 2) << missingPlugins.describe();
  EXPECT_NE(missingPlugins.err.find(plugins / "absent"), std::string::npos);

  auto emptyPlugins =
      RunProgram(kHost, {"migrate", "--root", device.path(), "--plugin-dir", plugins.path()});
  EXPECT_EQ(emptyPlugins.exitStatus, 2) << emptyPlugins.describe();

  WriteFile(plugins / "Broken.so", "not a module");
  auto broken =
      RunProgram(kHost, {"migrate", "--root", device.path(), "--plugin-dir", plugins.path()});
  EXPECT_EQ(broken.exitStatus, 2) << broken.describe();
  EXPECT_NE(broken.err.find("Broken.so"), std::string::npos) << broken.err;

  auto missingRoot = RunProgram(kHost, {"migrate", "--root", device / "absent"});
  EXPECT_EQ(missingRoot.exitStatus, 2) << missingRoot.describe();

  test::RunOptions malformed;
  malformed.environment = {{"VX_FAULT_AT", "soon"}};
  auto badFault = RunProgram(kHost, {"migrate", "--root", device.path()}, malformed);
  EXPECT_EQ(badFault.exitStatus, 2) << badFault.describe();
  EXPECT_NE(badFault.err.find("VX_FAULT_AT"), std::string::npos);

  // None of them touched the device.
  EXPECT_TRUE(Exists(device / kNotice));
  EXPECT_TRUE(Exists(device / kInstallMap));
}

TEST(HostEndToEndTest, AnyFailedMutationLeavesAConsistentDevice) {
  // Which mutation is the notice's removal depends on the file manager's inner steps, so
  // every mutation of the run is failed in turn, until the run makes fewer than N.
  bool sawFailedRun = false;
  for (int n = 1; n <= 60; ++n) {
    SCOPED_TRACE("failing mutation " + std::to_string(n));
    TempDir device;
    LayOutNoticeOnlyDevice(device);
    test::RunOptions faulty;
    faulty.environment = {{"VX_FAULT_AT", std::to_string(n)}, {"VX_FAULT_ACTION", "fail"}};
    auto run = RunProgram(kHost, {"migrate", "--root", device.path(), "--no-progress"}, faulty);
    ASSERT_TRUE(run.exited()) << run.describe();
    const bool faultHit = run.err.find("vx fault seam: failing") != std::string::npos;
    if (!faultHit) {
      EXPECT_EQ(run.exitStatus, 0) << run.describe();
      EXPECT_GT(n, 1) << "the run made no mutation at all";
      EXPECT_TRUE(sawFailedRun) << "no single failed mutation failed the run";
      return;
    }
    ASSERT_TRUE(run.exitStatus == 0 || run.exitStatus == 1) << run.describe();
    if (run.exitStatus == 1) {
      sawFailedRun = true;
      // A failed run claims no version, and while anything is left in the old root the
      // install map stays for the next run.
      EXPECT_FALSE(Exists(device / kVersionFile));
      if (Exists(device / kNotice)) {
        EXPECT_TRUE(Exists(device / kInstallMap));
      }
    } else {
      EXPECT_FALSE(Exists(device / kNotice));
    }
  }
  FAIL() << "the run still made mutations after 60";
}

}  // namespace
}  // namespace vx
