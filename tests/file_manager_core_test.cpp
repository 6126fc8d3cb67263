// The file manager's basic operations, on real trees.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <filesystem>

#include "filemanager/StringAdditions.h"
#include "filemanager/VXFileManager.h"
#include "platform/files/Fault.h"
#include "platform/files/ProtectionClass.h"
#include "platform/files/Sys.h"
#include "platform/files/UniqueFd.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using namespace test;
namespace fs = std::filesystem;

VXFileManager& fm() { return VXFileManager::defaultManager(); }
FileURL U(const std::string& p, bool dir = false) { return FileURL::fileURLWithPath(p, dir); }

// The entries of `directory`; none when it cannot be listed.
std::vector<FileURL> List(const std::string& directory, bool ignoringSymlinks) {
  return fm().urlsForItemsInDirectoryAtURL(U(directory, true), ignoringSymlinks, nullptr)
      .value_or(std::vector<FileURL>{});
}

std::vector<std::string> Names(const std::vector<FileURL>& urls) {
  std::vector<std::string> names;
  for (const FileURL& u : urls) names.push_back(u.lastPathComponent());
  std::sort(names.begin(), names.end());
  return names;
}

struct FaultGuard { ~FaultGuard() { fault::Disarm(); } };

int ClassOf(const std::string& directory) {
  UniqueFd fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY));
  return GetProtectionClass(fd.get());
}

TEST(FileManagerRemovalTest, TreesAbsentLocationsAndFailures) {
  TempDir t;
  ErrorRef error;
  // Nothing there is success; an absent location is EFAULT.
  EXPECT_TRUE(fm().removeItemAtURL(U(t / "none"), &error));
  EXPECT_FALSE(fm().removeItemAtURL(std::nullopt, &error));
  EXPECT_EQ(error->code(), 14);
  EXPECT_EQ(*error->localizedDescription(), "nil url passed to -removeItemAtURL:error:");

  // One item that cannot be removed: the removal fails with its errno, and says where. The
  // first mutation is the try to remove the tree as an empty directory; the second, the
  // first removal inside it.
  FaultGuard guard;
  WriteFile(t / "tree2/d/one", "1");
  LogCapture log;
  fault::Arm(2, fault::Action::Fail, EPERM);
  EXPECT_FALSE(fm().removeItemAtURL(U(t / "tree2"), &error));
  EXPECT_EQ(error->domain(), VXPOSIXErrorDomain);
  EXPECT_EQ(error->code(), EPERM);
  EXPECT_NE(error->localizedDescription()->find("purgetree of " + t / "tree2" + " failed:"), std::string::npos);
  EXPECT_EQ(log.count("purgetree hit error for", 3), 1u);

  // An item that vanished (ENOENT) while the tree was removed is no failure: the rest goes.
  fault::Arm(2, fault::Action::Fail, ENOENT);
  log.clear();
  EXPECT_TRUE(fm().removeItemAtURL(U(t / "tree2"), &error));
  EXPECT_EQ(log.count("purgetree hit error for", 3), 0u);
  EXPECT_FALSE(Exists(t / "tree2"));
}

TEST(FileManagerDirectoryTest, CreationAncestorsExistingAndClass) {
  TempDir t;
  ErrorRef error;
  EXPECT_FALSE(fm().createDirectoryAtURL(U(t / "a/b/c", true), false, 0755, &error));
  EXPECT_EQ(error->code(), ENOENT);
  EXPECT_NE(error->localizedDescription()->find("mkdir of "), std::string::npos);

  ASSERT_TRUE(fm().createDirectoryAtURL(U(t / "a/b/c", true), true, 0755, 4, &error));
  EXPECT_EQ(ClassOf(t / "a/b/c"), 4) << "the class goes on the final directory";
  EXPECT_EQ(ClassOf(t / "a/b"), kDefaultProtectionClass) << "never on ancestors";
  // An existing directory is success and still gets the class.
  ASSERT_TRUE(fm().createDirectoryAtURL(U(t / "a/b", true), false, 0755, 3, &error));
  EXPECT_EQ(ClassOf(t / "a/b"), 3);

  // A file in the way: mkdir's EEXIST counts as created, applying a class then fails.
  WriteFile(t / "file", "x");
  EXPECT_TRUE(fm().createDirectoryAtURL(U(t / "file"), false, 0755, &error));
  EXPECT_FALSE(fm().createDirectoryAtURL(U(t / "file"), false, 0755, 4, &error));
  EXPECT_NE(error->localizedDescription()->find("opendir of "), std::string::npos);
  // A link in the way is not a directory, whether it leads to one or not, and the class never
  // reaches what it leads to.
  MakeDirs(t / "target");
  MakeSymlink(t / "target", t / "link");
  for (bool ancestors : {false, true}) {
    EXPECT_FALSE(fm().createDirectoryAtURL(U(t / "link", true), ancestors, 0755, 4, &error));
    EXPECT_EQ(error->code(), ENOTDIR);
    EXPECT_EQ(*error->localizedDescription(),
              "opendir of " + t / "link" + " failed: Not a directory");
  }
  EXPECT_EQ(ClassOf(t / "target"), kDefaultProtectionClass);
  EXPECT_TRUE(fm().createDirectoryAtURL(U(t / "link", true), false, 0755, &error));
  // A file as an ancestor makes the chain fail.
  EXPECT_FALSE(fm().createDirectoryAtURL(U(t / "file/sub"), true, 0755, &error));
  EXPECT_NE(error->localizedDescription()->find("dirchain of "), std::string::npos);
}

