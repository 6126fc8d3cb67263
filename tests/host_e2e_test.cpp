// The built host and plug-in, run as a user would run them, on device directories of their
// own.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "platform/plist/PlistFile.h"
#include "support/RunProgram.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using nlohmann::json;
using namespace test;

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
  MakeDirs(device / "private/var/mobile/Library/Caches");
  ASSERT_TRUE(WritePropertyListFile(
      device / kInstallMap, PlistValue(PlistDictionary{{"GroupContainers", PlistDictionary{}}})));
}

RunResult Host(const std::vector<std::string>& arguments,
               std::map<std::string, std::optional<std::string>> environment = {}) {
  RunOptions options;
  options.environment = std::move(environment);
  return RunProgram(std::string(VX_BIN_DIR) + "/vxmigrate", arguments, options);
}

TEST(HostEndToEndTest, MigratesANoticeOnlyDevice) {
  TempDir device, logs;
  LayOutNoticeOnlyDevice(device);
  // No --plugin-dir: the host finds the plug-in beside its own installation.
  auto run = Host({"migrate", "--root", device.path(), "--json", "--log-json", logs / "run.jsonl",
                   "--no-progress"});
  ASSERT_EQ(run.exitStatus, 0) << run.describe();

  EXPECT_FALSE(Exists(device / kOldRoot));
  EXPECT_FALSE(Exists(device / kInstallMap));
  EXPECT_EQ(
      ReadPropertyListDictionary(device / kVersionFile),
      (PlistDictionary{{"NAME", "Test Device"}, {"VERSION_ID", "9.0"}, {"BUILD_ID", "9Z999"}}));

  // The report is exact but for the times taken.
  json report = json::parse(run.out);
  EXPECT_TRUE(report["plugins"][0]["seconds"].is_number()) << run.out;
  EXPECT_TRUE(report["plugins"][0]["containers"][0]["seconds"].is_number()) << run.out;
  report["plugins"][0].erase("seconds");
  report["plugins"][0]["containers"][0].erase("seconds");
  json expected = json::parse(R"({"result": true, "plugins": [{"dataClassName": "VXAppMigrator",
      "estimatedDuration": 22.25, "result": true, "progress": 1.0, "containers": [{
      "identifier": "", "course": "stray-removed", "reason": "", "dataItems": 0, "dataFiles": 0,
      "dataBytes": 0}]}]})");
  expected["plugins"][0]["containers"][0]["path"] = device / kNotice;
  EXPECT_EQ(report, expected);

  // The plug-in's record reaches the JSON log once, keeping where it came from.
  const json recorded = json::parse(R"({"log": "migration", "level": 5,
      "category": "Transhifter", "function": "-[VXAppMigrator performMigration]",
      "file": "AppMigrator/AppMigrator",
      "message": "VXAppMigrator: Recorded current system version as 9Z999"})");
  int seen = 0;
  std::istringstream lines(ReadFile(logs / "run.jsonl"));
  for (std::string text; std::getline(lines, text);) {
    json line = json::parse(text);
    if (line["message"] != recorded["message"]) continue;
    ++seen;
    EXPECT_TRUE(line["time"].is_string() && line["line"].is_number_integer()) << text;
    line.erase("time");
    line.erase("line");
    EXPECT_EQ(line, recorded);
  }
  EXPECT_EQ(seen, 1);
  // The device keeps its own text log of the migration.
  EXPECT_NE(ReadFile(device / "private/var/mobile/Library/Logs/Transhift/migration.log")
                .find("Recorded current system version as 9Z999"),
            std::string::npos);
}

// The demo is what a newcomer sees first: one screen, and no failure where there is none (the
// sample's older copy of a built-in application is turned away on purpose).
TEST(HostEndToEndTest, DemoFitsAScreenWithoutErrors) {
  TempDir tmp;
  auto demo = Host({"demo"}, {{"TMPDIR", tmp.path()}});
  ASSERT_EQ(demo.exitStatus, 0) << demo.describe();
  std::istringstream lines(demo.out + demo.err);
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    EXPECT_NE(line.rfind("error:", 0), 0u) << line;
    EXPECT_EQ(line.find("lost"), std::string::npos) << line;
  }
  EXPECT_LE(count, 40) << demo.out;
  EXPECT_NE(demo.out.find("the newer built-in copy serves its data"), std::string::npos);
}

