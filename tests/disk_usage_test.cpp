// The bulk directory listing and the tree measurement built on it, checked against du.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "filemanager/VXFileManager.h"
#include "platform/DirHarvest.h"
#include "platform/UniqueFd.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/VerboseLog.h"

namespace vx {
namespace {

using test::WriteFile;

// Harvests names only, through a buffer of `size` bytes: what statx says is checked by the
// measurement against du below.
std::vector<std::string> HarvestNames(const std::string& dir, size_t size) {
  UniqueFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY));
  HarvestCursor cursor(fd.get());
  const HarvestRequest request{.common = kHarvestCommonName};
  std::vector<unsigned char> buffer(size);
  std::vector<std::string> names;
  for (int n; (n = dirharvest(cursor, request, buffer.data(), size)) > 0;) {
    for (const unsigned char* p = buffer.data(); n-- > 0;) {
      uint32_t length;
      HarvestNameRef ref;
      std::memcpy(&length, p, sizeof length);
      std::memcpy(&ref, p + 4, sizeof ref);
      names.emplace_back(reinterpret_cast<const char*>(p + 4 + ref.offset), ref.length - 1);
      p += length;
    }
  }
  EXPECT_EQ(dirharvest(cursor, request, buffer.data(), size), 0);
  std::sort(names.begin(), names.end());
  return names;
}

TEST(DirHarvestTest, BatchesKeepPendingEntries) {
  test::TempDir tmp;
  std::vector<std::string> expected;
  for (int i = 0; i < 300; ++i) {
    expected.push_back(std::string(i % 200 + 1, 'n') + std::to_string(i));
    WriteFile(tmp / expected.back(), "");
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(HarvestNames(tmp.path(), 1024), expected);  // "." and ".." never listed
  // Too small for a single record: an error, and the entry is still there afterwards.
  UniqueFd fd(::open(tmp.path().c_str(), O_RDONLY | O_DIRECTORY));
  HarvestCursor cursor(fd.get());
  unsigned char buffer[512];
  EXPECT_EQ(dirharvest(cursor, {.common = kHarvestCommonName}, buffer, 8), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_GT(dirharvest(cursor, {.common = kHarvestCommonName}, buffer, sizeof buffer), 0);
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
  WriteFile(root + "/small", "x");
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
  for (int i = 0; i < 1500; ++i) WriteFile(root + "/many/entry" + std::to_string(i), "m");

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

  // Root reads any directory, so as root the measurement runs in a child without privileges.
  auto measure = [&] {
    test::LogCapture log;
    return Measure(root) == static_cast<uint64_t>(st.st_blocks) * 512 &&
           log.contains("Failed to open directory " + root + "/closed : Permission denied", 3) &&
           log.contains(
               "Got error Permission denied while processing entry 0 in " + root + "/noSearch", 3);
  };
  if (!test::RunningAsRoot()) {
    EXPECT_TRUE(measure());
    return;
  }
  EXPECT_EXIT(
      {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) _exit(2);
        _exit(measure() ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace vx