TEST(FileManagerCopyMoveTest, MissingSourcesLinksAndReplacement) {
  TempDir t;
  ErrorRef error;
  // Missing sources: the "if exists" forms do nothing, the strict forms fail.
  EXPECT_TRUE(fm().copyItemIfExistsAtURL(U(t / "none"), U(t / "c"), &error));
  EXPECT_TRUE(fm().moveItemIfExistsAtURL(U(t / "none"), U(t / "m"), &error));
  EXPECT_FALSE(Exists(t / "c") || Exists(t / "m"));
  EXPECT_FALSE(fm().copyItemAtURL(U(t / "none"), U(t / "c"), &error));
  EXPECT_EQ(error->code(), ENOENT);
  EXPECT_NE(error->localizedDescription()->find("clonetree of "), std::string::npos);
  EXPECT_FALSE(fm().moveItemAtURL(U(t / "none"), U(t / "m"), &error));
  EXPECT_EQ(error->code(), ENOENT);
  EXPECT_EQ(*error->localizedDescription(),
            "rename of " + t / "none" + " to " + t / "m" + " failed: No such file or directory");
  // A dangling link exists: the "if exists" forms take it along rather than leave it behind.
  MakeSymlink(t / "nowhere", t / "dangling");
  ASSERT_TRUE(fm().copyItemIfExistsAtURL(U(t / "dangling"), U(t / "dangling-copy"), &error));
  ASSERT_TRUE(fm().moveItemIfExistsAtURL(U(t / "dangling"), U(t / "dangling-moved"), &error));
  EXPECT_FALSE(Exists(t / "dangling"));
  for (const char* name : {"dangling-copy", "dangling-moved"}) {
    EXPECT_EQ(fs::read_symlink(t / name), t / "nowhere") << name;
  }

  // A tree with a symbolic link copies the link as a link.
  WriteFile(t / "src/sub/data", "payload");
  MakeSymlink("sub/data", t / "src/link");
  ASSERT_TRUE(fm().copyItemAtURL(U(t / "src"), U(t / "copy"), &error));
  EXPECT_EQ(ReadFile(t / "copy/sub/data"), "payload");
  EXPECT_EQ(fs::read_symlink(t / "copy/link"), "sub/data");

  // A move is a rename: it replaces a file, and fails on a non-empty directory.
  WriteFile(t / "new", "new");
  WriteFile(t / "old", "old");
  ASSERT_TRUE(fm().moveItemAtURL(U(t / "new"), U(t / "old"), &error));
  EXPECT_EQ(ReadFile(t / "old"), "new");
  EXPECT_FALSE(fm().moveItemAtURL(U(t / "src"), U(t / "copy"), &error));
  EXPECT_TRUE(Exists(t / "src/sub/data"));
}

// A second file system writable by tests, or empty.
std::string OtherFileSystemThan(const std::string& path) {
  struct stat a {}, b {};
  if (::access("/dev/shm", W_OK) != 0 || ::stat("/dev/shm", &a) != 0 ||
      ::stat(path.c_str(), &b) != 0 || a.st_dev == b.st_dev) {
    return "";
  }
  return "/dev/shm";
}

