#include <gtest/gtest.h>

#include <cerrno>

#include "filemanager/VXFileManager.h"
#include "platform/files/Fault.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace vx {
namespace {

// Source and destination, the source holding the four items (two of them directories).
struct Capture {
  test::TempDir root;
  std::string from = root / "from";
  std::string to = root / "to";
  FileURL fromURL = FileURL::fileURLWithPath(from, true);
  FileURL toURL = FileURL::fileURLWithPath(to, true);
  Capture() {
    test::MakeDirs(to);
    test::WriteFile(from + "/Manifest.plist", "manifest");
    test::WriteFile(from + "/LyrandArtwork/art.jpg", "art");
    test::WriteFile(from + "/LyrandMetadata.plist", "metadata");
    test::WriteFile(from + "/GeoJSON/map.json", "{}");
  }
  bool Run(bool doCopy, bool fatal, ErrorRef* error) {
    return VXFileManager::defaultManager().captureStoreDataFromDirectory(fromURL, toURL, doCopy,
                                                                         fatal, error);
  }
};

TEST(StoreDataCaptureTest, MoveCarriesEveryItemAndCopyKeepsTheSource) {
  Capture moved, copied;
  ErrorRef error;
  ASSERT_TRUE(moved.Run(false, true, &error));
  ASSERT_TRUE(copied.Run(true, true, &error));
  for (const char* item : {"Manifest.plist", "LyrandArtwork", "LyrandMetadata.plist", "GeoJSON"}) {
    EXPECT_FALSE(test::Exists(moved.from + "/" + item)) << item;
    EXPECT_TRUE(test::Exists(moved.to + "/" + item)) << item;
    EXPECT_TRUE(test::Exists(copied.from + "/" + item)) << item;
  }
  EXPECT_EQ(test::ReadFile(copied.to + "/LyrandArtwork/art.jpg"), "art");
  EXPECT_FALSE(error);
  // Nothing left to carry is no failure.
  EXPECT_TRUE(moved.Run(false, true, &error));
}

TEST(StoreDataCaptureTest, FailureIsLoggedAndPassedOverUnlessFatal) {
  Capture c, fatal;
  // A non-empty directory at the destination cannot be renamed over.
  test::WriteFile(c.to + "/LyrandArtwork/existing", "keep");
  test::LogCapture log;
  ErrorRef error;
  EXPECT_TRUE(c.Run(false, false, &error));
  EXPECT_FALSE(error);
  const std::string line = "Failed to move " + c.from + "/LyrandArtwork to " + c.to + "/LyrandArtwork";
  EXPECT_EQ(log.count(line, 3), 1u);
  EXPECT_TRUE(test::Exists(c.to + "/LyrandMetadata.plist"));
  EXPECT_TRUE(test::Exists(c.to + "/GeoJSON/map.json"));

  // A fatal capture stops at its first failure, with the code and the word that name it.
  fault::Arm(1, fault::Action::Fail, EIO);
  const bool ok = fatal.Run(false, true, &error);
  fault::Disarm();
  ASSERT_FALSE(ok);
  EXPECT_EQ(error->domain(), VXInstallerErrorDomain);
  EXPECT_EQ(error->code(), 24);
  EXPECT_EQ(*error->userInfo().at(VXLegacyErrorStringKey).string(), "ManifestCaptureFailed");
  EXPECT_EQ(error->underlyingError()->code(), EIO);
  EXPECT_EQ(*error->localizedDescription(),
            "Failed to move " + fatal.from + "/Manifest.plist to " + fatal.to + "/Manifest.plist");
  EXPECT_FALSE(test::Exists(fatal.to + "/LyrandArtwork"));
}

}  // namespace
}  // namespace vx
