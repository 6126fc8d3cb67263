// The Linux file services under the file manager: removal, copy, directory chains and
// protection classes, on real trees.
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
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "platform/files/Beneath.h"
#include "platform/files/CloneTree.h"
#include "platform/files/DirChain.h"
#include "platform/files/DirectoryStream.h"
#include "platform/files/Fault.h"
#include "platform/files/ProtectionClass.h"
#include "platform/files/PurgeTree.h"
#include "platform/files/UniqueFd.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using namespace test;

struct DisarmAtEnd { ~DisarmAtEnd() { fault::Disarm(); } };

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

// Holds the soft descriptor limit at `extra` above the lowest free descriptor: new ones
// can only take that many slots.
struct DescriptorBudget {
  struct rlimit saved {};
  explicit DescriptorBudget(int extra) {
    ::getrlimit(RLIMIT_NOFILE, &saved);
    const int lowestFree = ::open("/", O_RDONLY);
    ::close(lowestFree);
    const struct rlimit tight = {static_cast<rlim_t>(lowestFree + extra), saved.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &tight);
  }
  ~DescriptorBudget() { ::setrlimit(RLIMIT_NOFILE, &saved); }
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

// `x` is the source's as it was before the copy: reading it may have moved its atime since.
void ExpectSameMetadata(const struct stat& x, const std::string& copy) {
  const struct stat y = Lstat(copy);
  EXPECT_EQ(std::tie(x.st_mode, x.st_uid, x.st_gid, x.st_mtim.tv_sec, x.st_mtim.tv_nsec, x.st_atim.tv_nsec),
            std::tie(y.st_mode, y.st_uid, y.st_gid, y.st_mtim.tv_sec, y.st_mtim.tv_nsec, y.st_atim.tv_nsec)) << copy;
}

std::string Attribute(const std::string& path, const char* name) {
  char value[64];
  const ssize_t n = ::lgetxattr(path.c_str(), name, value, sizeof value);
  return n < 0 ? std::strerror(errno) : std::string(value, n);
}

TEST(PurgeTreeTest, RemovesTreesButNeverWhatLinksPointTo) {
  TempDir t;
  WriteFile(t / "outside/kept", "keep");
  WriteFile(t / "tree/a/b/file", "x");
  MakeSymlink(t / "outside", t / "tree/a/b/to-dir");
  MakeSymlink(t / "outside", t / "top-link");
  Reports reports;
  // Named with a trailing slash, a link is still the link, not the directory behind it.
  for (const char* p : {"tree", "top-link/"}) EXPECT_EQ(Purge(t / p, &reports), 0) << p;
  EXPECT_FALSE(Exists(t / "tree") || Exists(t / "top-link"));
  EXPECT_EQ(ReadFile(t / "outside/kept"), "keep");

  EXPECT_EQ(Purge(t / "tree", &reports), ENOENT);
  EXPECT_TRUE(reports.items.empty()) << "an absent path is no item that failed";
  EXPECT_EQ(Purge(t / "outside", &reports, false), ENOTEMPTY);
}

TEST(PurgeTreeTest, ReportsEachStuckItemAndRemovesTheRest) {
  TempDir t;
  DisarmAtEnd disarm;
  const char* files[] = {"tree/d/one", "tree/two", "tree/three"};
  auto filesLeft = [&] { return std::count_if(files, files + 3, [&](const char* f) { return Exists(t / f); }); };
  // The first removal in a fresh tree (after the try to remove it as an empty directory)
  // fails: with EPERM while the callback lets the removal go on, with EIO while it stops it
  // at once, and with ENOENT as for an item that vanished (yet is still there), which is no
  // failure: its directory is read again.
  for (const int error : {EPERM, EIO, ENOENT}) {
    for (const char* f : files) WriteFile(t / f, "x");
    Reports reports;
    if (error == EIO) reports.decision = PurgeTreeDecision::Stop;
    fault::Arm(2, fault::Action::Fail, error);
    EXPECT_EQ(Purge(t / "tree", &reports), error == ENOENT ? 0 : error);
    ASSERT_EQ(reports.items.size(), 1u) << "the directories that keep it are not reported";
    EXPECT_EQ(reports.items[0].second, error);
    EXPECT_EQ(Exists(reports.items[0].first), error != ENOENT) << error;
    EXPECT_EQ(filesLeft(), error == EPERM ? 1 : error == EIO ? 3 : 0) << error;
  }
  EXPECT_FALSE(Exists(t / "tree"));
}

TEST(PurgeTreeTest, DirectoryWithoutWritePermissionKeepsItsEntries) {
  if (RunningAsRoot()) GTEST_SKIP() << "root may remove from any directory";
  TempDir t;
  WriteFile(t / "tree/locked/f", "x");
  ASSERT_EQ(::chmod((t / "tree/locked").c_str(), 0555), 0);
  Reports reports;
  EXPECT_EQ(Purge(t / "tree", &reports), EACCES);
  EXPECT_EQ(reports.items, (std::vector{std::pair(t / "tree/locked/f", EACCES)}));
}

// Long names fill many reads of the stream's buffer; entries removed while it reads, and
// a rewind, must neither lose a name nor hand one out twice.
TEST(DirectoryStreamTest, ListsADirectoryOfManyBuffersWholeAndAgainAfterARewind) {
  TempDir t(FastestTemporaryParent());
  auto nameOf = [](int i) { return std::to_string(i) + std::string(200, 'n'); };
  std::set<std::string> made;
  for (int i = 0; i < 1500; ++i) {
    WriteFile(t / nameOf(i), "");
    made.insert(nameOf(i));
  }
  auto readAll = [](DirectoryStream& stream) {
    std::multiset<std::string> names;
    DirentRecord entry;
    while (stream.Next(&entry)) names.emplace(entry.name);
    EXPECT_EQ(errno, 0);
    return names;
  };
  DirectoryStream stream(UniqueFd(::open(t.path().c_str(), O_RDONLY | O_DIRECTORY)));
  ASSERT_TRUE(stream);
  const std::multiset<std::string> first = readAll(stream);
  EXPECT_EQ(std::set<std::string>(first.begin(), first.end()), made);
  EXPECT_EQ(first.size(), made.size()) << "no name twice, no \".\" or \"..\"";

  for (int i = 0; i < 1500; i += 2) ASSERT_EQ(::unlink((t / nameOf(i)).c_str()), 0);
  ASSERT_TRUE(stream.Rewind());
  EXPECT_EQ(readAll(stream).size(), 750u);

  // What is not a directory, or no descriptor at all, fails and keeps failing.
  WriteFile(t / "file", "x");
  DirectoryStream notDirectory(UniqueFd(::open((t / "file").c_str(), O_RDONLY)));
  DirentRecord entry;
  for (int i = 0; i < 2; ++i) {
    EXPECT_FALSE(notDirectory.Next(&entry));
    EXPECT_EQ(errno, ENOTDIR);
  }
  DirectoryStream none;
  EXPECT_FALSE(none.Next(&entry));
  EXPECT_EQ(errno, EBADF);
}

// Deeper than both the descriptor budget and PATH_MAX: both walk by descriptors.
TEST(DeepTreeTest, CopiedAndRemovedWithABoundedNumberOfDescriptors) {
  TempDir t(FastestTemporaryParent());
  DisarmAtEnd disarm;
  MakeChain(t / "deep", 3000);
  const struct stat before = Lstat(t / "deep/d/d");
  DescriptorBudget budget(100);
  ASSERT_EQ(Clone(t / "deep", t / "copy"), 0);
  UniqueFd fd(::open((t / "copy").c_str(), O_RDONLY | O_DIRECTORY));
  int depth = 0;
  while (fd && (fd = UniqueFd(::openat(fd.get(), "d", O_RDONLY | O_DIRECTORY)))) ++depth;
  EXPECT_EQ(depth, 3000);
  ExpectSameMetadata(before, t / "copy/d/d");

  // A failure deep down (past the few files unlinked on the way down): everything around it
  // goes, its ancestors stay and are not reported.
  Reports reports;
  fault::Arm(25, fault::Action::Fail, EPERM);
  EXPECT_EQ(Purge(t / "deep", &reports), EPERM);
  fault::Disarm();
  ASSERT_EQ(reports.items.size(), 1u);
  EXPECT_GT(reports.items[0].first.size(), 5000u);
  EXPECT_EQ(Purge(t / "deep", &reports) + Purge(t / "copy", &reports), 0);
  EXPECT_FALSE(Exists(t / "deep") || Exists(t / "copy"));
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
  ASSERT_EQ(::chmod((t / "src/file").c_str(), 0640) + ::chmod((t / "src/dir").c_str(), 0750), 0);
  ASSERT_EQ(::lsetxattr((t / "src/file").c_str(), "user.test", "abc", 3, 0), 0);
  ASSERT_EQ(::lsetxattr((t / "src/dir").c_str(), "user.dir", "1", 1, 0), 0);
  const std::string paths[] = {"file", "dir/big", "hard1", "dir/link", "dangling", "dir", ""};
  const struct timespec times[2] = {{1'000'000'000, 123456789}, {1'000'000'100, 987654321}};
  std::vector<struct stat> before;
  for (const std::string& p : paths) {
    ASSERT_EQ(::utimensat(AT_FDCWD, (t / ("src/" + p)).c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << p;
    before.push_back(Lstat(t / ("src/" + p)));
  }

  ASSERT_EQ(Clone(t / "src", t / "dst"), 0);
  for (size_t i = 0; i < before.size(); ++i) ExpectSameMetadata(before[i], t / ("dst/" + paths[i]));
  EXPECT_EQ(Lstat(t / "dst/hard1").st_ino, Lstat(t / "dst/dir/hard2").st_ino) << "still one file";
  EXPECT_FALSE(Exists(t / "dst/fifo")) << "special files are left out";
  EXPECT_EQ(Attribute(t / "dst/file", "user.test") + Attribute(t / "dst/dir", "user.dir"), "abc1");
  EXPECT_EQ(ReadFile(t / "dst/dir/big"), big);
  EXPECT_EQ(ReadFile(t / "dst/dir/link"), "hello") << "a relative link resolves within the copy";
}

TEST(CloneTreeTest, ReplacesFilesMergesDirectoriesAndStopsAtTheFirstFailure) {
  TempDir t;
  DisarmAtEnd disarm;
  const char* files[][2] = {{"src/file", "new"}, {"src/sub/inner", "in"}, {"src/over-link", "plain"},
                            {"dst/file", "old content"}, {"dst/sub/extra", "stays"}, {"elsewhere", "untouched"}};
  for (const auto& [path, content] : files) WriteFile(t / path, content);
  ASSERT_EQ(::chmod((t / "dst/file").c_str(), 0444), 0);
  MakeSymlink(t / "elsewhere", t / "dst/over-link");

  ASSERT_EQ(Clone(t / "src", t / "dst"), 0);
  EXPECT_EQ(ReadFile(t / "dst/file"), "new");
  EXPECT_EQ(ReadFile(t / "dst/sub/extra") + ReadFile(t / "dst/sub/inner"), "staysin");
  EXPECT_TRUE(S_ISREG(Lstat(t / "dst/over-link").st_mode)) << "the link is replaced, not followed";
  EXPECT_EQ(ReadFile(t / "elsewhere"), "untouched");

  // A copy into itself ends, without a copy of the copy.
  ASSERT_EQ(Clone(t / "src", t / "src/sub/copy"), 0);
  EXPECT_FALSE(Exists(t / "src/sub/copy/sub/copy"));

  EXPECT_EQ(Clone(t / "src", t / "elsewhere"), EEXIST) << "a file where the directory goes";
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

TEST(DirChainTest, CreatesAncestorsAndNamesWhatStandsInTheWay) {
  TempDir t;
  DisarmAtEnd disarm;
  const mode_t mask = ::umask(022);
  ASSERT_EQ(dirchain((t / "a/b/c").c_str(), 0751), 0);
  for (const char* p : {"a", "a/b", "a/b/c"}) EXPECT_EQ(Lstat(t / p).st_mode, S_IFDIR | 0751) << p;
  EXPECT_EQ(dirchain((t / "x//y/z/").c_str(), 0755), 0);
  MakeSymlink(t / "a", t / "via-link");
  EXPECT_EQ(dirchain((t / "via-link/new/deeper").c_str(), 0755), 0);
  EXPECT_TRUE(Exists(t / "a/new/deeper")) << "an ancestor link to a directory is used";
  WriteFile(t / "file", "");
  EXPECT_EQ(dirchain((t / "file/g/h").c_str(), 0755), ENOTDIR);
  EXPECT_EQ(dirchain((t / "file").c_str(), 0755), EEXIST);
  ::umask(mask);

  // The final mkdir finds no parent (1), the parent's creation is refused (2).
  fault::Arm(2, fault::Action::Fail, EROFS);
  EXPECT_EQ(dirchain((t / "m/n").c_str(), 0755), EROFS);
  EXPECT_FALSE(Exists(t / "m"));
}

TEST(ProtectionClassTest, StoredBytesAndBadValues) {
  TempDir t;
  DisarmAtEnd disarm;
  WriteFile(t / "file", "x");
  UniqueFd fd(::open((t / "file").c_str(), O_RDONLY));
  ASSERT_EQ(SetProtectionClass(fd.get(), 4), 0) << std::strerror(errno);
  const int32_t four = 4;
  EXPECT_EQ(Attribute(t / "file", kProtectionClassAttribute), std::string(reinterpret_cast<const char*>(&four), 4));
  EXPECT_EQ(SetProtectionClass(fd.get(), -1) == -1 ? errno : 0, EINVAL);
  fault::Arm(1, fault::Action::Fail, EIO);
  EXPECT_EQ(SetProtectionClass(fd.get(), 2) == -1 ? errno : 0, EIO);
  EXPECT_EQ(GetProtectionClass(fd.get()), 4) << "the refused change left the class alone";
  ASSERT_EQ(::fsetxattr(fd.get(), kProtectionClassAttribute, "\x01\x02", 2, 0), 0);
  EXPECT_EQ(GetProtectionClass(fd.get()) == -1 ? errno : 0, EINVAL) << "a value we never wrote";
}

// What an application planted in its own tree cannot lead an open out of it, nor stall it.
TEST(BeneathTest, NoLinkNoParentNoWait) {
  TempDir dir;
  MakeDirs(dir / "tree/real/deeper");
  MakeDirs(dir / "outside");
  WriteFile(dir / "outside/secret", "secret");
  WriteFile(dir / "tree/real/deeper/file", "mine");
  MakeSymlink("../outside", dir / "tree/hop");
  MakeSymlink("../../outside/secret", dir / "tree/real/last");
  ASSERT_EQ(::mkfifo((dir / "tree/real/fifo").c_str(), 0600), 0);
  UniqueFd tree(::open((dir / "tree").c_str(), O_RDONLY | O_DIRECTORY));
  ASSERT_TRUE(tree);

  EXPECT_TRUE(OpenBeneath(tree.get(), "real/./deeper//file", O_RDONLY));
  EXPECT_TRUE(OpenBeneath(tree.get(), "", O_RDONLY | O_DIRECTORY));
  for (const char* escape : {"hop/secret", "real/last", "real/../../outside/secret", "/etc/passwd"}) {
    errno = 0;
    EXPECT_FALSE(OpenBeneath(tree.get(), escape, O_RDONLY)) << escape;
    EXPECT_NE(errno, 0) << escape;
  }
  // Creating through a planted link must not create at its target.
  EXPECT_FALSE(OpenBeneath(tree.get(), "hop/new", O_WRONLY | O_CREAT | O_EXCL, 0600));
  EXPECT_FALSE(Exists(dir / "outside/new"));

  UniqueFd real = OpenBeneath(tree.get(), "real", O_RDONLY | O_DIRECTORY);
  ASSERT_TRUE(real);
  struct stat st {};
  EXPECT_TRUE(OpenRegularFileAt(real.get(), "deeper/file", &st));
  EXPECT_EQ(st.st_size, 4);
  errno = 0;
  EXPECT_FALSE(OpenRegularFileAt(real.get(), "fifo"));  // would block without O_NONBLOCK
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(OpenRegularFileAt(real.get(), "last"));
  EXPECT_EQ(errno, ELOOP);
  EXPECT_FALSE(OpenRegularFileAt(tree.get(), "real"));
  EXPECT_EQ(errno, EISDIR);
}

}  // namespace
}  // namespace vx
