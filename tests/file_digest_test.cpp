// The file digest against sha256sum, and the chunking of the reader beneath it.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "support/FileDigest.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace vx {
namespace {

std::optional<std::string> Digest(const std::string& path) {
  return VXCreateSHA256Digest(FileURL::fileURLWithPath(path));
}

std::string Sha256sum(const std::string& path) {
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(("sha256sum '" + path + "'").c_str(), "r"),
                                             ::pclose);
  char hex[65] = {};
  if (!pipe || std::fscanf(pipe.get(), "%64s", hex) != 1) ADD_FAILURE() << "no sha256sum";
  return hex;
}

std::vector<size_t> Chunks(const std::string& path, bool stopAtOnce = false) {
  std::vector<size_t> sizes;
  _ReadFile(path.c_str(), [&](std::span<const uint8_t> chunk) {
    sizes.push_back(chunk.size());
    return !stopAtOnce;
  });
  return sizes;
}

TEST(FileDigestTest, MatchesSha256sumAcrossTheChunkBoundary) {
  test::TempDir tmp;
  test::WriteFile(tmp / "empty", "");
  test::WriteFile(tmp / "abc", "abc");
  EXPECT_EQ(Digest(tmp / "empty"),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(Digest(tmp / "abc"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  for (size_t size : {65535, 65536, 65537, 300001}) {
    std::string content(size, '\0');
    for (size_t i = 0; i < size; ++i) content[i] = static_cast<char>((i * 2654435761u) >> 13);
    test::WriteFile(tmp / std::to_string(size), content);
    EXPECT_EQ(Digest(tmp / std::to_string(size)), Sha256sum(tmp / std::to_string(size))) << size;
  }
  EXPECT_EQ(Chunks(tmp / "empty"), std::vector<size_t>{});
  EXPECT_EQ(Chunks(tmp / "abc"), std::vector<size_t>{3});
  EXPECT_EQ(Chunks(tmp / "65536"), std::vector<size_t>{65536});
  EXPECT_EQ(Chunks(tmp / "65537"), (std::vector<size_t>{65536, 1}));
  EXPECT_EQ(Chunks(tmp / "300001", true), std::vector<size_t>{65536});

  // A size of 0 is not taken for an empty file: such files are read to their end.
  const std::string proc = "/proc/self/cmdline";
  std::vector<size_t> chunks = Chunks(proc);
  ASSERT_FALSE(chunks.empty());
  EXPECT_NE(Digest(proc), Digest(tmp / "empty"));
}

TEST(FileDigestTest, FailuresLogTheStepThenTheLocation) {
  test::TempDir tmp;
  test::LogCapture log;
  EXPECT_EQ(Digest(tmp / "missing"), std::nullopt);
  ASSERT_EQ(log.records().size(), 2u);
  EXPECT_EQ(log.records()[0].function, "_ReadFile");
  EXPECT_EQ(log.records()[0].message,
            "failed to open " + tmp / "missing" + " : No such file or directory");
  EXPECT_EQ(log.records()[1].function, "VXCreateSHA256Digest");
  EXPECT_EQ(log.records()[1].message,
            "Failed to read " + tmp / "missing" + " : No such file or directory");

  test::WriteFile(tmp / "dir/entry", "x");
  EXPECT_EQ(Digest(tmp / "dir"), std::nullopt);
  EXPECT_TRUE(log.contains("failed to open " + tmp / "dir" + " : Is a directory", 3));
  log.clear();
  // A file that shrinks under the reader is not read whole.
  test::WriteFile(tmp / "shrinking", std::string(200000, 's'));
  EXPECT_FALSE(_ReadFile((tmp / "shrinking").c_str(), [&](auto) {
    return ::truncate((tmp / "shrinking").c_str(), 10) == 0;
  }));
  EXPECT_TRUE(log.contains("read failed for " + tmp / "shrinking" + ", got 0 bytes", 3));
  // Nor is a digest made of it: a file of /sys ends, as a file that shrank does, long before
  // the size it gave.
  const char* shorter = "/sys/devices/system/cpu/online";
  struct stat st {};
  if (::stat(shorter, &st) == 0 && S_ISREG(st.st_mode) && st.st_size == 4096) {
    EXPECT_EQ(Digest(shorter), std::nullopt);
  } else {
    ADD_FAILURE() << "no file of /sys to stand for one that shrinks: " << shorter;
  }
  log.clear();
  // A consumer that stops the read fails it without a line of the reader's own.
  EXPECT_FALSE(_ReadFile((tmp / "dir/entry").c_str(), [](auto) { return false; }));
  EXPECT_TRUE(log.records().empty());
}

}  // namespace
}  // namespace vx
