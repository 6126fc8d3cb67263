// The Linux file services under the file manager: removal, copy, directory chains and
// protection classes, on real trees.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "platform/CloneTree.h"
#include "platform/DirChain.h"
#include "platform/Fault.h"
#include "platform/ProtectionClass.h"
#include "platform/PurgeTree.h"
#include "platform/UniqueFd.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using test::Exists;
using test::MakeDirs;
using test::MakeSymlink;
using test::ReadFile;
using test::TempDir;
using test::WriteFile;

struct DisarmAtEnd {
  ~DisarmAtEnd() { fault::Disarm(); }
};

struct Reports {
  std::vector<std::pair<std::string, int>> items;
  PurgeTreeDecision decision = PurgeTreeDecision::Proceed;
};

PurgeTreeDecision Record(PurgeTreeState* state, const char* path, void* context) {
  int error = -1;
  EXPECT_EQ(purgetree_state_get_error(state, &error), 0);
  static_cast<Reports*>(context)->items.emplace_back(path, error);
  return static_cast<Reports*>(context)->decision;
}

// purgetree with a recording callback: 0 or its errno.
int Purge(const std::string& path, Reports* reports, bool recursive = true) {
  PurgeTreeStateHandle state(purgetree_state_alloc());
  purgetree_state_set(state.get(), PurgeTreeOption::ErrorCallback, reinterpret_cast<const void*>(&Record));
  purgetree_state_set(state.get(), PurgeTreeOption::ErrorContext, reports);
  return purgetree(path.c_str(), state.get(), recursive) == 0 ? 0 : errno;
}

int Clone(const std::string& from, const std::string& to) {
  return clonetree(from.c_str(), to.c_str(), kCloneAll) == 0 ? 0 : errno;
}

struct stat Lstat(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
  return st;
}

// Holds the soft descriptor limit at `extra` above the highest descriptor now open.
class DescriptorBudget {
 public:
  explicit DescriptorBudget(int extra) {
    ::getrlimit(RLIMIT_NOFILE, &saved_);
    int highest = 0;
    UniqueDir dir(::opendir("/proc/self/fd"));
    while (const dirent* e = ::readdir(dir.get())) highest = std::max(highest, std::atoi(e->d_name));
    struct rlimit tight = saved_;
    tight.rlim_cur = static_cast<rlim_t>(highest + 1 + extra);
    ::setrlimit(RLIMIT_NOFILE, &tight);
  }
  ~DescriptorBudget() { ::setrlimit(RLIMIT_NOFILE, &saved_); }

 private:
  struct rlimit saved_ {};
};

// Deep trees take seconds on this disk and a fraction of that in memory.
std::string FastestTemporaryParent() { return ::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : ""; }

// `levels` directories "d", one in the other, with a file "f" every 500 levels from the top.
void MakeChain(const std::string& top, int levels) {
  MakeDirs(top);
  UniqueFd fd(::open(top.c_str(), O_RDONLY | O_DIRECTORY));
  for (int i = 0; i < levels && fd; ++i) {
    ASSERT_EQ(::mkdirat(fd.get(), "d", 0755), 0);
    if (i % 500 == 0) UniqueFd(::openat(fd.get(), "f", O_WRONLY | O_CREAT, 0644));
    fd = UniqueFd(::openat(fd.get(), "d", O_RDONLY | O_DIRECTORY));
  }
}

