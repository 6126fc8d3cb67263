// The tree walks with several workers against the same walks with one: the same byte count,
// the same copy, the same removal and the same refusals, on trees built to catch what a
// shared queue gets wrong (names of one file in directories that different workers read, a
// directory whose last entry another worker removes, directory times set before the last
// entry is made in them).
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "filemanager/VXFileManager.h"
#include "platform/files/CloneTree.h"
#include "platform/files/Fault.h"
#include "platform/files/PurgeTree.h"
#include "platform/files/WorkQueue.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using namespace test;

constexpr unsigned kWorkers = 4;

const VXFileManager& fm() { return VXFileManager::defaultManager(); }
FileURL U(const std::string& path) { return FileURL::fileURLWithPath(path); }

struct DisarmAtEnd { ~DisarmAtEnd() { fault::Disarm(); } };

// 12 directories of 3 levels with files of varied sizes and modes; one file has a name in
// every directory, and a second one is linked twice within one directory.
void PlantWideTree(const std::string& root) {
  for (int d = 0; d < 12; ++d) {
    const std::string dir = root + "/d" + std::to_string(d) + "/e/f";
    for (int f = 0; f < 6; ++f) {
      const std::string path = dir + "/file" + std::to_string(f);
      WriteFile(path, std::string(static_cast<size_t>(d * 1000 + f * 4097), 'x'));
      ASSERT_EQ(::chmod(path.c_str(), f % 2 ? 0640 : 0755), 0);
    }
  }
  WriteFile(root + "/shared", std::string(50000, 's'));
  for (int d = 0; d < 12; ++d) {
    ASSERT_EQ(::link((root + "/shared").c_str(), (root + "/d" + std::to_string(d) + "/e/s").c_str()), 0);
  }
  ASSERT_EQ(::link((root + "/d3/e/f/file1").c_str(), (root + "/d3/e/f/again").c_str()), 0);
}

