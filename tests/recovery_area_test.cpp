// The recovery area: what would have been deleted with user bytes in it is kept, recorded and
// found again; what holds nothing is not worth keeping.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/installer/RecoveryArea.h"
#include "support/TempDir.h"
#include "support/TestDevice.h"

namespace vx {
namespace {

using namespace test;

const std::set<std::string> kOwnFiles{"marker.plist"};

TEST(RecoveryAreaTest, WhatHoldsUserBytes) {
  ResetTestDevice();
  const std::string c = DevicePath("c");
  MakeDirs(c + "/Documents/empty/deeper");
  WriteFile(c + "/marker.plist", "ours");
  MakeSymlink("/etc/passwd", c + "/Documents/link");
  ASSERT_EQ(::mkfifo((c + "/Documents/fifo").c_str(), 0600), 0);
  const FileURL container = FileURL::fileURLWithPath(c, true);
  // Skeletons, links, FIFOs and the migration's own files hold nothing of the user's.
  EXPECT_FALSE(ItemHoldsUserBytes(container, kOwnFiles));
  EXPECT_FALSE(ItemHoldsUserBytes(FileURL::fileURLWithPath(c + "/Documents/link"), kOwnFiles));
  EXPECT_FALSE(ItemHoldsUserBytes(FileURL::fileURLWithPath(c + "/absent"), kOwnFiles));

  WriteFile(c + "/Documents/empty/deeper/note", "");  // even an empty file is the user's
  EXPECT_TRUE(ItemHoldsUserBytes(container, kOwnFiles));
}

TEST(RecoveryAreaTest, MovedWholeRecordedFoundAndRemoved) {
  ResetTestDevice();
  const std::string c = DevicePath("old/C1");
  WriteFile(c + "/Documents/diary", "dear diary");
  const RecoveryRecord record{"com.example.../../x", kRecoveryCourseNoBundle, "/old/C1"};

  ErrorRef error;
  auto moved = MoveToRecoveryArea(FileURL::fileURLWithPath(c, true), record, &error);
  ASSERT_TRUE(moved) << (error ? Describe(*error) : "");
  EXPECT_FALSE(Exists(c));
  EXPECT_EQ(ReadFile(moved->path() + "/Documents/diary"), "dear diary");
  // A hostile identifier names no other place.
  EXPECT_EQ(moved->path().rfind(RecoveryAreaURL().path() + "/", 0), 0u);

  // A second item of the same application, and an entry a cut left without content.
  WriteFile(DevicePath("old/C2/tmp/x"), "x");
  ASSERT_TRUE(MoveToRecoveryArea(FileURL::fileURLWithPath(DevicePath("old/C2"), true),
                                 {record.identifier, kRecoveryCourseGaveWay, "/old/C2"}, &error));
  MakeDirs(RecoveryAreaURL().path() + "/halfway/Content");
  WriteFile(RecoveryAreaURL().path() + "/halfway/Record.plist", "not even a plist");

  std::vector<RecoveredEntry> entries = RecoveredEntries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].record.course, kRecoveryCourseNoBundle);
  EXPECT_EQ(entries[0].record.originalPath, "/old/C1");
  EXPECT_EQ(entries[0].items, std::vector<std::string>{"C1"});
  EXPECT_FALSE(entries[0].time.empty());

  auto byName = FindRecoveredEntry(entries[0].name);
  ASSERT_TRUE(byName);
  EXPECT_EQ(byName->record.course, kRecoveryCourseNoBundle);
  auto byIdentifier = FindRecoveredEntry(record.identifier);  // the newest of that application
  ASSERT_TRUE(byIdentifier);
  EXPECT_EQ(byIdentifier->items, std::vector<std::string>{"C2"});
  EXPECT_FALSE(FindRecoveredEntry("com.example.none"));

  ASSERT_TRUE(RemoveRecoveredEntry(*byName, &error));
  EXPECT_EQ(RecoveredEntries().size(), 1u);
}

}  // namespace
}  // namespace vx