TEST(FileManagerCopyMoveTest, MovesAcrossFileSystemsCopyWhatWasCheckedAndSyncIt) {
  TempDir t;
  const std::string other = OtherFileSystemThan(t.path());
  if (other.empty()) GTEST_SKIP() << "no second writable file system beside " << t.path();
  TempDir far(other);
  const std::string source = t / "a", moved = far / "moved";

  // The source swapped for a link to the outside while it moves: the link is never followed,
  // and whichever was checked, the user's file is still somewhere afterwards (twice when the
  // name held another item by the time the source was to go).
  WriteFile(t / "outside/secret", "outside");
  for (int round = 0; round < 60 && !::testing::Test::HasFailure(); ++round) {
    WriteFile(source + "/f", "mine");
    MakeSymlink(t / "outside", t / "l");
    std::atomic<bool> stop{false};
    std::thread swapper([&] {
      while (!stop) ::renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, (t / "l").c_str(), RENAME_EXCHANGE);
    });
    // The move may refuse an item that changed under it; it must never lose or follow one.
    fm().moveItemAtURL(U(source), U(moved), nullptr);
    stop = true;
    swapper.join();
    int copies = 0;
    for (const std::string& place : {source, t / "l", moved}) {
      struct stat st {};
      copies += ::lstat(place.c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
                ReadFile(place + "/f") == "mine";
    }
    EXPECT_GE(copies, 1) << "round " << round;
    EXPECT_FALSE(fs::is_directory(fs::symlink_status(moved)) && Exists(moved + "/secret"))
        << "copied through the link";
    EXPECT_EQ(ReadFile(t / "outside/secret"), "outside");
    for (const std::string& place : {source, t / "l", moved}) fs::remove_all(place);
  }

  // A power cut at any step of the move, losing what was not synced: the bytes stand whole
  // in the source or in the copy, never in neither.
  const auto makeSource = [&] {
    fs::remove_all(moved);
    WriteFile(source + "/f", std::string(5000, 'f'));
    WriteFile(source + "/sub/g", std::string(7000, 'g'));
  };
  const auto whole = [&](const std::string& tree) {
    return Exists(tree + "/f") && ReadFile(tree + "/f") == std::string(5000, 'f') &&
           Exists(tree + "/sub/g") && ReadFile(tree + "/sub/g") == std::string(7000, 'g');
  };
  makeSource();
  fault::Disarm();
  ASSERT_TRUE(fm().moveItemAtURL(U(source), U(moved), nullptr));
  const uint64_t steps = fault::MutationCount();
  for (const bool partial : {false, true}) {
    for (uint64_t step = 1; step <= steps + 1; ++step) {
      makeSource();
      const pid_t child = ::fork();
      if (child == 0) {
        fault::Arm(step, fault::Action::PowerCut, 0,
                   {.partial = partial, .seed = step, .stashDirectory = t / ("stash" + std::to_string(step) + (partial ? "p" : ""))});
        fm().moveItemAtURL(U(source), U(moved), nullptr);
        for (;;) sys::Mkdir((t / "after").c_str(), 0755);
      }
      int status = 0;
      ASSERT_EQ(::waitpid(child, &status, 0), child);
      EXPECT_TRUE(whole(source) || whole(moved)) << "step " << step << (partial ? " partial" : "");
      fs::remove_all(source);
    }
  }
}

TEST(FileManagerTemporaryDirectoryTest, NamedInsideParentAndLoggedFailure) {
  TempDir t;
  ErrorRef error = std::make_shared<InstallerError>("stale", 1, PlistDictionary{});
  auto dir = fm().createTemporaryDirectoryInDirectoryURL(U(t.path(), true), &error);
  ASSERT_TRUE(dir);
  EXPECT_FALSE(error) << "the out-parameter is cleared first";
  EXPECT_EQ(dir->URLByDeletingLastPathComponent().path(), t.path());
  EXPECT_EQ(dir->lastPathComponent().rfind("temp.", 0), 0u);
  EXPECT_EQ(dir->lastPathComponent().size(), 11u);
  EXPECT_EQ(fs::status(dir->path()).permissions(), fs::perms::owner_all);

  LogCapture log;
  EXPECT_FALSE(fm().createTemporaryDirectoryInDirectoryURL(U(t / "missing", true), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), VXInstallerErrorDomain);
  EXPECT_EQ(error->code(), 4);
  EXPECT_TRUE(error->underlyingError()->isPOSIX(ENOENT));
  EXPECT_EQ(*error->userInfo().at(VXPathArgumentErrorKey).url(), U(t / "missing/temp.XXXXXX", true));
  EXPECT_TRUE(log.contains("Failed to create temp dir at path " + t / "missing/temp.", 3));
}

