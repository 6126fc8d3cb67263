// Reading bundles: the platform handle, and VXLoadInfoPlist on top of it.
#include <gtest/gtest.h>

#include <thread>

#include "platform/bundle/BundleHandle.h"
#include "platform/plist/PlistFile.h"
#include "support/LoadInfoPlist.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/VerboseLog.h"

namespace vx {
namespace {

FileURL MakeBundle(const std::string& path, const PlistValue& info) {
  test::MakeDirs(path);
  EXPECT_TRUE(WritePropertyListFile(path + "/Info.plist", info));
  return FileURL::fileURLWithPath(path, true);
}

const PlistDictionary kInfo{{"KBBundleIdentifier", "com.example.a"}, {"KBBundleVersion", "1"},
                            {"KBBundleExecutable", "Run"}};
const std::set<std::string> kScanKeys{"KBBundleIdentifier", "KBBundleVersion"};

TEST(BundleInfoTest, ReadsAreWholeOrFilteredAndFreshEachCall) {
  test::TempDir dir;
  const FileURL app = MakeBundle(dir / "A.app", kInfo);
  auto handle = BundleHandle::open(app);
  ASSERT_TRUE(handle);
  EXPECT_EQ(handle->bundleIdentifier(), "com.example.a");
  EXPECT_EQ(handle->infoDictionary()->at(kKBBundleInfoPlistURLKey).url()->path(),
            dir / "A.app/Info.plist");
  handle.reset();

  auto whole = VXLoadInfoPlist(app, nullptr);
  ASSERT_TRUE(whole);
  EXPECT_EQ(*whole, kInfo);  // and so without "KBBundleInfoPlistURL"
  (*whole)["KBBundleIdentifier"] = "changed by the caller";
  EXPECT_EQ(VXLoadInfoPlist(app, nullptr), kInfo);
  EXPECT_EQ(VXLoadInfoPlist(app, &kScanKeys),
            (PlistDictionary{{"KBBundleIdentifier", "com.example.a"}, {"KBBundleVersion", "1"}}));
  MakeBundle(dir / "A.app", PlistDictionary{{"Other", PlistValue(1)}});
  EXPECT_EQ(VXLoadInfoPlist(app, &kScanKeys), PlistDictionary{});

  // Two threads reading at once never hold two handles.
  const FileURL b = MakeBundle(dir / "B.app", kInfo);
  BundleHandle::takePeakOpenCount();
  auto reader = [](const FileURL& url) {
    for (int i = 0; i < 300; ++i) ASSERT_TRUE(VXLoadInfoPlist(url, i % 2 ? &kScanKeys : nullptr));
  };
  { std::jthread first(reader, app), second(reader, b); }
  EXPECT_EQ(BundleHandle::takePeakOpenCount(), 1u);
}

TEST(BundleInfoTest, WhatIsNoBundleGivesNothingAndOneLine) {
  test::TempDir dir;
  test::MakeDirs(dir / "Empty.app");
  test::WriteFile(dir / "Corrupt.app/Info.plist", "<plist><dict><key>");
  test::WriteFile(dir / "File.app", "not a directory");
  for (const char* name : {"Empty.app", "Corrupt.app", "File.app", "Missing.app"}) {
    EXPECT_FALSE(BundleHandle::open(FileURL::fileURLWithPath(dir / name))) << name;
  }

  test::LogCapture log;
  test::VerboseLog verbose;
  EXPECT_FALSE(VXLoadInfoPlist(FileURL::fileURLWithPath(dir / "Empty.app", true), &kScanKeys));
  EXPECT_EQ(log.count("Missing Info.plist at " + dir / "Empty.app/Info.plist", 7), 1u);
  EXPECT_TRUE(log.messages(3).empty());

  const FileURL array = MakeBundle(dir / "Array.app", PlistArray{PlistValue("x")});
  EXPECT_FALSE(VXLoadInfoPlist(array, &kScanKeys));
  EXPECT_EQ(log.count("Object returned from _KBBundleCreateFilteredInfoPlist was not a "
                      "dictionary, was type Array", 3), 1u);
  EXPECT_FALSE(VXLoadInfoPlist(array, nullptr));
  EXPECT_EQ(log.count("KBBundleGetInfoDictionary failed for bundle " + array.path(), 3), 1u);
  EXPECT_FALSE(VXLoadInfoPlist(FileURL::fileURLWithPath(dir / "Corrupt.app", true), nullptr));
  EXPECT_EQ(log.count("Failed to create KBBundle from URL " + dir / "Corrupt.app", 3), 1u);
  EXPECT_EQ(BundleHandle::openCount(), 0u);
}

}  // namespace
}  // namespace vx
