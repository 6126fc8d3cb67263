// The whole job, from outside: a sample device in the old layout is migrated by the built
// host and plug-in, and the manifest proves that nothing was lost, also when the run is cut
// off at any step and started again.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "host/sample/ManifestCheck.h"
#include "host/sample/SampleDevice.h"
#include "support/FaultSites.h"
#include "support/RunProgram.h"
#include "support/TempDir.h"
#include "support/TreeDigest.h"

namespace vx {
namespace {

const std::string kHost = std::string(VX_BIN_DIR) + "/vxmigrate";
const std::string kVersionRecord =
    "/private/var/mobile/Library/Velotrix/AppMigratorLastSystemVersion.plist";

test::RunResult Host(const std::vector<std::string>& args, const test::RunOptions& options = {}) {
  return test::RunProgram(kHost, args, options);
}

// Each run gets a temporary directory of its own, so that nothing another test leaves in the
// shared one can matter (placeholders are built on the device itself).
test::RunResult Migrate(const std::string& root, test::RunOptions options = {}) {
  const std::string tmp = root + "-tmp";
  std::filesystem::create_directories(tmp);
  options.environment["TMPDIR"] = tmp;
  return Host({"migrate", "--root", root, "--no-progress", "--quiet"}, options);
}

std::string Describe(const sample::ManifestReport& report) {
  std::string out = std::to_string(report.filesVerified) + "/" + std::to_string(report.files) +
                    " files verified";
  for (const std::string& p : report.problems) out += "\n  " + p;
  for (const std::string& p : report.placeholdersOnly) out += "\n  only a placeholder: " + p;
  return out;
}

TEST(SampleDeviceEndToEndTest, TwentyApplicationsMigrateWithEveryByte) {
  test::TempDir t;
  const std::string root = t / "device";
  auto made = Host({"sample-device", root, "--apps", "20", "--seed", "7"});
  ASSERT_EQ(made.exitStatus, 0) << made.describe();

  test::RunOptions ownTmp;
  ownTmp.environment["TMPDIR"] = t.path();
  auto run = Host({"migrate", "--root", root, "--json", "--no-progress"}, ownTmp);
  ASSERT_EQ(run.exitStatus, 0) << run.describe();

  const sample::ManifestReport report = sample::CheckMigratedDevice(root);
  EXPECT_TRUE(report.ok()) << Describe(report);
  EXPECT_EQ(report.applications, 20u);
  EXPECT_EQ(report.applicationsInstalled, 20u) << Describe(report);
  EXPECT_FALSE(test::Exists(root + "/private/var/mobile/Applications"));
  EXPECT_FALSE(test::Exists(root + "/private/var/mobile/Library/Caches/com.tarsel.velotrix.plist"));
  EXPECT_TRUE(std::filesystem::is_empty(root + "/private/var/mobile/Containers/Shared/AppGroup"))
      << "old group containers go once their files moved";
  EXPECT_FALSE(test::Exists(root + "/private/var/mobile/Library/Velotrix/SafeHarbor.plist"));
  EXPECT_TRUE(test::Exists(root + kVersionRecord));

  // A second run finds nothing to do and succeeds.
  auto again = Migrate(root);
  EXPECT_EQ(again.exitStatus, 0) << again.describe();
}

TEST(SampleDeviceEndToEndTest, SameSeedSameDevice) {
  test::TempDir t;
  sample::SampleDeviceOptions options;
  options.apps = 8;
  options.seed = 42;
  options.dataBytes = 8192;
  std::string problem;
  ASSERT_TRUE(sample::WriteSampleDevice(t / "a", options, &problem)) << problem;
  ASSERT_TRUE(sample::WriteSampleDevice(t / "b", options, &problem)) << problem;
  EXPECT_EQ(test::ReadFile(t / ("a/" + std::string(sample::kManifestName))),
            test::ReadFile(t / ("b/" + std::string(sample::kManifestName))));
  EXPECT_FALSE(sample::WriteSampleDevice(t / "a", options, &problem)) << "never over an old layout";
}

TEST(SampleDeviceEndToEndTest, RunWithAFailureReportsItAndKeepsWhatItCouldNotMigrate) {
  test::TempDir t;
  const std::string root = t / "device";
  ASSERT_EQ(Host({"sample-device", root, "--apps", "3", "--data-bytes", "4096"}).exitStatus, 0);
  // A symbolic link where the marker belongs: that container is left alone.
  const std::string oldRoot = root + "/private/var/mobile/Applications";
  std::string trapped;
  for (const auto& entry : std::filesystem::directory_iterator(oldRoot)) {
    if (test::Exists(entry.path().string() + "/Atlas.app")) trapped = entry.path().string();
  }
  ASSERT_FALSE(trapped.empty());
  test::MakeSymlink("/etc/hostname", trapped + "/com.tarsel.velotrix.container_migrator.plist");

  auto run = Migrate(root);
  EXPECT_EQ(run.exitStatus, 1) << run.describe();
  EXPECT_NE(run.err.find("VXAppMigrator: Migration marker was symlink; skipping container"),
            std::string::npos);
  EXPECT_NE(run.err.find("because 1 items remain unmigrated."), std::string::npos);
  EXPECT_NE(run.err.find("VXAppMigrator: Returning migration failed."), std::string::npos);
  EXPECT_NE(run.err.find("the logs of this run are " + root +
                         "/private/var/mobile/Library/Logs/Velotrix/installer.log and " + root +
                         "/private/var/mobile/Library/Logs/Transhift/migration.log"),
            std::string::npos)
      << run.err;
  EXPECT_TRUE(test::Exists(trapped + "/Documents/notes.txt")) << "its data stays where it was";
  EXPECT_TRUE(test::Exists(root + "/private/var/mobile/Library/Caches/com.tarsel.velotrix.plist"));
  EXPECT_FALSE(test::Exists(root + kVersionRecord));
  const sample::ManifestReport report = sample::CheckMigratedDevice(root);
  EXPECT_EQ(report.applicationsInstalled, 2u) << Describe(report);
}

enum class Cut { Failure, Crash, PowerCut, PartialPowerCut };

// Which mutating calls a sweep cuts: every stride-th from `first`, or, for devices whose
// every course (a VPN plug-in, a shared group, a safe harbor) makes a full sweep too long,
// the first call made at each distinct place in the code, so that no call site goes uncut.
struct Sweep {
  int stride = 1;
  int first = 1;
  bool callSites = false;
  // The resumed run is cut too, at a mutation of its own, before the clean run.
  bool secondCut = false;
};

// The mutation numbers at which a clean run of the device first reaches each call site.
std::vector<int> FirstCallAtEverySite(const std::string& pristine, const std::string& work) {
  const std::string root = work + "/listing";
  std::filesystem::copy(pristine, root, std::filesystem::copy_options::recursive |
                                            std::filesystem::copy_options::copy_symlinks);
  test::RunOptions listing;
  listing.environment["VX_FAULT_SITES"] = work + "/sites";
  auto run = Migrate(root, listing);
  EXPECT_EQ(run.exitStatus, 0) << run.describe();
  std::filesystem::remove_all(root);
  std::filesystem::remove_all(root + "-tmp");
  return test::FirstCallAtEachSite(test::ReadFaultSites(work + "/sites"));
}

// One application's migration, cut off at every mutating call in turn (by a fault, by the
// process ending there, or by a power cut that loses what was not synced), and then run
// again cleanly: the second run must finish the job.
void CutOffAtEveryStep(Cut how, int apps = 1, Sweep sweep = {}) {
  const bool crash = how != Cut::Failure;
  const char* action[] = {"fail", "crash", "power-cut", "power-cut-partial"};
  test::TempDir t(test::SweepScratch());
  const std::string pristine = t / "pristine";
  sample::SampleDeviceOptions options;
  options.apps = apps;
  options.dataBytes = 4096;
  std::string problem;
  ASSERT_TRUE(sample::WriteSampleDevice(pristine, options, &problem)) << problem;
  // Every file of the old containers, wherever the runs put it: its new place, or the
  // recovery area.
  const test::FileContents kept =
      test::ContentsOfFiles(pristine + "/private/var/mobile/Applications");

  const std::vector<int> sites =
      sweep.callSites ? FirstCallAtEverySite(pristine, t.path()) : std::vector<int>{};
  size_t nextSite = 0;
  int completedAt = 0;
  // The last cut of a power-cut sweep comes as the finished run exits (-1), before the
  // kernel wrote back what it left unsynced.
  bool exitCut = how == Cut::PowerCut || how == Cut::PartialPowerCut;
  auto nextCut = [&](int previous) {
    int n = 0;
    if (sweep.callSites) {
      n = nextSite < sites.size() ? sites[nextSite++] : 0;
    } else if (completedAt == 0) {
      n = previous == 0 ? sweep.first : previous + sweep.stride;
      n = n < 20000 ? n : 0;
    }
    if (n == 0 && std::exchange(exitCut, false)) n = -1;
    return n;
  };
  int placeholderOutcomes = 0;
  int putBack = 0;
  for (int n = nextCut(0); n != 0; n = nextCut(n)) {
    const std::string root = t / ("run-" + std::to_string(n));
    std::filesystem::copy(pristine, root, std::filesystem::copy_options::recursive |
                                              std::filesystem::copy_options::copy_symlinks);
    test::RunOptions faulty;
    faulty.environment["VX_FAULT_AT"] = n > 0 ? std::to_string(n) : "exit";
    faulty.environment["VX_FAULT_ACTION"] = action[static_cast<int>(how)];
    faulty.environment["VX_FAULT_ERRNO"] = "EIO";
    auto cut = Migrate(root, faulty);
    const bool faultHit = cut.err.find("vx fault seam:") != std::string::npos;
    // A device whose run is recorded as done is not migrated again: it must be whole now.
    const auto expectCutOff = [&](const test::RunResult& run, const std::string& at) {
      ASSERT_EQ(run.signal, SIGKILL) << at << "\n" << run.describe();
      if (test::Exists(root + kVersionRecord)) {
        const sample::ManifestReport done = sample::CheckMigratedDevice(root);
        ASSERT_TRUE(done.ok()) << "recorded done before a cut at " << at << ": " << Describe(done);
      }
    };
    if (!faultHit) {
      ASSERT_EQ(cut.exitStatus, 0) << "n=" << n << "\n" << cut.describe();
      completedAt = n;
    } else if (crash) {
      ASSERT_NO_FATAL_FAILURE(expectCutOff(cut, "n=" + std::to_string(n)));
      if (sweep.secondCut) {
        // Somewhere early in the resumed run, which has less left to do.
        const int m = 1 + (n > 0 ? n : 1) * 7919 % 97;
        faulty.environment["VX_FAULT_AT"] = std::to_string(m);
        auto again = Migrate(root, faulty);
        if (again.err.find("vx fault seam:") != std::string::npos) {
          ASSERT_NO_FATAL_FAILURE(
              expectCutOff(again, "n=" + std::to_string(n) + ", then m=" + std::to_string(m)));
        }
      }
    } else {
      // A failure either ends the run with status 1 and a logged reason, or is one the run
      // may take in its stride (a note it could not write).
      ASSERT_TRUE(cut.exitStatus == 0 || cut.exitStatus == 1) << "n=" << n << "\n" << cut.describe();
      if (cut.exitStatus == 1) {
        EXPECT_NE(cut.err.find("VXAppMigrator: "), std::string::npos) << "n=" << n << cut.describe();
        // A failed run must not pass for a finished one, even when it emptied the old root.
        // (A plug-in that went on past a failure of its own may have recorded the version:
        // the host's verdict then says how many it logged.)
        if (cut.err.find(" logged; see the logs.") == std::string::npos) {
          EXPECT_FALSE(test::Exists(root + kVersionRecord)) << "n=" << n;
        }
      }
    }
    // The next clean run finishes the job. After a failure it may itself report the
    // container whose installation the failure spoiled (its data safe, the container gone),
    // and then the run after it finds nothing left.
    auto clean = Migrate(root);
    if (!crash && clean.exitStatus == 1) clean = Migrate(root);
    // Two cuts while one container migrates set it aside as one that kills runs; the command
    // that puts it back brings it home.
    if (sweep.secondCut && clean.exitStatus == 1 &&
        clean.err.find("Two runs in a row died") != std::string::npos) {
      auto listed = Host({"recover", "--root", root, "--json"});
      for (const auto& entry : nlohmann::json::parse(listed.out)) {
        if (entry["course"] != "CrashedTwice") continue;
        clean = Host({"recover", "--root", root, entry["name"]});
        ASSERT_EQ(clean.exitStatus, 0) << "n=" << n << "\n" << clean.describe();
        ++putBack;
      }
    }
    ASSERT_EQ(clean.exitStatus, 0) << "after a cut at n=" << n << "\n" << clean.describe();
    ASSERT_FALSE(test::Exists(root + "/private/var/mobile/Applications")) << "n=" << n;
    sample::ManifestReport report = sample::CheckMigratedDevice(root);
    // A crash only ever delays the migration. A failure while the bundle is staged or
    // installed ends its container's migration with the data safe, the placeholder kept and
    // the bundle in the recovery area, from where one command installs it for real (and then
    // its group containers, which wait for it).
    if (crash || report.placeholdersOnly.empty()) {
      ASSERT_TRUE(report.ok()) << "after a cut at n=" << n << ": " << Describe(report);
      ASSERT_TRUE(report.placeholdersOnly.empty()) << "n=" << n << ": " << Describe(report);
    } else {
      ++placeholderOutcomes;
      for (const std::string& identifier : report.placeholdersOnly) {
        auto recovered = Host({"recover", "--root", root, identifier});
        ASSERT_EQ(recovered.exitStatus, 0) << "n=" << n << "\n" << recovered.describe();
      }
      report = sample::CheckMigratedDevice(root);
      ASSERT_TRUE(report.ok() && report.placeholdersOnly.empty())
          << "after recovery at n=" << n << ": " << Describe(report);
    }
    ASSERT_EQ(test::FirstLostContent(kept, test::ContentsOfFiles(root)), "") << "n=" << n;
    std::filesystem::remove_all(root);
    std::filesystem::remove_all(root + "-tmp");
  }
  ::testing::Test::RecordProperty("mutations", completedAt - 1);
  ::testing::Test::RecordProperty("placeholderOutcomes", placeholderOutcomes);
  if (sweep.secondCut) {
    EXPECT_GT(putBack, 0) << "no second cut set a container aside";
  }
  if (sweep.callSites) {
    EXPECT_GT(sites.size(), 10u) << "the run mutates from more than a handful of places";
  } else {
    EXPECT_GT(completedAt, 10) << "the run makes more than a handful of mutations";
  }
  if (!crash) {
    EXPECT_GT(placeholderOutcomes, 0) << "no failure reached the bundle's installation";
  }
}

TEST(SampleDeviceCrashTest, EveryMutationCutOffByACrashIsRecovered) { CutOffAtEveryStep(Cut::Crash); }

TEST(SampleDeviceCrashTest, EveryMutationFailingIsRecoveredByTheNextRun) {
  CutOffAtEveryStep(Cut::Failure);
}

TEST(SampleDeviceCrashTest, FailuresAcrossEveryCourseLoseNoByte) {
  CutOffAtEveryStep(Cut::Failure, 7, {.callSites = true});
}

TEST(SampleDeviceCrashTest, CrashesAcrossEveryCourseLoseNoByte) {
  CutOffAtEveryStep(Cut::Crash, 7, {.callSites = true});
}

// Seven applications take every course. The whole sweep (`make test-power`, which sets
// VX_POWER_SWEEP=full) cuts the power at every one of their mutations, VX_POWER_SWEEP=N at
// every Nth; otherwise the first call of every call site is cut.
Sweep PowerSweep() {
  const char* sweep = std::getenv("VX_POWER_SWEEP");
  if (sweep && std::string(sweep) == "full") return {};
  if (sweep && std::atoi(sweep) > 0) return {.stride = std::atoi(sweep)};
  return {.callSites = true};
}

TEST(SampleDevicePowerCutTest, EveryByteSurvivesAPowerCutAtAnyMutation) {
  CutOffAtEveryStep(Cut::PowerCut, 7, PowerSweep());
}

TEST(SampleDevicePowerCutTest, EveryByteSurvivesAPartlyWrittenDirectoryAtAnyMutation) {
  CutOffAtEveryStep(Cut::PartialPowerCut, 7, PowerSweep());
}

TEST(SampleDevicePowerCutTest, EveryByteSurvivesASecondCutInTheResumedRun) {
  Sweep sweep = PowerSweep();
  sweep.secondCut = true;
  CutOffAtEveryStep(Cut::PowerCut, 7, sweep);
}

}  // namespace
}  // namespace vx
