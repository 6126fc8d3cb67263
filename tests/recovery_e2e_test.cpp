// From outside, the courses that used to delete user bytes: a container whose bundle cannot be
// read, and two old containers of one application. Every byte stays on the device, `recover`
// finds it, and deleting it takes a second word.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "host/sample/ManifestCheck.h"
#include "host/sample/SampleDevice.h"
#include "support/RunProgram.h"
#include "support/TempDir.h"

namespace vx {
namespace {

namespace fs = std::filesystem;
const std::string kHost = std::string(VX_BIN_DIR) + "/vxmigrate";

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
  sample::SampleDeviceOptions options;
  options.apps = 1;
  options.dataBytes = 4096;
  std::string problem;
  ASSERT_TRUE(sample::WriteSampleDevice(root, options, &problem)) << problem;
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

}  // namespace
}  // namespace vx