TEST(PurgeTreeTest, RemovesTreesButNeverWhatLinksPointTo) {
  TempDir t;
  WriteFile(t / "outside/kept", "keep");
  WriteFile(t / "tree/a/b/file", "x");
  MakeDirs(t / "tree/empty");
  MakeSymlink(t / "outside/kept", t / "tree/a/to-file");
  MakeSymlink(t / "outside", t / "tree/a/b/to-dir");
  MakeSymlink(t / "outside", t / "top-link");
  Reports reports;
  EXPECT_EQ(Purge(t / "tree", &reports), 0);
  EXPECT_FALSE(Exists(t / "tree"));
  // Named with a trailing slash, a link is still the link, not the directory behind it.
  EXPECT_EQ(Purge(t / "top-link/", &reports), 0);
  EXPECT_FALSE(Exists(t / "top-link"));
  EXPECT_EQ(ReadFile(t / "outside/kept"), "keep");

  EXPECT_EQ(Purge(t / "tree", &reports), ENOENT);
  EXPECT_TRUE(reports.items.empty()) << "an absent path is no item that failed";
  EXPECT_EQ(Purge(t / "outside", &reports, false), ENOTEMPTY);
  int error = 0;
  EXPECT_EQ(purgetree_state_get_error(PurgeTreeStateHandle(purgetree_state_alloc()).get(), &error), -1)
      << "outside the callback no failure is being reported";
}

TEST(PurgeTreeTest, ReportsEachStuckItemAndRemovesTheRest) {
  TempDir t;
  DisarmAtEnd disarm;
  auto arrange = [&] {
    for (const char* p : {"tree/d/one", "tree/two", "tree/three"}) WriteFile(t / p, "x");
  };
  auto filesLeft = [&] { return Exists(t / "tree/d/one") + Exists(t / "tree/two") + Exists(t / "tree/three"); };

  arrange();
  Reports reports;
  fault::Arm(1, fault::Action::Fail, EPERM);
  EXPECT_EQ(Purge(t / "tree", &reports), EPERM);
  ASSERT_EQ(reports.items.size(), 1u) << "the directories that keep it are not reported";
  EXPECT_EQ(reports.items[0].second, EPERM);
  EXPECT_TRUE(Exists(reports.items[0].first));
  EXPECT_EQ(filesLeft(), 1);

  // An item that "vanished" while still there: reported as ENOENT, no failure, and its
  // directory is read again so that nothing stays.
  arrange();
  reports = {};
  fault::Arm(1, fault::Action::Fail, ENOENT);
  EXPECT_EQ(Purge(t / "tree", &reports), 0);
  EXPECT_FALSE(Exists(t / "tree"));
  EXPECT_EQ(reports.items.size(), 1u);

  arrange();
  reports = {};
  reports.decision = PurgeTreeDecision::Stop;
  fault::Arm(1, fault::Action::Fail, EIO);
  EXPECT_EQ(Purge(t / "tree", &reports), EIO);
  EXPECT_EQ(filesLeft(), 3) << "Stop ends the removal at once";
}

TEST(PurgeTreeTest, DirectoryWithoutWritePermissionKeepsItsEntries) {
  if (test::RunningAsRoot()) GTEST_SKIP() << "root may remove from any directory";
  TempDir t;
  WriteFile(t / "tree/locked/f", "x");
  WriteFile(t / "tree/free", "y");
  ASSERT_EQ(::chmod((t / "tree/locked").c_str(), 0555), 0);
  Reports reports;
  EXPECT_EQ(Purge(t / "tree", &reports), EACCES);
  ASSERT_EQ(reports.items.size(), 1u);
  EXPECT_EQ(reports.items[0], std::make_pair(t / "tree/locked/f", EACCES));
  EXPECT_FALSE(Exists(t / "tree/free"));
}

TEST(PurgeTreeTest, TenThousandLevelsWithABoundedNumberOfDescriptors) {
  TempDir t(FastestTemporaryParent());
  DisarmAtEnd disarm;
  MakeChain(t / "deep", 10000);
  DescriptorBudget budget(100);
  // A failure deep down (past the few files unlinked on the way down): everything around it
  // goes, its ancestors stay and are not reported.
  Reports reports;
  fault::Arm(25, fault::Action::Fail, EPERM);
  EXPECT_EQ(Purge(t / "deep", &reports), EPERM);
  fault::Disarm();
  ASSERT_EQ(reports.items.size(), 1u);
  EXPECT_GT(reports.items[0].first.size(), 19000u);
  EXPECT_EQ(Purge(t / "deep", &reports), 0);
  EXPECT_FALSE(Exists(t / "deep"));
}

