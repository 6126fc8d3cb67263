// Reading bundles: the platform handle, and VXLoadInfoPlist on top of it.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <map>
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

// A binary list of arrays only: `children[i]` are object i's references; object 0 is the top.
std::vector<uint8_t> BinaryArrays(const std::vector<std::vector<uint64_t>>& children) {
  std::vector<uint8_t> out{'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  const auto put = [&out](uint64_t value, int width) {
    for (int i = width - 1; i >= 0; --i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
  };
  std::vector<uint64_t> offsets;
  for (const auto& refs : children) {
    offsets.push_back(out.size());
    out.push_back(0xAF);
    out.push_back(0x13);
    put(refs.size(), 8);
    for (uint64_t ref : refs) put(ref, 4);
  }
  const uint64_t table = out.size();
  for (uint64_t offset : offsets) put(offset, 4);
  out.insert(out.end(), 6, 0);
  out.push_back(4);  // offset width
  out.push_back(4);  // reference width
  put(children.size(), 8);
  put(0, 8);
  put(table, 8);
  return out;
}

// Each object holds the next, `depth` arrays in all.
std::vector<std::vector<uint64_t>> NestedChildren(size_t depth) {
  std::vector<std::vector<uint64_t>> children(depth);
  for (size_t i = 0; i + 1 < depth; ++i) children[i] = {i + 1};
  return children;
}

std::vector<uint8_t> NestedBinaryArrays(size_t depth) { return BinaryArrays(NestedChildren(depth)); }

std::vector<uint8_t> Bytes(const std::string& text) {
  return std::vector<uint8_t>(text.begin(), text.end());
}

std::string Repeated(const std::string& text, size_t times) {
  std::string out;
  for (size_t i = 0; i < times; ++i) out += text;
  return out;
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

// Each hostile shape is refused before the parser (which recurses per level, and copies a
// shared object wherever it is referenced) sees it, with a reason; the bounds leave room.
// Nothing a file holds may stop the process.
TEST(BundleInfoTest, PropertyListsPastTheBoundsAreRefusedUnparsed) {
  const auto refusal = [](const std::vector<uint8_t>& bytes) {
    std::string reason;
    EXPECT_FALSE(ParsePropertyList(bytes, &reason));
    return reason;
  };
  const auto deepest = ParsePropertyList(NestedBinaryArrays(256));
  ASSERT_TRUE(deepest);
  // What one encoding admits, the other admits once written back.
  EXPECT_TRUE(ParsePropertyList(SerializePropertyList(*deepest, PlistFormat::XML)));
  EXPECT_EQ(refusal(NestedBinaryArrays(257)), "nesting deeper than 256");
  EXPECT_EQ(refusal(NestedBinaryArrays(100'000)), "nesting deeper than 256");
  // Two arrays of a thousand references each: a million objects once expanded.
  EXPECT_EQ(refusal(BinaryArrays({std::vector<uint64_t>(1000, 1), std::vector<uint64_t>(1000, 2), {}})),
            "more than 500000 objects");
  // 200 levels, the innermost holding one empty array 30,000 times: few objects, each deep.
  std::vector<std::vector<uint64_t>> deepAndWide = NestedChildren(201);
  deepAndWide[199] = std::vector<uint64_t>(30'000, 200);
  EXPECT_EQ(refusal(BinaryArrays(deepAndWide)), "more than 4000000 levels of nesting in all");
  EXPECT_EQ(refusal(BinaryArrays({{1}, {2}, {1}})), "a reference cycle");
  EXPECT_EQ(refusal(BinaryArrays({{1}, {7}})), "a reference out of range");
  std::vector<uint8_t> huge = BinaryArrays({{}});
  huge[10] = 0x7F;  // an array claiming 2^63 references
  EXPECT_EQ(refusal(huge), "a malformed container");

  const std::string open = "<?xml version=\"1.0\"?><!DOCTYPE plist><plist version=\"1.0\">";
  EXPECT_TRUE(ParsePropertyList(Bytes(open + Repeated("<array>", 256) + "<dict/><true/>" +
                                      Repeated("</array>", 256) + "</plist>")));
  EXPECT_EQ(refusal(Bytes(open + Repeated("<array>", 257) + Repeated("</array>", 257) +
                          "</plist>")),
            "nesting deeper than 256");
  EXPECT_EQ(refusal(Bytes(open + Repeated("<array>", 100'000) + Repeated("</array>", 100'000) +
                          "</plist>")),
            "nesting deeper than 256");
  // End tags hidden in comments and character data close nothing.
  EXPECT_EQ(refusal(Bytes(open + Repeated("<dict><!-- </dict> --><key>k</key>", 300) +
                          Repeated("<![CDATA[</dict>]]>", 300))),
            "nesting deeper than 256");
  EXPECT_EQ(refusal(Bytes(open + "<array>" + Repeated("<true/>", 500'000) + "</array></plist>")),
            "more than 500000 objects");

  // A string holding a NUL ends there; a key outside a dictionary is no value. (The
  // parser's own string getter aborts the process on either.)
  const auto string = ParsePropertyList(Bytes(std::string("<plist><string>a\0b</string></plist>", 36)));
  ASSERT_TRUE(string && string->string());
  EXPECT_EQ(*string->string(), "a");
  EXPECT_FALSE(ParsePropertyList(Bytes(std::string("\n<key>\xff\0\0", 10))));
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
  const std::vector<uint8_t> deep = NestedBinaryArrays(100'000);
  test::WriteFile(dir / "Deep.app/Info.plist", std::string(deep.begin(), deep.end()));
  const std::map<std::string, std::string> problems{
      {"Corrupt.app", "not a property list"},
      {"Linked.app", "Too many levels of symbolic links"},
      {"Fifo.app", "Invalid argument"},
      {"Deep.app", "nesting deeper than 256"}};
  for (const auto& [name, problem] : problems) {
    SCOPED_TRACE(name);
    const FileURL bundle = FileURL::fileURLWithPath(dir / name, true);
    auto handle = BundleHandle::open(bundle);
    ASSERT_TRUE(handle);
    EXPECT_EQ(handle->infoDictionary(), nullptr);
    EXPECT_EQ(handle->bundleIdentifier(), std::nullopt);
    EXPECT_EQ(handle->infoProblem(), problem);
    handle.reset();
    log.clear();
    EXPECT_FALSE(VXLoadInfoPlist(bundle, &kScanKeys));
    EXPECT_FALSE(VXLoadInfoPlist(bundle, nullptr));
    EXPECT_EQ(log.messages(3),
              (std::vector<std::string>{
                  "Failed to get filtered Info.plist with keys (KBBundleIdentifier, "
                  "KBBundleVersion) from bundle BundleHandle " + bundle.path() + " : " + problem,
                  "KBBundleGetInfoDictionary failed for bundle " + bundle.path() + " : " +
                      problem}));
  }
  EXPECT_EQ(BundleHandle::openCount(), 0u);
}

}  // namespace
}  // namespace vx
