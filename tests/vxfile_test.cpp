// vxfile from outside: the built program, its output and its exit statuses.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

// A path through it is half as long again as the longest the kernel takes (one-letter
// names): deep enough that no walk may name a directory from the top, shallow enough to
// stay quick under sanitizers.
constexpr int kDeep = 3000;

// A chain of kDeep directories "d" under `top` and a file "leaf" at the bottom, linked as
// "link" too, each level made from the descriptor of the one above: no path to it could be
// given.
void MakeDeepChain(const std::string& top, const std::string& leaf) {
  ASSERT_EQ(::mkdir(top.c_str(), 0755), 0);
  int fd = ::open(top.c_str(), O_RDONLY | O_DIRECTORY);
  for (int i = 0; i < kDeep && fd >= 0; ++i) {
    ASSERT_EQ(::mkdirat(fd, "d", 0755), 0) << i;
    const int next = ::openat(fd, "d", O_RDONLY | O_DIRECTORY);
    ::close(fd);
    fd = next;
  }
  ASSERT_GE(fd, 0);
  const int file = ::openat(fd, "leaf", O_WRONLY | O_CREAT, 0644);
  ASSERT_EQ(::write(file, leaf.data(), leaf.size()), static_cast<ssize_t>(leaf.size()));
  ::close(file);
  ASSERT_EQ(::linkat(fd, "leaf", fd, "link", 0), 0);
  ::close(fd);
}

// How many "d" levels lie under `top`, and what the bottom's "leaf" holds (empty unless
// "link" there is the same file).
std::pair<int, std::string> DeepChain(const std::string& top) {
  int fd = ::open(top.c_str(), O_RDONLY | O_DIRECTORY);
  int depth = 0;
  for (int next; fd >= 0 && (next = ::openat(fd, "d", O_RDONLY | O_DIRECTORY | O_NOFOLLOW)) >= 0;
       ++depth) {
    ::close(fd);
    fd = next;
  }
  std::string leaf(64, '\0');
  const int file = fd >= 0 ? ::openat(fd, "leaf", O_RDONLY) : -1;
  struct stat a {};
  struct stat b {};
  const bool linked = ::fstatat(fd, "leaf", &a, 0) == 0 && ::fstatat(fd, "link", &b, 0) == 0 &&
                      a.st_ino == b.st_ino;
  const ssize_t n = file >= 0 && linked ? ::read(file, leaf.data(), leaf.size()) : 0;
  leaf.resize(static_cast<size_t>(std::max<ssize_t>(0, n)));
  if (file >= 0) ::close(file);
  if (fd >= 0) ::close(fd);
  return {depth, leaf};
}

TEST(VxfileTest, CopiesMeasuresOwnsAndRemovesTreesDeeperThanAnyPath) {
  // In memory where there is such a place: a disk's journal makes thousands of levels slow,
  // and depth, not the file system, is what is tried here.
  test::TempDir tmp(test::Exists("/dev/shm") ? "/dev/shm" : "");
  MakeDeepChain(tmp / "deep", "at the bottom");
  ASSERT_FALSE(HasFatalFailure());
  test::WriteFile(tmp / "flat/leaf", "at the bottom");
  const std::string leafOnly = Vxfile({"du", tmp / "flat"}).out;

  for (const char* jobs : {"1", "2"}) {
    const std::string copy = tmp / (std::string("copy") + jobs);
    auto cp = Vxfile({"cp", "-j", jobs, tmp / "deep", copy});
    ASSERT_EQ(cp.exitStatus, 0) << cp.describe();
    EXPECT_EQ(DeepChain(copy), std::make_pair(kDeep, std::string("at the bottom"))) << jobs;
  }
  EXPECT_EQ(Vxfile({"du", tmp / "copy2"}).out, leafOnly) << "the leaf is counted";
  auto own = Vxfile({"own", "-j", "2", tmp / "copy1", std::to_string(::getuid()),
                     std::to_string(::getgid())});
  EXPECT_EQ(own.exitStatus, 0) << own.describe();

  auto rm = Vxfile({"rm", tmp / "copy1"});
  EXPECT_EQ(rm.exitStatus, 0) << rm.describe();
  rm = Vxfile({"rm", "-j", "4", tmp / "copy2"});
  EXPECT_EQ(rm.exitStatus, 0) << rm.describe();
  EXPECT_FALSE(test::Exists(tmp / "copy1"));
  EXPECT_FALSE(test::Exists(tmp / "copy2"));
}

}  // namespace
}  // namespace vx
