// The recovery area: what would have been deleted with user bytes in it is kept, recorded and
// found again; what holds nothing is not worth keeping.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/files/Fault.h"
#include "platform/files/Sys.h"
#include "platform/installer/RecoveryArea.h"
#include "platform/plist/PlistFile.h"
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

  // A directory that cannot be opened (here: no descriptor left, at the top or one level
  // down) may hold anything: it counts as holding bytes, or its container would be deleted.
  for (int spare = 0; spare < 2; ++spare) {
    const pid_t child = ::fork();
    if (child == 0) {
      const int lowest = ::dup(0);
      ::close(lowest);
      struct rlimit limit {};
      ::getrlimit(RLIMIT_NOFILE, &limit);
      limit.rlim_cur = static_cast<rlim_t>(lowest + spare);
      ::setrlimit(RLIMIT_NOFILE, &limit);
      ::_exit(ItemHoldsUserBytes(container, kOwnFiles) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "spare descriptors: " << spare;
  }
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
  // A cut between the record and the move: the newest record of the application, nothing in
  // it. It is neither listed nor taken for the application's newest entry.
  MakeDirs(RecoveryAreaURL().path() + "/emptied/Content");
  ASSERT_TRUE(WritePropertyListFile(
      RecoveryAreaURL().path() + "/emptied/Record.plist",
      PlistValue(PlistDictionary{{"Identifier", record.identifier},
                                 {"Course", kRecoveryCourseInstallFailed},
                                 {"Time", "9999-12-31T23:59:59.000000000Z"}})));

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
  auto ofCourse = FindRecoveredEntry(record.identifier, kRecoveryCourseNoBundle);
  ASSERT_TRUE(ofCourse);
  EXPECT_EQ(ofCourse->items, std::vector<std::string>{"C1"});
  EXPECT_FALSE(FindRecoveredEntry("com.example.none"));

  ASSERT_TRUE(RemoveRecoveredEntry(*byName, &error));
  EXPECT_EQ(RecoveredEntries().size(), 1u);
}

// A power cut at each step of a move into the area, and one just after it returned: the item
// is where it stood or in the area under its record, never in neither; once the move
// returned, in the area.
TEST(RecoveryAreaTest, PowerCutNeverLosesTheItem) {
  TempDir stash;
  for (uint64_t step = 1;; ++step) {
    ResetTestDevice();
    const std::string c = DevicePath("old/C1");
    WriteFile(c + "/Documents/diary", "dear diary");
    int reported[2];
    ASSERT_EQ(::pipe(reported), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      fault::Arm(step, fault::Action::PowerCut, 0, {.stashDirectory = stash / "kept"});
      ErrorRef error;
      const char moved = MoveToRecoveryArea(FileURL::fileURLWithPath(c, true),
                                            {"com.example.c1", kRecoveryCourseNoBundle, "/old/C1"},
                                            &error)
                             ? 'y'
                             : 'n';
      EXPECT_EQ(::write(reported[1], &moved, 1), 1);
      for (;;) sys::Mkdir(DevicePath("after").c_str(), 0755);
    }
    ::close(reported[1]);
    char moved = 0;
    const bool returned = ::read(reported[0], &moved, 1) == 1;
    ::close(reported[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    const std::vector<RecoveredEntry> entries = RecoveredEntries();
    const bool kept = entries.size() == 1 &&
                      ReadFile(entries[0].content.path() + "/C1/Documents/diary") == "dear diary";
    const bool inPlace = Exists(c + "/Documents/diary");
    EXPECT_TRUE(kept != inPlace) << "step " << step << ": kept " << kept << ", in place " << inPlace;
    if (returned) {
      EXPECT_TRUE(moved != 'y' || kept) << "reported moved, then lost at step " << step;
      break;
    }
  }
}

}  // namespace
}  // namespace vx