// The host's last line and exit status tell the truth about the run: on a root with no device
// layout at all nothing is written, and a failure the plug-in logged while still returning
// success (its system version could not be recorded) makes the run incomplete.
TEST(HostEndToEndTest, LastLineAndStatusTellTheTruth) {
  TempDir machine;
  auto nothing = Host({"migrate", "--root", machine.path(), "--no-progress"});
  EXPECT_EQ(nothing.exitStatus, 0) << nothing.describe();
  EXPECT_NE(nothing.out.find("Nothing to migrate"), std::string::npos) << nothing.describe();
  EXPECT_TRUE(std::filesystem::is_empty(machine.path())) << "the run wrote into the root";

  TempDir device;
  LayOutNoticeOnlyDevice(device);
  // A file where the version's directory must go: the record cannot be written.
  WriteFile(device / "private/var/mobile/Library/Velotrix", "in the way");
  auto run = Host({"migrate", "--root", device.path(), "--no-progress"});
  EXPECT_EQ(run.exitStatus, 1) << run.describe();
  const std::string out = run.out.substr(0, run.out.find_last_not_of('\n') + 1);
  EXPECT_NE(out.substr(out.rfind('\n') + 1).find("Migration incomplete"), std::string::npos)
      << run.describe();
  auto json = Host({"migrate", "--root", device.path(), "--no-progress", "--json"});
  EXPECT_EQ(json.exitStatus, 1) << json.describe();
  EXPECT_EQ(json::parse(json.out)["result"], false) << json.out;
}

TEST(HostEndToEndTest, UsageAndLoadingProblemsExitTwo) {
  TempDir device, plugins;
  LayOutNoticeOnlyDevice(device);
  // Help goes to the standard output; each refusal names on the standard error what it could
  // not use.
  auto expectRun = [](const RunResult& run, int status, const std::string& named) {
    EXPECT_EQ(run.exitStatus, status) << run.describe();
    EXPECT_NE((status == 0 ? run.out : run.err).find(named), std::string::npos) << run.describe();
  };
  auto withPlugins = [&](const std::string& dir) {
    return Host({"migrate", "--root", device.path(), "--plugin-dir", dir});
  };
  expectRun(Host({"--help"}), 0, "migrate");
  expectRun(Host({"migrate", "--help"}), 0, "--plugin-dir");
  expectRun(withPlugins(plugins / "absent"), 2, plugins / "absent");
  expectRun(withPlugins(plugins.path()), 2, "");
  WriteFile(plugins / "Broken.so", "not a module");
  expectRun(withPlugins(plugins.path()), 2, "Broken.so");
  expectRun(Host({"migrate", "--root", device / "absent"}), 2, "");
  expectRun(Host({"migrate", "--root", device.path()}, {{"VX_FAULT_AT", "soon"}}), 2,
            "VX_FAULT_AT");

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
    auto run = Host({"migrate", "--root", device.path(), "--no-progress"},
                    {{"VX_FAULT_AT", std::to_string(n)}, {"VX_FAULT_ACTION", "fail"}});
    ASSERT_TRUE(run.exited()) << run.describe();
    if (run.err.find("vx fault seam: failing") == std::string::npos) {
      EXPECT_EQ(run.exitStatus, 0) << run.describe();
      EXPECT_GT(n, 1) << "the run made no mutation at all";
      EXPECT_TRUE(sawFailedRun) << "no single failed mutation failed the run";
      return;
    }
    ASSERT_TRUE(run.exitStatus == 0 || run.exitStatus == 1) << run.describe();
    const bool pluginFailed = run.out.find("VXAppMigrator: FAILED") != std::string::npos;
    if (pluginFailed) {
      sawFailedRun = true;
      EXPECT_EQ(run.exitStatus, 1) << run.describe();
      // A failed run claims no version, and while anything is left in the old root the
      // install map stays for the next run.
      EXPECT_FALSE(Exists(device / kVersionFile));
      EXPECT_TRUE(!Exists(device / kNotice) || Exists(device / kInstallMap));
    } else if (run.exitStatus == 1) {
      // The plug-in went on past a failure it logged: the host still calls the run incomplete.
      EXPECT_NE(run.out.find(" logged; see the logs."), std::string::npos) << run.describe();
    } else {
      EXPECT_FALSE(Exists(device / kNotice));
    }
  }
  FAIL() << "the run still made mutations after 60";
}

}  // namespace
}  // namespace vx