void SetTimes(const std::string& path, long seconds) {
  const struct timespec times[2] = {{seconds, 123456789}, {seconds + 100, 987654321}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

// `x` is the source's as it was before the copy: reading it may have moved its atime since.
void ExpectSameMetadata(const struct stat& x, const std::string& copy) {
  const struct stat y = Lstat(copy);
  EXPECT_EQ(std::tie(x.st_mode, x.st_uid, x.st_gid), std::tie(y.st_mode, y.st_uid, y.st_gid)) << copy;
  EXPECT_EQ(std::tie(x.st_mtim.tv_sec, x.st_mtim.tv_nsec, x.st_atim.tv_nsec),
            std::tie(y.st_mtim.tv_sec, y.st_mtim.tv_nsec, y.st_atim.tv_nsec)) << copy;
}

std::string Attribute(const std::string& path, const char* name) {
  char value[64];
  const ssize_t n = ::lgetxattr(path.c_str(), name, value, sizeof value);
  return n < 0 ? std::strerror(errno) : std::string(value, n);
}

TEST(CloneTreeTest, CopiesDataLinksAttributesModesAndTimes) {
  TempDir t;
  const std::string big(300 * 1024 + 7, 'z');
  WriteFile(t / "src/file", "hello");
  WriteFile(t / "src/dir/big", big);
  WriteFile(t / "src/hard1", "shared");
  ASSERT_EQ(::link((t / "src/hard1").c_str(), (t / "src/dir/hard2").c_str()), 0);
  MakeSymlink("../file", t / "src/dir/link");
  MakeSymlink("/nonexistent/target", t / "src/dangling");
  ASSERT_EQ(::mkfifo((t / "src/fifo").c_str(), 0600), 0);
  ASSERT_EQ(::chmod((t / "src/file").c_str(), 0640), 0);
  ASSERT_EQ(::chmod((t / "src/dir").c_str(), 0750), 0);
  ASSERT_EQ(::lsetxattr((t / "src/file").c_str(), "user.test", "abc", 3, 0), 0);
  ASSERT_EQ(::lsetxattr((t / "src/dir").c_str(), "user.dir", "1", 1, 0), 0);
  const std::string paths[] = {"file", "dir/big", "hard1", "dir/link", "dangling", "dir", ""};
  std::vector<struct stat> before;
  for (const std::string& p : paths) SetTimes(t / ("src/" + p), 1'000'000'000);
  for (const std::string& p : paths) before.push_back(Lstat(t / ("src/" + p)));

  ASSERT_EQ(Clone(t / "src", t / "dst"), 0);
  for (size_t i = 0; i < before.size(); ++i) ExpectSameMetadata(before[i], t / ("dst/" + paths[i]));
  EXPECT_EQ(Lstat(t / "dst/hard1").st_ino, Lstat(t / "dst/dir/hard2").st_ino) << "still one file";
  EXPECT_FALSE(Exists(t / "dst/fifo")) << "special files are left out";
  EXPECT_EQ(Attribute(t / "dst/file", "user.test"), "abc");
  EXPECT_EQ(Attribute(t / "dst/dir", "user.dir"), "1");
  EXPECT_EQ(ReadFile(t / "dst/dir/big"), big);
  EXPECT_EQ(ReadFile(t / "dst/dir/link"), "hello") << "a relative link resolves within the copy";
}

TEST(CloneTreeTest, ReplacesFilesMergesDirectoriesAndStopsAtTheFirstFailure) {
  TempDir t;
  DisarmAtEnd disarm;
  WriteFile(t / "src/file", "new");
  WriteFile(t / "src/sub/inner", "in");
  WriteFile(t / "src/over-link", "plain");
  WriteFile(t / "dst/file", "old content");
  ASSERT_EQ(::chmod((t / "dst/file").c_str(), 0444), 0);
  WriteFile(t / "dst/sub/extra", "stays");
  WriteFile(t / "elsewhere", "untouched");
  MakeSymlink(t / "elsewhere", t / "dst/over-link");

  ASSERT_EQ(Clone(t / "src", t / "dst"), 0);
  EXPECT_EQ(ReadFile(t / "dst/file"), "new");
  EXPECT_EQ(ReadFile(t / "dst/sub/extra") + ReadFile(t / "dst/sub/inner"), "staysin");
  EXPECT_TRUE(S_ISREG(Lstat(t / "dst/over-link").st_mode)) << "the link is replaced, not followed";
  EXPECT_EQ(ReadFile(t / "elsewhere"), "untouched");

  // A copy into itself ends, without a copy of the copy.
  ASSERT_EQ(Clone(t / "src", t / "src/sub/copy"), 0);
  EXPECT_FALSE(Exists(t / "src/sub/copy/sub/copy"));

  WriteFile(t / "plain", "x");
  EXPECT_EQ(Clone(t / "src", t / "plain"), EEXIST) << "a file where the directory goes";
  EXPECT_EQ(Clone(t / "missing", t / "out"), ENOENT);
  ASSERT_EQ(::mkfifo((t / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(Clone(t / "pipe", t / "pipe-copy"), ENOTSUP);
  fault::Arm(4, fault::Action::Fail, ENOSPC);
  EXPECT_EQ(Clone(t / "src", t / "fresh"), ENOSPC);
}

TEST(CloneTreeTest, ReplacedFileIsOldOrNewAfterACrashAtAnyStep) {
  TempDir t;
  WriteFile(t / "src", std::string(100000, 'n'));
  bool finished = false;
  for (int n = 1; n < 40 && !finished; ++n) {
    WriteFile(t / "dst", "old");
    const pid_t child = ::fork();
    if (child == 0) {
      fault::Arm(n, fault::Action::Crash, 0);
      ::_exit(Clone(t / "src", t / "dst"));
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    finished = WIFEXITED(status);
    EXPECT_EQ(finished ? WEXITSTATUS(status) : WTERMSIG(status), finished ? 0 : SIGKILL);
    const std::string now = ReadFile(t / "dst");
    EXPECT_TRUE(now == "old" || now == ReadFile(t / "src")) << "crash at mutation " << n;
  }
  EXPECT_TRUE(finished);
}

TEST(CloneTreeTest, CrossDeviceFromSharedMemory) {
  TempDir t;
  struct stat shm {};
  if (::stat("/dev/shm", &shm) != 0 || shm.st_dev == Lstat(t.path()).st_dev) {
    GTEST_SKIP() << "no /dev/shm on another file system than " << t.path();
  }
  TempDir memory("/dev/shm");
  const std::string data(1 << 20, 'q');
  WriteFile(memory / "src/sub/data", data);
  MakeSymlink("sub/data", memory / "src/link");
  SetTimes(memory / "src/sub/data", 1'234'567'890);
  const struct stat before = Lstat(memory / "src/sub/data");
  ASSERT_EQ(Clone(memory / "src", t / "from-shm"), 0);
  ExpectSameMetadata(before, t / "from-shm/sub/data");
  EXPECT_EQ(ReadFile(t / "from-shm/link"), data);
}

TEST(CloneTreeTest, DeeperThanTheDescriptorBudget) {
  TempDir t(FastestTemporaryParent());
  MakeChain(t / "deep", 1500);
  const struct stat before = Lstat(t / "deep/d/d");
  {
    DescriptorBudget budget(100);
    ASSERT_EQ(Clone(t / "deep", t / "copy"), 0);
  }
  UniqueFd fd(::open((t / "copy").c_str(), O_RDONLY | O_DIRECTORY));
  int depth = 0;
  while (fd && (fd = UniqueFd(::openat(fd.get(), "d", O_RDONLY | O_DIRECTORY)))) ++depth;
  EXPECT_EQ(depth, 1500);
  EXPECT_TRUE(Exists(t / "copy/f"));
  ExpectSameMetadata(before, t / "copy/d/d");
}

TEST(DirChainTest, CreatesAncestorsAndNamesWhatStandsInTheWay) {
  TempDir t;
  DisarmAtEnd disarm;
  const mode_t mask = ::umask(022);
  ASSERT_EQ(dirchain((t / "a/b/c").c_str(), 0751), 0);
  for (const char* p : {"a", "a/b", "a/b/c"}) EXPECT_EQ(Lstat(t / p).st_mode, S_IFDIR | 0751) << p;
  EXPECT_EQ(dirchain((t / "a/b/c//").c_str(), 0755), EEXIST);
  EXPECT_EQ(dirchain((t / "x//y/z/").c_str(), 0755), 0);
  MakeSymlink(t / "a", t / "via-link");
  EXPECT_EQ(dirchain((t / "via-link/new/deeper").c_str(), 0755), 0);
  EXPECT_TRUE(Exists(t / "a/new/deeper")) << "an ancestor link to a directory is used";
  WriteFile(t / "file", "");
  EXPECT_EQ(dirchain((t / "file/g/h").c_str(), 0755), ENOTDIR);
  EXPECT_EQ(dirchain((t / "file").c_str(), 0755), EEXIST);

  UniqueFd cwd(::open(".", O_RDONLY | O_DIRECTORY));
  ASSERT_EQ(::chdir(t.path().c_str()), 0);
  EXPECT_EQ(dirchain("rel/one/two", 0755), 0);
  ASSERT_EQ(::fchdir(cwd.get()), 0);
  ::umask(mask);
  EXPECT_TRUE(Exists(t / "rel/one/two"));

  // The final mkdir finds no parent (1), the parent's creation is refused (2).
  fault::Arm(2, fault::Action::Fail, EROFS);
  EXPECT_EQ(dirchain((t / "m/n").c_str(), 0755), EROFS);
  EXPECT_FALSE(Exists(t / "m"));
}

TEST(ProtectionClassTest, DefaultSetGetBadValuesAndSharedMemory) {
  TempDir t;
  DisarmAtEnd disarm;
  WriteFile(t / "file", "x");
  for (const std::string& path : {t / "file", t.path()}) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY));
    EXPECT_EQ(GetProtectionClass(fd.get()), kDefaultProtectionClass);
    ASSERT_EQ(SetProtectionClass(fd.get(), 4), 0) << std::strerror(errno);
    EXPECT_EQ(GetProtectionClass(fd.get()), 4);
    const int32_t four = 4;
    EXPECT_EQ(Attribute(path, kProtectionClassAttribute), std::string(reinterpret_cast<const char*>(&four), 4));
  }
  UniqueFd fd(::open((t / "file").c_str(), O_RDONLY));
  EXPECT_EQ(SetProtectionClass(fd.get(), -1) == -1 ? errno : 0, EINVAL);
  fault::Arm(1, fault::Action::Fail, EIO);
  EXPECT_EQ(SetProtectionClass(fd.get(), 2) == -1 ? errno : 0, EIO);
  EXPECT_EQ(GetProtectionClass(fd.get()), 4) << "the refused change left the class alone";
  ASSERT_EQ(::fsetxattr(fd.get(), kProtectionClassAttribute, "\x01\x02", 2, 0), 0);
  EXPECT_EQ(GetProtectionClass(fd.get()) == -1 ? errno : 0, EINVAL) << "a value we never wrote";

  if (::access("/dev/shm", W_OK) != 0) return;
  TempDir memory("/dev/shm");
  WriteFile(memory / "file", "x");
  fd = UniqueFd(::open((memory / "file").c_str(), O_RDONLY));
  if (SetProtectionClass(fd.get(), 3) == 0) {
    EXPECT_EQ(GetProtectionClass(fd.get()), 3);
  } else {
    EXPECT_EQ(errno, ENOTSUP) << "a tmpfs without user attributes says so";
    EXPECT_EQ(GetProtectionClass(fd.get()) == -1 ? errno : 0, ENOTSUP);
  }
}

}  // namespace
}  // namespace vx