TEST(FileManagerListingTest, EntriesLinksAndFailures) {
  TempDir t;
  MakeDirs(t / "dir/sub");
  WriteFile(t / "dir/file", "");
  MakeSymlink(t / "dir/sub", t / "dir/dirlink");
  MakeSymlink(t / "nowhere", t / "dir/dangling");
  ErrorRef error;
  const auto all = List(t / "dir", false);
  EXPECT_EQ(Names(all), (std::vector<std::string>{"dangling", "dirlink", "file", "sub"}));
  for (const FileURL& u : all) {
    // Only a real directory is a directory location; a link to one is not.
    EXPECT_EQ(u.hasDirectoryPath(), u.lastPathComponent() == "sub") << u.path();
  }
  LogCapture log;
  EXPECT_EQ(Names(List(t / "dir", true)), (std::vector<std::string>{"file", "sub"}));
  EXPECT_EQ(log.count("Ignoring symlink at " + t / "dir/", 5), 2u);

  // A link to a directory, a file and a missing directory cannot be listed.
  // (Linux refuses a final link with O_NOFOLLOW|O_DIRECTORY as ENOTDIR, others say ELOOP.)
  EXPECT_FALSE(fm().urlsForItemsInDirectoryAtURL(U(t / "dir/dirlink"), false, &error));
  EXPECT_TRUE(error->code() == ENOTDIR || error->code() == ELOOP) << error->code();
  EXPECT_FALSE(fm().urlsForItemsInDirectoryAtURL(U(t / "dir/file"), false, &error));
  EXPECT_EQ(error->code(), ENOTDIR);
  EXPECT_FALSE(fm().urlsForItemsInDirectoryAtURL(U(t / "gone"), false, &error));
  EXPECT_EQ(error->code(), ENOENT);
  EXPECT_EQ(*error->localizedDescription(),
            "_IterateDirectory for " + t / "gone" + " returned No such file or directory");

  // A directory larger than one read buffer is listed whole.
  for (int i = 0; i < 3000; ++i) WriteFile(t / ("big/entry-with-a-longish-name-" + std::to_string(i)), "");
  EXPECT_EQ(List(t / "big", false).size(), 3000u);
}

TEST(FileManagerLinkAndExistenceTest, LinksAndDanglingLinks) {
  TempDir t;
  ErrorRef error;
  ASSERT_TRUE(fm().createSymbolicLinkAtURL(U(t / "link"), U(t / "target"), &error));
  EXPECT_EQ(fm().destinationOfSymbolicLinkAtURL(U(t / "link"), &error), U(t / "target"));
  EXPECT_FALSE(fm().createSymbolicLinkAtURL(U(t / "link"), U(t / "x"), &error));
  EXPECT_EQ(error->code(), EEXIST);
  EXPECT_FALSE(fm().destinationOfSymbolicLinkAtURL(U(t / "target"), &error));

  // The link dangles: it exists itself.
  EXPECT_TRUE(fm().itemExistsAtURL(U(t / "link")));
  EXPECT_FALSE(fm().itemDoesNotExistAtURL(U(t / "link")));
  EXPECT_FALSE(fm().itemExistsAtURL(U(t / "target")));
  EXPECT_TRUE(fm().itemDoesNotExistAtURL(U(t / "target")));
  // Through a file, neither answer is yes, and the failure is logged.
  WriteFile(t / "file", "");
  LogCapture log;
  EXPECT_FALSE(fm().itemExistsAtURL(U(t / "file/x")));
  EXPECT_FALSE(fm().itemDoesNotExistAtURL(U(t / "file/x")));
  EXPECT_EQ(log.count("Failed to determine if " + t / "file/x" + " exists: Not a directory", 3), 2u);
}

TEST(StringAdditionsTest, DotDotComponents) {
  using VelotrixAdditions::containsDotDotPathComponents;
  for (const char* p : {"a/../b", "..", "/x/.."}) EXPECT_TRUE(containsDotDotPathComponents(p)) << p;
  for (const char* p : {"a/..b", "a/b..", ""}) EXPECT_FALSE(containsDotDotPathComponents(p)) << p;
  const char bytes[] = {'a', '\0', 'b'};
  EXPECT_EQ(VelotrixAdditions::stringWithFileSystemRepresentation(bytes, 3).size(), 3u);
  EXPECT_EQ(VelotrixAdditions::stringWithFileSystemRepresentation(bytes), "a");
}

}  // namespace
}  // namespace vx