TEST(WorkQueueTest, RunsWhatItemsQueueAndStopsWhenAsked) {
  WorkQueue<int> queue;
  std::atomic<int> sum{0};
  queue.Push(10);
  // Each item n queues n-1 twice: 2^11 - 1 items in all, most queued while others run.
  queue.Run(kWorkers, [&](int& n) {
    sum += 1;
    if (n > 0) {
      queue.Push(n - 1);
      queue.Push(n - 1);
    }
  });
  EXPECT_EQ(sum.load(), 2047);

  WorkQueue<int> stopping;
  std::atomic<int> ran{0};
  for (int i = 0; i < 100; ++i) stopping.Push(i);
  stopping.Run(kWorkers, [&](int&) {
    if (++ran == 5) stopping.Stop();
  });
  EXPECT_LE(ran.load(), 5 + static_cast<int>(kWorkers));
  EXPECT_TRUE(stopping.stopped());

  // A process held to one core (a container's cpuset, taskset) gets one worker, whatever
  // the machine has: more would only take turns on that core.
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    if (::sched_setaffinity(0, sizeof one, &one) != 0) ::_exit(2);
    ::_exit(DefaultWorkerCount() == 1 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

TEST(ParallelWalkTest, DiskUsageCountsEachFileOnceWhicheverWorkerMeetsIt) {
  TempDir t;
  PlantWideTree(t / "tree");
  const uint64_t serial = fm().diskUsageForURL(U(t / "tree"));
  // The shared file alone, counted once, is 50000 bytes rounded up to blocks.
  struct stat shared {};
  ASSERT_EQ(::lstat((t / "tree/shared").c_str(), &shared), 0);
  ASSERT_GT(serial, static_cast<uint64_t>(shared.st_blocks) * 512);
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(fm().diskUsageForURL(U(t / "tree"), kWorkers), serial) << "run " << i;
  }
  ASSERT_EQ(::unlink((t / "tree/shared").c_str()), 0);
  const uint64_t withoutTopName = fm().diskUsageForURL(U(t / "tree"));
  EXPECT_EQ(withoutTopName, serial) << "a file still linked elsewhere is still counted once";
  EXPECT_EQ(fm().diskUsageForURL(U(t / "none"), kWorkers), 0u);
}

// Everything below `root` as (path, type, mode, owner, times, attributes, bytes), and the
// groups of names that share one file. Status first, bytes after: reading a file moves its
// access time.
struct TreeImage {
  std::map<std::string, std::tuple<mode_t, uid_t, gid_t, long, long, long, std::string>> items;
  std::set<std::set<std::string>> linkGroups;
  bool operator==(const TreeImage&) const = default;
};

TreeImage Image(const std::string& root) {
  TreeImage image;
  std::map<ino_t, std::set<std::string>> names;
  std::vector<std::string> pending = {""};
  std::vector<std::string> files;
  while (!pending.empty()) {
    const std::string relative = pending.back();
    pending.pop_back();
    const std::string path = relative.empty() ? root : root + "/" + relative;
    struct stat st {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    char attribute[64] = {};
    const ssize_t n = ::lgetxattr(path.c_str(), "user.tag", attribute, sizeof attribute);
    image.items[relative] = {st.st_mode, st.st_uid, st.st_gid, st.st_mtim.tv_sec,
                             st.st_mtim.tv_nsec, st.st_atim.tv_nsec,
                             n > 0 ? std::string(attribute, static_cast<size_t>(n)) : ""};
    if (!S_ISDIR(st.st_mode)) {
      names[st.st_ino].insert(relative);
      if (S_ISREG(st.st_mode)) files.push_back(relative);
      continue;
    }
    const auto children = fm().urlsForItemsInDirectoryAtURL(U(path), false, nullptr);
    EXPECT_TRUE(children) << path;
    for (const FileURL& child : children.value_or(std::vector<FileURL>{})) {
      pending.push_back(relative.empty() ? child.lastPathComponent()
                                         : relative + "/" + child.lastPathComponent());
    }
  }
  for (const auto& [ino, group] : names) {
    if (group.size() > 1) image.linkGroups.insert(group);
  }
  for (const std::string& file : files) {
    std::get<6>(image.items[file]) += "|" + ReadFile(root + "/" + file);
  }
  return image;
}

TEST(ParallelWalkTest, CopyIsTheSerialCopyWithTimesAttributesAndLinks) {
  TempDir t;
  DisarmAtEnd disarm;
  PlantWideTree(t / "src");
  MakeSymlink("../../shared", t / "src/d5/e/up");
  for (const char* p : {"src/d1/e/f/file2", "src/d7", "src/d7/e"}) {
    ASSERT_EQ(::lsetxattr((t / p).c_str(), "user.tag", p, 8, 0), 0) << p;
  }
  // Times on everything, directories included: a directory made or filled after its times
  // were set shows it.
  const struct timespec times[2] = {{1'000'000'000, 111}, {1'000'000'500, 222}};
  std::vector<std::string> all = {""};
  for (size_t i = 0; i < all.size(); ++i) {
    const std::string path = t / ("src/" + all[i]);
    struct stat st {};
    ASSERT_EQ(::lstat(path.c_str(), &st), 0);
    if (!S_ISDIR(st.st_mode)) continue;
    const auto children = fm().urlsForItemsInDirectoryAtURL(U(path), false, nullptr);
    ASSERT_TRUE(children) << path;
    for (const FileURL& child : *children) {
      all.push_back((all[i].empty() ? "" : all[i] + "/") + child.lastPathComponent());
    }
  }
  // Each copy reads the source and so moves its access times: both start from the same.
  auto stamp = [&] {
    for (auto it = all.rbegin(); it != all.rend(); ++it) {
      ASSERT_EQ(::utimensat(AT_FDCWD, (t / ("src/" + *it)).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    }
  };
  stamp();
  ASSERT_EQ(clonetree((t / "src").c_str(), (t / "one").c_str(), kCloneAll, 1), 0);
  stamp();
  ASSERT_EQ(clonetree((t / "src").c_str(), (t / "many").c_str(), kCloneAll, kWorkers), 0);
  const TreeImage one = Image(t / "one");
  const TreeImage many = Image(t / "many");
  EXPECT_EQ(one.items.size(), all.size());
  EXPECT_EQ(one.linkGroups.size(), 2u) << "the shared file and the twice-linked one";
  EXPECT_TRUE(one == many);
  for (const auto& [path, item] : one.items) {
    ASSERT_TRUE(many.items.count(path)) << path;
    EXPECT_EQ(item, many.items.at(path)) << path;
  }

  // A copy into itself, and a failure part-way, as with one worker.
  ASSERT_EQ(clonetree((t / "src").c_str(), (t / "src/d2/copy").c_str(), kCloneAll, kWorkers), 0);
  EXPECT_FALSE(Exists(t / "src/d2/copy/d2/copy"));
  fault::Arm(30, fault::Action::Fail, ENOSPC);
  EXPECT_EQ(clonetree((t / "src").c_str(), (t / "cut").c_str(), kCloneAll, kWorkers), -1);
  EXPECT_EQ(errno, ENOSPC);
  fault::Disarm();
  ErrorRef error;
  EXPECT_FALSE(fm().copyItemAtURL(U(t / "none"), U(t / "x"), kWorkers, &error));
  EXPECT_EQ(error->code(), ENOENT);
}

struct Reports {
  std::vector<std::pair<std::string, int>> items;
};

PurgeTreeDecision Record(PurgeTreeState* state, const char* path, void* context) {
  int error = -1;
  EXPECT_EQ(purgetree_state_get_error(state, &error), 0);
  static_cast<Reports*>(context)->items.emplace_back(path, error);
  return PurgeTreeDecision::Proceed;
}

int Purge(const std::string& path, Reports* reports, unsigned workers) {
  PurgeTreeStateHandle state(purgetree_state_alloc());
  purgetree_state_set(state.get(), PurgeTreeOption::ErrorCallback, reinterpret_cast<const void*>(&Record));
  purgetree_state_set(state.get(), PurgeTreeOption::ErrorContext, reports);
  return purgetree(path.c_str(), state.get(), true, workers) == 0 ? 0 : errno;
}

TEST(ParallelWalkTest, RemovalTakesDirectoriesLastAndFailsAsTheSerialRemoval) {
  TempDir t;
  DisarmAtEnd disarm;
  // Wide and deep: the deep chain's directories are each emptied by a different item.
  PlantWideTree(t / "tree");
  std::string deep = t / "tree/deep";
  for (int i = 0; i < 60; ++i) deep += "/d";
  WriteFile(deep + "/leaf", "x");
  Reports reports;
  ASSERT_EQ(Purge(t / "tree", &reports, kWorkers), 0);
  EXPECT_TRUE(reports.items.empty());
  EXPECT_FALSE(Exists(t / "tree"));

  // One item that cannot be removed, with one worker and with several: the same failure,
  // one report, and everything else gone but the item's ancestors.
  for (const unsigned workers : {1u, kWorkers}) {
    PlantWideTree(t / "tree");
    fault::Arm(40, fault::Action::Fail, EPERM);
    Reports stuck;
    EXPECT_EQ(Purge(t / "tree", &stuck, workers), EPERM) << workers;
    fault::Disarm();
    ASSERT_EQ(stuck.items.size(), 1u) << workers;
    EXPECT_EQ(stuck.items[0].second, EPERM);
    ASSERT_TRUE(Exists(stuck.items[0].first)) << stuck.items[0].first;
    size_t left = 0;
    for (std::string p = stuck.items[0].first; p.size() > (t / "tree").size(); p.resize(p.rfind('/'))) {
      ++left;
    }
    const TreeImage image = Image(t / "tree");
    EXPECT_EQ(image.items.size(), left + 1) << "the item, its ancestors and the top";

    ErrorRef serial;
    ErrorRef parallel;
    // The first removal inside the tree, after the try to remove it as an empty directory.
    fault::Arm(2, fault::Action::Fail, EPERM);
    EXPECT_FALSE(fm().removeItemAtURL(U(t / "tree"), &serial));
    fault::Arm(2, fault::Action::Fail, EPERM);
    EXPECT_FALSE(fm().removeItemAtURL(U(t / "tree"), kWorkers, &parallel));
    fault::Disarm();
    EXPECT_EQ(*serial->localizedDescription(), *parallel->localizedDescription());
    EXPECT_EQ(serial->code(), parallel->code());
    ASSERT_TRUE(fm().removeItemAtURL(U(t / "tree"), kWorkers, nullptr));
    EXPECT_FALSE(Exists(t / "tree"));
  }
  // What is not a directory goes as with one worker; nothing there is ENOENT.
  WriteFile(t / "file", "x");
  EXPECT_EQ(Purge(t / "file", &reports, kWorkers), 0);
  EXPECT_EQ(Purge(t / "file", &reports, kWorkers), ENOENT);
}

TEST(ParallelWalkTest, OwnershipRefusesWhatTheSerialWalkRefuses) {
  if (!RunningAsRoot()) GTEST_SKIP() << "only root can give files to another user";
  TempDir t;
  PlantWideTree(t / "tree");
  MakeSymlink("../../shared", t / "tree/d5/e/up");
  for (const unsigned workers : {1u, kWorkers}) {
    const uid_t owner = 5000 + workers;
    LogCapture log;
    ErrorRef error;
    EXPECT_TRUE(fm().standardizeOwnershipAndValidateSymlinksAtURL(U(t / "tree"), owner, owner,
                                                                  workers, &error));
    // The names of linked files keep their owner, each with the refusal logged.
    for (const char* name : {"tree/shared", "tree/d3/e/f/again", "tree/d11/e/s"}) {
      EXPECT_TRUE(log.contains("Could not chown " + t / name + ": Too many links", 3)) << name;
    }
    const TreeImage image = Image(t / "tree");
    size_t reowned = 0;
    for (const auto& [path, item] : image.items) reowned += std::get<1>(item) == owner;
    EXPECT_EQ(reowned, image.items.size() - 15) << "all but the 15 names of linked files";
  }
  MakeSymlink("/etc", t / "tree/d9/e/f/escape");
  for (const unsigned workers : {1u, kWorkers}) {
    ErrorRef error;
    EXPECT_FALSE(fm().standardizeOwnershipAndValidateSymlinksAtURL(U(t / "tree"), 0, 0, workers,
                                                                   &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 70);
    EXPECT_EQ(*error->localizedDescription(), "invalid symlink at " + t / "tree/d9/e/f/escape");
  }
  for (const unsigned workers : {1u, kWorkers}) {
    ErrorRef error;
    EXPECT_FALSE(fm().standardizeOwnershipAndValidateSymlinksAtURL(U(t / "none"), 0, 0, workers,
                                                                   &error));
    EXPECT_EQ(*error->localizedDescription(),
              "Could not stat " + t / "none" + ": No such file or directory");
  }
}

}  // namespace
}  // namespace vx
