// Bundle attributes are a persisted format: these tests read and write the raw bytes.
#include <gtest/gtest.h>
#include <sys/xattr.h>

#include <cerrno>
#include <cstring>

#include "filemanager/VXFileManager.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace vx {
namespace {

const char* const kPlaceholderEA = "user.com.tarsel.velotrixd.placeholder";
const char* const kInstallTypeEA = "user.com.tarsel.velotrixd.installType";

std::string RawAttribute(const std::string& path, const char* name) {
  char buffer[64];
  ssize_t n = ::lgetxattr(path.c_str(), name, buffer, sizeof buffer);
  return n < 0 ? "<none>" : std::string(buffer, static_cast<size_t>(n));
}

void SetRaw(const std::string& path, const char* name, const std::string& value) {
  ASSERT_EQ(::lsetxattr(path.c_str(), name, value.data(), value.size(), 0), 0) << strerror(errno);
}

TEST(BundleAttributesTest, PlaceholderMarkIsFourBytesJudgedBySizeOnly) {
  test::TempDir dir;
  auto& fm = VXFileManager::defaultManager();
  const std::string app = dir / "X.app";
  test::MakeDirs(app);
  const FileURL url = FileURL::fileURLWithPath(app, true);
  ASSERT_TRUE(fm.markBundleAsPlaceholder(url, nullptr));
  EXPECT_EQ(RawAttribute(app, kPlaceholderEA), std::string("\x01\x00\x00\x00", 4));
  EXPECT_TRUE(fm.bundleAtURLIsPlaceholder(url));
  SetRaw(app, kPlaceholderEA, "\xde\xad\xbe\xef");
  EXPECT_TRUE(fm.bundleAtURLIsPlaceholder(url));
  SetRaw(app, kPlaceholderEA, "\x01");
  EXPECT_FALSE(fm.bundleAtURLIsPlaceholder(url));
  SetRaw(app, kPlaceholderEA, std::string(8, '\x01'));
  EXPECT_FALSE(fm.bundleAtURLIsPlaceholder(url));

  test::LogCapture log;
  ErrorRef error;
  const FileURL missing = FileURL::fileURLWithPath(dir / "gone.app");
  ASSERT_FALSE(fm.markBundleAsPlaceholder(missing, &error));
  EXPECT_EQ(error->code(), 4);
  EXPECT_EQ(*error->localizedDescription(),
            "Could't set placeholder EA on \"" + missing.path() + "\": No such file or directory");
  EXPECT_TRUE(error->underlyingError()->isPOSIX(ENOENT));
  EXPECT_EQ(log.count("Could't set placeholder EA", 3), 1u);
}

TEST(BundleAttributesTest, InstallTypeKeepsAllSixtyFourBitsAndRejectsOtherSizes) {
  test::TempDir dir;
  auto& fm = VXFileManager::defaultManager();
  const std::string app = dir / "X.app";
  test::MakeDirs(app);
  const FileURL url = FileURL::fileURLWithPath(app, true);
  ErrorRef error;
  EXPECT_EQ(fm.installTypeForBundle(url, &error), 0u);
  ASSERT_TRUE(fm.setInstallType(uint64_t{1} << 40, url, &error));
  EXPECT_EQ(RawAttribute(app, kInstallTypeEA), std::string("\0\0\0\0\0\x01\0\0", 8));
  EXPECT_EQ(fm.installTypeForBundle(url, &error), uint64_t{1} << 40);
  EXPECT_FALSE(error);

  SetRaw(app, kInstallTypeEA, std::string("\x06\0\0\0", 4));
  EXPECT_FALSE(fm.installTypeForBundle(url, &error));
  EXPECT_EQ(*error->localizedDescription(),
            "getxattr for installType EA on " + app + " returned 4 (expected 8)");
  EXPECT_FALSE(error->underlyingError());
  SetRaw(app, kInstallTypeEA, std::string(16, '\x06'));
  EXPECT_FALSE(fm.installTypeForBundle(url, &error));
  EXPECT_EQ(*error->localizedDescription(),
            "Couldn't get installType EA from \"" + app + "\": " + strerror(ERANGE));

  // procfs keeps no user attributes: that must read as a failure, not as "no install type".
  char probe;
  if (::lgetxattr("/proc/version", kInstallTypeEA, &probe, 1) < 0 && errno == EOPNOTSUPP) {
    const FileURL procFile = FileURL::fileURLWithPath("/proc/version");
    EXPECT_FALSE(fm.installTypeForBundle(procFile, &error));
    EXPECT_TRUE(error->underlyingError()->isPOSIX(EOPNOTSUPP));
    EXPECT_FALSE(fm.bundleAtURLIsPlaceholder(procFile));
  }
}

TEST(BundleAttributesTest, ProtectionClassPredicateAndSymlinkRefusal) {
  test::TempDir dir;
  auto& fm = VXFileManager::defaultManager();
  test::WriteFile(dir / "f", "x");
  const FileURL file = FileURL::fileURLWithPath(dir / "f");
  int32_t current = -1;
  ErrorRef error;
  ASSERT_TRUE(fm.setDataProtectionClassOfItemAtURL(file, 4, nullptr, &error));
  int32_t seen = -1;
  auto decline = [&](int32_t c) { seen = c; return false; };
  EXPECT_TRUE(fm.setDataProtectionClassOfItemAtURL(file, 2, decline, &error));
  ASSERT_TRUE(fm.dataProtectionClassOfItemAtURL(file, &current, &error));
  EXPECT_EQ(seen, 4);
  EXPECT_EQ(current, 4);
  EXPECT_TRUE(fm.setDataProtectionClassOfItemAtURL(file, 2, [](int32_t) { return true; }, &error));
  ASSERT_TRUE(fm.dataProtectionClassOfItemAtURL(file, &current, &error));
  EXPECT_EQ(current, 2);
  EXPECT_FALSE(error);

  test::MakeSymlink(dir / "f", dir / "link");
  const FileURL link = FileURL::fileURLWithPath(dir / "link");
  EXPECT_FALSE(fm.dataProtectionClassOfItemAtURL(link, &current, &error));
  EXPECT_EQ(error->domain(), VXPOSIXErrorDomain);
  EXPECT_EQ(*error->localizedDescription(),
            "Failed to open " + link.path() + " : " + strerror(ELOOP));
}

}  // namespace
}  // namespace vx
