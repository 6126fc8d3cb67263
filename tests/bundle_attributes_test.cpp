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

class BundleAttributesTest : public ::testing::Test {
 protected:
  void SetUp() override { test::MakeDirs(app); }
  std::string Raw(const char* name) const {
    char buffer[64];
    ssize_t n = ::lgetxattr(app.c_str(), name, buffer, sizeof buffer);
    return n < 0 ? "<none>" : std::string(buffer, static_cast<size_t>(n));
  }
  void SetRaw(const char* name, const std::string& value) {
    ASSERT_EQ(::lsetxattr(app.c_str(), name, value.data(), value.size(), 0), 0) << strerror(errno);
  }

  test::TempDir dir;
  const std::string app = dir / "X.app";
  const FileURL url = FileURL::fileURLWithPath(app, true);
  VXFileManager& fm = VXFileManager::defaultManager();
  ErrorRef error;
};

TEST_F(BundleAttributesTest, PlaceholderMarkAndInstallTypeAreExactAndSizeChecked) {
  ASSERT_TRUE(fm.markBundleAsPlaceholder(url, nullptr));
  EXPECT_EQ(Raw(kPlaceholderEA), std::string("\x01\x00\x00\x00", 4));
  EXPECT_TRUE(fm.bundleAtURLIsPlaceholder(url));
  for (const std::string& raw :
       {std::string("\xde\xad\xbe\xef"), std::string(8, '\x01'), std::string("\x01")}) {
    SetRaw(kPlaceholderEA, raw);
    EXPECT_EQ(fm.bundleAtURLIsPlaceholder(url), raw.size() == 4) << raw.size();
  }

  test::LogCapture log;
  const FileURL missing = FileURL::fileURLWithPath(dir / "gone.app");
  ASSERT_FALSE(fm.markBundleAsPlaceholder(missing, &error));
  EXPECT_EQ(error->code(), 4);
  EXPECT_EQ(*error->localizedDescription(),
            "Could't set placeholder EA on \"" + missing.path() + "\": No such file or directory");
  EXPECT_TRUE(error->underlyingError()->isPOSIX(ENOENT));
  EXPECT_EQ(log.count("Could't set placeholder EA", 3), 1u);

  // The install type keeps all sixty-four bits and refuses other sizes.
  error = nullptr;
  EXPECT_EQ(fm.installTypeForBundle(url, &error), 0u);
  ASSERT_TRUE(fm.setInstallType(uint64_t{1} << 40, url, &error));
  EXPECT_EQ(Raw(kInstallTypeEA), std::string("\0\0\0\0\0\x01\0\0", 8));
  EXPECT_EQ(fm.installTypeForBundle(url, &error), uint64_t{1} << 40);
  EXPECT_FALSE(error);

  SetRaw(kInstallTypeEA, std::string("\x06\0\0\0", 4));
  EXPECT_FALSE(fm.installTypeForBundle(url, &error));
  EXPECT_EQ(*error->localizedDescription(),
            "getxattr for installType EA on " + app + " returned 4 (expected 8)");
  EXPECT_FALSE(error->underlyingError());
  SetRaw(kInstallTypeEA, std::string(16, '\x06'));
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

TEST_F(BundleAttributesTest, ProtectionClassPredicateAndSymlinkRefusal) {
  int32_t current = -1, seen = -1;
  ASSERT_TRUE(fm.setDataProtectionClassOfItemAtURL(url, 4, nullptr, &error));
  auto decline = [&](int32_t c) { return seen = c, false; };
  EXPECT_TRUE(fm.setDataProtectionClassOfItemAtURL(url, 2, decline, &error));
  ASSERT_TRUE(fm.dataProtectionClassOfItemAtURL(url, &current, &error));
  EXPECT_EQ(std::pair(seen, current), std::pair(4, 4));
  EXPECT_TRUE(fm.setDataProtectionClassOfItemAtURL(url, 2, [](int32_t) { return true; }, &error));
  ASSERT_TRUE(fm.dataProtectionClassOfItemAtURL(url, &current, &error));
  EXPECT_EQ(current, 2);
  EXPECT_FALSE(error);

  test::MakeSymlink(app, dir / "link");
  const FileURL link = FileURL::fileURLWithPath(dir / "link");
  EXPECT_FALSE(fm.dataProtectionClassOfItemAtURL(link, &current, &error));
  EXPECT_EQ(error->domain(), VXPOSIXErrorDomain);
  EXPECT_EQ(*error->localizedDescription(),
            "Failed to open " + link.path() + " : " + strerror(ELOOP));
}

}  // namespace
}  // namespace vx
