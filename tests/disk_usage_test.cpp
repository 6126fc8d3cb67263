// The bulk directory listing and the tree measurement built on it, checked against du.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>

#include "filemanager/VXFileManager.h"
#include "platform/files/DirHarvest.h"
#include "platform/files/UniqueFd.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/VerboseLog.h"

namespace vx {
namespace {

using test::WriteFile;

// Batches and what each record says are checked by the measurement against du below.
TEST(DirHarvestTest, TooSmallABufferFailsAndLosesNothing) {
  test::TempDir tmp;
  WriteFile(tmp / "only", "");
  UniqueFd fd(::open(tmp.path().c_str(), O_RDONLY | O_DIRECTORY));
  HarvestCursor cursor(fd.get());
  const HarvestRequest request{.common = kHarvestCommonName};
  unsigned char buffer[512];
  EXPECT_EQ(dirharvest(cursor, request, buffer, 8), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(dirharvest(cursor, request, buffer, sizeof buffer), 1);  // "." and ".." never listed
  EXPECT_EQ(dirharvest(cursor, request, buffer, sizeof buffer), 0);
}

// du -s -B1 counts every directory's own blocks, the root's included, on top of what the
// measurement counts; so du's total less the directories' blocks (find's %b, in 512-byte
// units) must equal the measurement exactly.
uint64_t DuWithoutDirectories(const std::string& root) {
  auto sum = [](const std::string& command) {
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
    unsigned long long total = 0, value = 0;
    while (pipe && std::fscanf(pipe.get(), "%llu%*[^\n]", &value) == 1) total += value;
    return total;
  };
  return sum("du -s -B1 '" + root + "'") - 512 * sum("find '" + root + "' -type d -printf '%b\\n'");
}

uint64_t Measure(const std::string& path) {
  return VXFileManager::defaultManager().diskUsageForURL(FileURL::fileURLWithPath(path, true));
}

TEST(DiskUsageTest, AgreesWithDu) {
  test::TempDir tmp;
  const std::string root = tmp / "root";
  WriteFile(root + "/big", std::string(300000, 'b'));
  WriteFile(root + "/zero", "");
  test::MakeDirs(root + "/empty/nested");
  // Hard links in two directories are one file; so is one whose other name is outside.
  WriteFile(root + "/a/shared", std::string(20000, 's'));
  test::MakeDirs(root + "/a/b");
  ASSERT_EQ(::link((root + "/a/shared").c_str(), (root + "/a/b/shared2").c_str()), 0);
  ASSERT_EQ(::link((root + "/big").c_str(), (tmp / "outsideName").c_str()), 0);
  // A symbolic link counts its own blocks, never its target's; a long text takes a block.
  test::MakeSymlink(root + "/big", root + "/toBig");
  test::MakeSymlink(std::string(300, 'L'), root + "/a/longText");
  // Enough entries, some with long names, to take several batches.
  for (int i = 0; i < 1500; ++i) {
    WriteFile(root + "/many/" + std::string(i % 200 + 1, 'n') + std::to_string(i), "m");
  }

  test::LogCapture log;
  test::VerboseLog verbose;
  EXPECT_EQ(Measure(root), DuWithoutDirectories(root));
  EXPECT_EQ(log.count("Skipping hardlinked file at " + root + "/a", 7), 1u);
  EXPECT_TRUE(log.messages(3).empty());

  // Roots that give nothing: empty, a file, a link to a directory.
  EXPECT_EQ(Measure(root + "/empty/nested"), 0u);
  EXPECT_EQ(Measure(root + "/big"), 0u);
  EXPECT_TRUE(log.contains("Failed to open directory " + root + "/big : Not a directory", 3));
  test::MakeSymlink(root, tmp / "link");
  EXPECT_EQ(Measure(tmp / "link"), 0u);
}

TEST(DiskUsageTest, WhatCannotBeReadIsLeftOut) {
  test::TempDir tmp;
  const std::string root = tmp / "root";
  WriteFile(root + "/kept", std::string(8192, 'k'));
  WriteFile(root + "/closed/hidden", std::string(50000, 'h'));
  WriteFile(root + "/noSearch/unseen", std::string(50000, 'u'));
  struct stat st {};
  ASSERT_EQ(::stat((root + "/kept").c_str(), &st), 0);
  ASSERT_EQ(::chmod(tmp.path().c_str(), 0755) + ::chmod((root + "/closed").c_str(), 0), 0);
  ASSERT_EQ(::chmod((root + "/noSearch").c_str(), 0644), 0);  // listable, not searchable

  const auto measuredRightly = [&] {
    test::LogCapture log;
    return Measure(root) == static_cast<uint64_t>(st.st_blocks) * 512 &&
           log.contains("Failed to open directory " + root + "/closed : Permission denied", 3) &&
           log.contains(
               "Got error Permission denied while processing entry 0 in " + root + "/noSearch", 3);
  };
  // Root reads any directory, so the measurement runs in a child that gives up root's rights.
  EXPECT_EXIT(
      {
        if (test::RunningAsRoot() && (::setgid(65534) != 0 || ::setuid(65534) != 0)) _exit(2);
        _exit(measuredRightly() ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace vx
