// From outside, the courses that used to delete user bytes: a container whose bundle cannot be
// read, and two old containers of one application. Every byte stays on the device, `recover`
// finds it, and deleting it takes a second word.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "filemanager/VXFileManager.h"
#include "host/sample/ManifestCheck.h"
#include "host/sample/SampleDevice.h"
#include "support/FaultSites.h"
#include "support/RunProgram.h"
#include "support/SmallDevice.h"
#include "support/TempDir.h"
#include "support/TestDevice.h"
#include "support/TreeDigest.h"

namespace vx {
namespace {

namespace fs = std::filesystem;
const std::string kHost = std::string(VX_BIN_DIR) + "/vxmigrate";
const std::string kArea = "/private/var/mobile/Library/Velotrix/Recovered";

test::RunResult Host(const std::vector<std::string>& args) {
  test::RunOptions options;
  options.environment["TMPDIR"] = "/tmp";
  return test::RunProgram(kHost, args, options);
}

// Every regular file below `dir` whose content is `content`.
std::vector<std::string> FilesHolding(const std::string& dir, const std::string& content) {
  std::vector<std::string> found;
  for (const auto& entry : fs::recursive_directory_iterator(dir)) {
    if (entry.is_regular_file() && !entry.is_symlink() && test::ReadFile(entry.path()) == content) {
      found.push_back(entry.path());
    }
  }
  return found;
}

TEST(RecoveryEndToEndTest, CorruptBundleAndTwoContainersOfOneApplicationLoseNothing) {
  test::TempDir t;
  const std::string root = t / "device";
  ASSERT_TRUE(test::WriteSmallDevice(root, 1, 4096));
  const std::string oldRoot = root + "/private/var/mobile/Applications";
  std::string first;
  for (const auto& entry : fs::directory_iterator(oldRoot)) {
    if (entry.is_directory()) first = entry.path();
  }
  ASSERT_FALSE(first.empty());
  // A second container of the same application, with data of its own; and a container
  // whose only bundle has an unreadable information list.
  const std::string second = oldRoot + "/00000000-0000-4000-8000-000000000002";
  fs::copy(first, second, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  test::WriteFile(first + "/Documents/only-in-first", "first's own words");
  test::WriteFile(second + "/Documents/only-in-second", "second's own words");
  const std::string corrupt = oldRoot + "/00000000-0000-4000-8000-000000000003";
  test::WriteFile(corrupt + "/Broken.app/Info.plist", "<plist><dict><key>");
  test::WriteFile(corrupt + "/Documents/diary", "dear diary");

  auto run = Host({"migrate", "--root", root, "--no-progress", "--quiet"});
  // The second container's bundle may not replace the first's: it waits in the area.
  EXPECT_EQ(run.exitStatus, 1) << run.describe();
  EXPECT_FALSE(test::Exists(oldRoot)) << "the old root is emptied as before";
  for (const char* words : {"first's own words", "second's own words", "dear diary"}) {
    EXPECT_EQ(FilesHolding(root + "/private/var", words).size(), 1u) << words;
  }

  auto listed = Host({"recover", "--root", root, "--json"});
  ASSERT_EQ(listed.exitStatus, 0) << listed.describe();
  const auto entries = nlohmann::json::parse(listed.out);
  // Each of the second container's data items took the place of the first's, which went to
  // the area item by item.
  std::multiset<std::string> courses;
  std::string corruptEntry;
  for (const auto& entry : entries) {
    courses.insert(entry.at("course").get<std::string>());
    if (entry.at("course") == "NoReadableBundle") corruptEntry = entry.at("name");
  }
  EXPECT_EQ(courses.count("NoReadableBundle"), 1u) << listed.out;
  EXPECT_GE(courses.count("GaveWay"), 1u) << listed.out;
  EXPECT_EQ(courses.count("IdentifierTaken"), 1u) << listed.out;
  EXPECT_EQ(courses.size(), 2 + courses.count("GaveWay")) << listed.out;
  // A corrupt bundle is nothing to install; deleting needs the confirmation.
  EXPECT_EQ(Host({"recover", "--root", root, corruptEntry}).exitStatus, 1);
  EXPECT_EQ(Host({"recover", "--root", root, "--purge", corruptEntry}).exitStatus, 2);
  EXPECT_EQ(FilesHolding(root + "/private/var", "dear diary").size(), 1u);
  EXPECT_EQ(Host({"recover", "--root", root, "--purge", "--yes", corruptEntry}).exitStatus, 0);
  EXPECT_TRUE(FilesHolding(root + "/private/var", "dear diary").empty());

  const sample::ManifestReport report = sample::CheckMigratedDevice(root);
  EXPECT_EQ(report.applicationsInstalled, 1u);
}

// A sample device of `apps` applications whose application `name` fails its installation:
// its container's "Staging" is a link to `outside`, a directory off the device. The
// migration sends the container to the recovery area; the entry's directory is returned.
// What has no place in the current layout: items beside a placeholder bundle (its store data
// among them), an item the migration does not know beside a real one, an application's own
// "Staging", a file in the old root. The plan names each; the run finishes, and every file
// the containers held is on the device afterwards, these in the recovery area.
TEST(RecoveryEndToEndTest, WhatHasNoPlaceGoesToTheRecoveryAreaAndTheRunFinishes) {
  test::TempDir t;
  const std::string root = t / "device";
  ASSERT_TRUE(test::WriteSmallDevice(root, 3, 1024));
  const std::string apps = root + "/private/var/mobile/Applications";
  std::vector<std::string> containers, bundles;
  for (const auto& entry : fs::directory_iterator(apps)) {
    if (!entry.is_directory()) continue;
    for (const auto& item : fs::directory_iterator(entry.path())) {
      if (item.path().extension() != ".app") continue;
      containers.push_back(entry.path());
      bundles.push_back(item.path());
    }
  }
  ASSERT_GE(containers.size(), 3u);
  ASSERT_TRUE(VXFileManager::defaultManager().markBundleAsPlaceholder(
      FileURL::fileURLWithPath(bundles[0], true), nullptr));
  const std::map<std::string, std::string> planted{
      {containers[0] + "/Inbox/letter.eml", "a letter"},
      {containers[0] + "/top.txt", "at the top"},
      {containers[1] + "/Unknown/kept.bin", "unknown to the migration"},
      {containers[2] + "/Staging/draft.txt", "the application's own staging"},
      {apps + "/stray.txt", "a stray file"}};
  for (const auto& [path, content] : planted) test::WriteFile(path, content);
  const test::FileContents before = test::ContentsOfFiles(apps);

  auto planned = Host({"plan", "--root", root, "--json"});
  ASSERT_EQ(planned.exitStatus, 0) << planned.describe();
  const auto plan = nlohmann::json::parse(planned.out);
  std::map<std::string, nlohmann::json> entries;
  for (const auto& entry : plan["plugins"][0]["entries"]) entries[entry["path"]] = entry;
  using Names = std::vector<std::string>;
  const Names left = entries[containers[0]]["leftOvers"];
  EXPECT_TRUE(std::count(left.begin(), left.end(), "Inbox") &&
              std::count(left.begin(), left.end(), "top.txt"))
      << entries[containers[0]];
  EXPECT_EQ(entries[containers[1]]["leftOvers"].get<Names>(), Names{"Unknown"});
  EXPECT_EQ(entries[containers[2]]["leftOvers"].get<Names>(), Names{"Staging"});
  EXPECT_EQ(entries[apps + "/stray.txt"]["fate"], "recover");

  auto run = Host({"migrate", "--root", root, "--no-progress", "--quiet"});
  EXPECT_EQ(run.exitStatus, 0) << run.describe();
  EXPECT_TRUE(test::Exists(
      root + "/private/var/mobile/Library/Velotrix/AppMigratorLastSystemVersion.plist"));
  EXPECT_FALSE(test::Exists(apps));
  EXPECT_EQ(test::FirstLostContent(before, test::ContentsOfFiles(root)), "");
  for (const auto& [path, content] : planted) {
    EXPECT_EQ(FilesHolding(root + kArea, content).size(), 1u) << path;
  }
}

std::string DeviceWithAFailedInstallation(const std::string& root, int apps, const std::string& name,
                                          const std::string& outside) {
  EXPECT_TRUE(test::WriteSmallDevice(root, apps, 1024));
  test::WriteFile(outside + "/theirs", "not the device's");
  for (const auto& entry : fs::directory_iterator(root + "/private/var/mobile/Applications")) {
    if (test::Exists(entry.path() / (name + ".app"))) {
      test::MakeSymlink(outside, entry.path() / "Staging");
    }
  }
  auto run = Host({"migrate", "--root", root, "--no-progress", "--quiet"});
  EXPECT_EQ(run.exitStatus, 1) << run.describe();
  const std::string area = root + kArea;
  for (const auto& entry : fs::directory_iterator(area)) return entry.path();
  ADD_FAILURE() << "nothing went to the recovery area";
  return area;
}

// Links planted in the container lead nowhere: "Staging", "Payload" and a bundle, each a link
// off the device. A recovery refused touches nothing; one that installs leaves the outside as
// it was, keeps the entry while it holds a file of the user's, and says so when asked again.
TEST(RecoveryEndToEndTest, PlantedLinksLeadNowhereAndARecoveryCanBeAskedTwice) {
  test::TempDir t;
  const std::string root = t / "device";
  const std::string outside = t / "outside";
  const std::string entry = DeviceWithAFailedInstallation(root, 1, "Atlas", outside);
  const std::string name = fs::path(entry).filename();
  std::string container;
  for (const auto& item : fs::directory_iterator(entry + "/Content")) container = item.path();
  ASSERT_TRUE(test::Exists(container + "/Atlas.app/Info.plist"));
  test::MakeDirs(outside + "/Atlas.app");
  test::WriteFile(outside + "/Atlas.app/Info.plist", "outside's");
  test::MakeSymlink(outside + "/Atlas.app", container + "/Other.app");

  // A twin whose only bundle lies behind a "Payload" link.
  const std::string twin = fs::path(entry).parent_path() / "com.example.atlas.twin00";
  fs::copy(entry, twin, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  const std::string twinContainer = twin + "/Content/" + fs::path(container).filename().string();
  fs::remove_all(twinContainer + "/Atlas.app");
  fs::remove(twinContainer + "/Staging");
  test::MakeDirs(twinContainer + "/Staging");
  test::MakeSymlink(outside, twinContainer + "/Staging/Payload");
  // A file of the user's the installation will not take.
  test::WriteFile(entry + "/Content/zz-left/note", "left behind");

  const std::string outsideBefore = test::TreeDigest(outside);
  const std::string twinBefore = test::TreeDigest(twin);
  EXPECT_EQ(Host({"recover", "--root", root, "com.example.atlas.twin00"}).exitStatus, 1);
  EXPECT_EQ(test::TreeDigest(twin), twinBefore) << "a refused recovery touches nothing";

  auto recovered = Host({"recover", "--root", root, name});
  EXPECT_EQ(recovered.exitStatus, 0) << recovered.describe();
  EXPECT_EQ(test::TreeDigest(outside), outsideBefore);
  EXPECT_EQ(test::ReadFile(entry + "/Content/zz-left/note"), "left behind");
  const sample::ManifestReport report = sample::CheckMigratedDevice(root);
  EXPECT_TRUE(report.ok() && report.placeholdersOnly.empty() && report.applicationsInstalled == 1);

  auto again = Host({"recover", "--root", root, name});
  EXPECT_EQ(again.exitStatus, 0) << again.describe();
  EXPECT_NE(again.out.find("already recovered"), std::string::npos) << again.describe();
  EXPECT_EQ(test::ReadFile(entry + "/Content/zz-left/note"), "left behind");
  EXPECT_EQ(test::TreeDigest(outside), outsideBefore);
}

// `recover` cut off by a crash, then run again: the application is installed for real, its
// group's files are in its new group container, the entry is gone, nothing is lost, and
// `migrate` agrees. Cut at the first call of every place in the code that mutates, and at the
// start of every durable write (each stage's record: many share one site); VX_POWER_SWEEP=full
// cuts every call.
TEST(RecoveryCrashTest, EveryCutOffRecoveryIsFinishedByTheNext) {
  test::TempDir t(test::SweepScratch());
  const std::string pristine = t / "pristine";
  const std::string outside = t / "outside";
  // The sixth application of a sample device is the only member of a group.
  DeviceWithAFailedInstallation(pristine, 6, "Fathom", outside);
  const std::string listing = t / "listing";
  fs::copy(pristine, listing, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  test::RunOptions sites;
  sites.environment["TMPDIR"] = "/tmp";
  sites.environment["VX_FAULT_SITES"] = t / "sites";
  ASSERT_EQ(test::RunProgram(kHost, {"recover", "--root", listing, "com.example.fathom"}, sites)
                .exitStatus,
            0);
  fs::remove_all(listing);
  const std::vector<test::MutationSite> calls = test::ReadFaultSites(t / "sites");
  std::set<int> cuts;
  for (int n : test::FirstCallAtEachSite(calls)) cuts.insert(n);
  const char* sweep = std::getenv("VX_POWER_SWEEP");
  for (const test::MutationSite& call : calls) {
    if (call.operation == "mkostemp" || (sweep && std::string(sweep) == "full")) {
      cuts.insert(call.n);
    }
  }
  cuts.insert(static_cast<int>(calls.size()) + 1);  // past the last: the run completes
  int completedAt = 0;
  for (int n : cuts) {
    const std::string root = t / ("run-" + std::to_string(n));
    fs::copy(pristine, root, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    test::RunOptions cut;
    cut.environment["TMPDIR"] = "/tmp";
    cut.environment["VX_FAULT_AT"] = std::to_string(n);
    cut.environment["VX_FAULT_ACTION"] = "crash";
    auto first = test::RunProgram(kHost, {"recover", "--root", root, "com.example.fathom"}, cut);
    if (first.err.find("vx fault seam:") == std::string::npos) {
      ASSERT_EQ(first.exitStatus, 0) << first.describe();
      completedAt = n;
    } else {
      ASSERT_EQ(first.signal, SIGKILL) << "n=" << n << "\n" << first.describe();
      auto rerun = Host({"recover", "--root", root, "com.example.fathom"});
      ASSERT_EQ(rerun.exitStatus, 0) << "n=" << n << "\n" << rerun.describe();
    }
    auto migrate = Host({"migrate", "--root", root, "--no-progress", "--quiet"});
    ASSERT_EQ(migrate.exitStatus, 0) << "n=" << n << "\n" << migrate.describe();
    const sample::ManifestReport report = sample::CheckMigratedDevice(root);
    ASSERT_TRUE(report.ok() && report.placeholdersOnly.empty()) << "n=" << n;
    ASSERT_EQ(report.applicationsInstalled, 6u) << "n=" << n;
    for (const auto& left : fs::directory_iterator(root + kArea)) {
      ASSERT_EQ(left.path().filename().string()[0], '.') << "n=" << n << ": " << left.path();
    }
    ASSERT_TRUE(fs::is_empty(root + "/private/var/mobile/Containers/Shared/AppGroup"))
        << "n=" << n << ": the old group container is emptied and gone";
    fs::remove_all(root);
  }
  EXPECT_EQ(completedAt, static_cast<int>(calls.size()) + 1);
  EXPECT_GT(cuts.size(), 20u) << "recovery mutates from more than a handful of places";
}

}  // namespace
}  // namespace vx
