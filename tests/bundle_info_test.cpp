// Reading bundles: the platform handle, and VXLoadInfoPlist on top of it.
#include <gtest/gtest.h>

#include <sys/stat.h>

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

  // The location of the information file is never handed out, not even when the file itself
  // carries an entry of that name.
  const std::set<std::string> asked{"KBBundleIdentifier", kKBBundleInfoPlistURLKey};
  PlistDictionary forged = kInfo;
  forged[kKBBundleInfoPlistURLKey] = "/etc/shadow";
  MakeBundle(dir / "A.app", forged);
  EXPECT_EQ(VXLoadInfoPlist(app, &asked),
            (PlistDictionary{{"KBBundleIdentifier", "com.example.a"}}));
  EXPECT_EQ(VXLoadInfoPlist(app, nullptr), kInfo);
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

TEST(BundleInfoTest, WhatCannotBeReadGivesNothingAndOneLine) {
  test::TempDir dir;
  test::MakeDirs(dir / "Empty.app");
  test::WriteFile(dir / "File.app", "not a directory");
  const FileURL real = MakeBundle(dir / "Real.app", kInfo);
  test::MakeSymlink(dir / "Real.app", dir / "Link.app");
  for (const char* name : {"File.app", "Missing.app", "Link.app"}) {
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

  // A bundle reached through a link is not opened, even though its Info.plist is there.
  const FileURL link = FileURL::fileURLWithPath(dir / "Link.app", true);
  EXPECT_FALSE(VXLoadInfoPlist(link, nullptr));
  EXPECT_EQ(log.count("Failed to create KBBundle from URL " + link.path(), 3), 1u);

  // A directory whose Info.plist is corrupt, a link (never followed) or a FIFO (never waited
  // on) opens, but holds no information: the information reads say so.
  test::WriteFile(dir / "Corrupt.app/Info.plist", "<plist><dict><key>");
  test::MakeDirs(dir / "Linked.app");
  test::MakeSymlink(dir / "Real.app/Info.plist", dir / "Linked.app/Info.plist");
  test::MakeDirs(dir / "Fifo.app");
  ASSERT_EQ(::mkfifo((dir / "Fifo.app/Info.plist").c_str(), 0644), 0);
  for (const char* name : {"Corrupt.app", "Linked.app", "Fifo.app"}) {
    SCOPED_TRACE(name);
    const FileURL bundle = FileURL::fileURLWithPath(dir / name, true);
    auto handle = BundleHandle::open(bundle);
    ASSERT_TRUE(handle);
    EXPECT_EQ(handle->infoDictionary(), nullptr);
    EXPECT_EQ(handle->bundleIdentifier(), std::nullopt);
    handle.reset();
    log.clear();
    EXPECT_FALSE(VXLoadInfoPlist(bundle, &kScanKeys));
    EXPECT_FALSE(VXLoadInfoPlist(bundle, nullptr));
    EXPECT_EQ(log.messages(3),
              (std::vector<std::string>{
                  "Failed to get filtered Info.plist with keys (KBBundleIdentifier, "
                  "KBBundleVersion) from bundle BundleHandle " + bundle.path(),
                  "KBBundleGetInfoDictionary failed for bundle " + bundle.path()}));
  }
  EXPECT_EQ(BundleHandle::openCount(), 0u);
}

}  // namespace
}  // namespace vx
