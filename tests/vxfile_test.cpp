// vxfile from outside: the built program, its output and its exit statuses.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <sstream>

#include "filemanager/VXFileManager.h"
#include "support/RunProgram.h"
#include "support/TempDir.h"

namespace vx {
namespace {

test::RunResult Vxfile(const std::vector<std::string>& arguments) {
  return test::RunProgram(std::string(VX_BIN_DIR) + "/vxfile", arguments);
}

TEST(VxfileTest, DuAndDigestPrintOneValue) {
  test::TempDir tmp;
  test::MakeDirs(tmp / "tree/sub");
  test::WriteFile(tmp / "tree/sub/abc", "abc");
  test::WriteFile(tmp / "tree/big", std::string(100000, 'x'));

  auto du = Vxfile({"du", tmp / "tree"});
  ASSERT_EQ(du.exitStatus, 0) << du.describe();
  const uint64_t inProcess =
      VXFileManager::defaultManager().diskUsageForURL(FileURL::fileURLWithPath(tmp / "tree", true));
  EXPECT_EQ(du.out, std::to_string(inProcess) + "\n");
  EXPECT_GE(inProcess, 100000u);

  auto digest = Vxfile({"digest", tmp / "tree/sub/abc"});
  ASSERT_EQ(digest.exitStatus, 0) << digest.describe();
  EXPECT_EQ(digest.out, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad\n");

  auto missing = Vxfile({"digest", tmp / "none"});
  EXPECT_EQ(missing.exitStatus, 1) << missing.describe();
  EXPECT_TRUE(missing.out.empty());
  EXPECT_NE(missing.err.find(tmp / "none"), std::string::npos) << missing.err;

  test::MakeSymlink("tree/sub/abc", tmp / "link");
  auto link = Vxfile({"digest", tmp / "link"});
  EXPECT_EQ(link.exitStatus, 1) << link.describe();
  EXPECT_TRUE(link.out.empty());
  EXPECT_NE(link.err.find("is a symbolic link, which is not followed"), std::string::npos)
      << link.err;

  EXPECT_EQ(Vxfile({"digest"}).exitStatus, 2);
  EXPECT_EQ(Vxfile({"frobnicate"}).exitStatus, 2);
}

TEST(VxfileTest, ContainPrintsTheRealPathOrTheReason) {
  test::TempDir tmp;
  test::MakeDirs(tmp / "base/sub");
  test::MakeSymlink("../../outside", tmp / "base/sub/escape");

  auto inside = Vxfile({"contain", tmp / "base/sub/not-yet", tmp / "base"});
  ASSERT_EQ(inside.exitStatus, 0) << inside.describe();
  const std::string realSub = std::filesystem::canonical(tmp / "base/sub").string();
  EXPECT_EQ(inside.out, realSub + "/not-yet\n");

  auto escape = Vxfile({"contain", tmp / "base/sub/escape", tmp / "base"});
  EXPECT_EQ(escape.exitStatus, 1);
  EXPECT_NE(escape.err.find("points outside or to the base"), std::string::npos) << escape.err;

  EXPECT_EQ(Vxfile({"contain", tmp / "base"}).exitStatus, 2);
}

TEST(VxfileTest, ListsInLargeWritesAndWalksWithWorkers) {
  test::TempDir tmp;
  // More than one buffer of names, so that it is written out more than once.
  std::set<std::string> names;
  for (int i = 0; i < 6500; ++i) {
    const std::string name = std::to_string(i) + std::string(static_cast<size_t>(100 + i % 150), 'n');
    names.insert(name);
    test::WriteFile(tmp / ("dir/" + name), "");
  }
  test::WriteFile(tmp / "dir/sub/inner", "inner");
  test::MakeSymlink("sub", tmp / "dir/link");
  auto lines = [](const std::string& out) {
    std::multiset<std::string> result;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) result.insert(line);
    return result;
  };
  auto ls = Vxfile({"ls", tmp / "dir"});
  ASSERT_EQ(ls.exitStatus, 0) << ls.describe();
  std::multiset<std::string> expected(names.begin(), names.end());
  expected.insert("sub");
  auto skipping = Vxfile({"ls", "--skip-symlinks", tmp / "dir"});
  EXPECT_EQ(lines(skipping.out), expected);
  expected.insert("link");
  EXPECT_EQ(lines(ls.out), expected);
  auto missing = Vxfile({"ls", tmp / "none"});
  EXPECT_EQ(missing.exitStatus, 1);
  EXPECT_NE(missing.err.find("_IterateDirectory for " + tmp / "none"), std::string::npos);

  const uint64_t inProcess =
      VXFileManager::defaultManager().diskUsageForURL(FileURL::fileURLWithPath(tmp / "dir", true));
  EXPECT_EQ(Vxfile({"du", "-j", "3", tmp / "dir"}).out, std::to_string(inProcess) + "\n");
  ASSERT_EQ(Vxfile({"cp", "-j", "2", tmp / "dir", tmp / "copy"}).exitStatus, 0);
  EXPECT_EQ(test::ReadFile(tmp / "copy/link/inner"), "inner");
  EXPECT_EQ(Vxfile({"rm", "-j", "2", tmp / "copy", tmp / "none"}).exitStatus, 0);
  EXPECT_FALSE(test::Exists(tmp / "copy"));
  EXPECT_EQ(Vxfile({"du", "-j", "0", tmp / "dir"}).exitStatus, 2) << "at least one worker";
}

}  // namespace
}  // namespace vx
