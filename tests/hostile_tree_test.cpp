// Trees written by someone who wants the privileged file layer to act outside them: links
// swapped in for directories while a walk, a copy or a removal runs, FIFOs where files were,
// files linked in from outside, names longer than any buffer, links that climb out through
// other links. Each test plants the attack and proves that nothing outside the tree is read,
// written, moved, removed or given away, and that nothing waits or crashes. The races run
// for a bounded number of rounds and a bounded time, so every test ends.
#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "AppMigrator/ItemCensus.h"
#include "filemanager/VXFileManager.h"
#include "platform/files/AtomicFile.h"
#include "platform/files/Beneath.h"
#include "platform/files/CloneTree.h"
#include "platform/files/DirHarvest.h"
#include "platform/files/DirectoryNodes.h"
#include "platform/files/DirentRecords.h"
#include "platform/files/PurgeTree.h"
#include "support/FileDigest.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using Clock = std::chrono::steady_clock;
using Identity = std::pair<dev_t, ino_t>;
using Items = std::vector<std::pair<std::string, struct stat>>;

const VXFileManager& fm() { return VXFileManager::defaultManager(); }
FileURL URL(const std::string& path) { return FileURL::fileURLWithPath(path); }

constexpr int kRounds = 150;
constexpr auto kRaceTime = std::chrono::seconds(3);

// Exchanges two names as fast as it can, atomically, until it is destroyed.
class Swapper {
 public:
  Swapper(std::string a, std::string b)
      : thread_([this, a = std::move(a), b = std::move(b)] {
          for (int i = 0; i < 5'000'000 && !stop_; ++i) {
            ::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE);
          }
        }) {}
  ~Swapper() {
    stop_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// Runs `round` until kRounds have run or kRaceTime has passed.
void Race(const std::function<void()>& round) {
  const auto end = Clock::now() + kRaceTime;
  for (int i = 0; i < kRounds && Clock::now() < end && !::testing::Test::HasFatalFailure(); ++i) {
    round();
  }
}

// Everything below `path`, links not followed, by descriptors: the swappers may still run.
void ScanAt(int dirfd, const std::string& name, const std::string& path, Items* out) {
  struct stat st {};
  if (::fstatat(dirfd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return;
  out->emplace_back(path, st);
  if (!S_ISDIR(st.st_mode)) return;
  const int fd = ::openat(dirfd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return;
  DIR* dir = ::fdopendir(fd);
  if (!dir) {
    ::close(fd);
    return;
  }
  std::vector<std::string> names;
  while (const dirent* e = ::readdir(dir)) {
    if (std::strcmp(e->d_name, ".") && std::strcmp(e->d_name, "..")) names.push_back(e->d_name);
  }
  for (const std::string& child : names) ScanAt(::dirfd(dir), child, path + "/" + child, out);
  ::closedir(dir);
}

Items Scan(const std::string& path) {
  Items out;
  ScanAt(AT_FDCWD, path, path, &out);
  return out;
}

// An outside directory that must come through every attack as it was.
class Outside {
 public:
  explicit Outside(const std::string& path) : path_(path) {
    for (int i = 0; i < 20; ++i) test::WriteFile(path + "/o" + std::to_string(i), kSecret);
    test::WriteFile(path + "/f1", kSecret);
    // Owned by nobody a walk gives files to, so that a walk that reached in here and was
    // then undone by the next one (back to root) still shows.
    if (test::RunningAsRoot()) {
      for (const auto& [item, st] : Scan(path_)) ::lchown(item.c_str(), 1111, 2222);
    }
    before_ = Scan(path_);
  }
  static constexpr const char* kSecret = "outside-secret";
  const std::string& path() const { return path_; }
  std::set<Identity> identities() const {
    std::set<Identity> ids;
    for (const auto& [p, st] : before_) ids.emplace(st.st_dev, st.st_ino);
    return ids;
  }

  // Same names, same owners, same content.
  void ExpectUntouched() const {
    const Items now = Scan(path_);
    ASSERT_EQ(now.size(), before_.size()) << "items appeared in or vanished from " << path_;
    for (size_t i = 0; i < now.size(); ++i) {
      EXPECT_EQ(now[i].first, before_[i].first);
      EXPECT_EQ(now[i].second.st_uid, before_[i].second.st_uid) << now[i].first << " given away";
      EXPECT_EQ(now[i].second.st_gid, before_[i].second.st_gid) << now[i].first << " given away";
      if (S_ISREG(now[i].second.st_mode)) {
        EXPECT_EQ(test::ReadFile(now[i].first), kSecret);
      }
    }
  }

 private:
  std::string path_;
  Items before_;
};

// A tree with a directory "a" and an absolute link "l" to the outside, for swapping.
void PlantSwappableTree(const std::string& root, const std::string& outside) {
  for (int i = 0; i < 10; ++i) test::WriteFile(root + "/a/f" + std::to_string(i), "inside");
  test::WriteFile(root + "/a/sub/g", "inside");
  test::MakeSymlink(outside, root + "/l");
}

class HostileTreeTest : public ::testing::Test {
 protected:
  test::TempDir tmp;
  Outside outside{tmp / "outside"};
  std::string root = tmp / "root";
};

TEST_F(HostileTreeTest, WalkNeverVisitsWhatASwappedLinkLeadsTo) {
  PlantSwappableTree(root, outside.path());
  const std::set<Identity> outsideIds = outside.identities();
  Swapper swapper(root + "/a", root + "/l");
  int escaped = 0;
  Race([&] {
    fm()._traverseDirectory(URL(root), nullptr, [&](const TraversalEntry& entry, auto*) {
      struct stat st {};
      EXPECT_EQ(::fstat(entry.fd, &st), 0) << entry.path;
      escaped += outsideIds.count({st.st_dev, st.st_ino}) > 0;
      return true;
    });
  });
  EXPECT_EQ(escaped, 0);
}

TEST_F(HostileTreeTest, OwnershipIsNeverGivenAwayOutsideTheTree) {
  if (!test::RunningAsRoot()) GTEST_SKIP() << "only root can give files to another user";
  PlantSwappableTree(root, outside.path());
  // A file of the outside linked into the tree keeps its owner, and the refusal is logged.
  ASSERT_EQ(::link((outside.path() + "/f1").c_str(), (root + "/a/hardlink").c_str()), 0);
  {
    ASSERT_EQ(::unlink((root + "/l").c_str()), 0);
    test::LogCapture log;
    EXPECT_TRUE(fm().standardizeOwnershipAndValidateSymlinksAtURL(URL(root), 4321, 8765, nullptr));
    EXPECT_TRUE(log.contains("Could not chown " + root + "/a/hardlink: Too many links", 3));
    struct stat st {};
    ASSERT_EQ(::lstat((root + "/a/f0").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 4321u);
    outside.ExpectUntouched();
    test::MakeSymlink(outside.path(), root + "/l");
  }
  Swapper swapper(root + "/a", root + "/l");
  // Several workers reopen queued directories by name later than one walker would: the
  // window a swap has to send one of them outside is wider.
  Race([&] {
    fm().standardizeOwnershipAndValidateSymlinksAtURL(URL(root), 4321, 8765, nullptr);
    fm().standardizeOwnershipAndValidateSymlinksAtURL(URL(root), 0, 0, nullptr);
    fm().standardizeOwnershipAndValidateSymlinksAtURL(URL(root), 4321, 8765, 4, nullptr);
    fm().standardizeOwnershipAndValidateSymlinksAtURL(URL(root), 0, 0, 4, nullptr);
  });
  outside.ExpectUntouched();
}

TEST_F(HostileTreeTest, CopyNeverReadsThroughASwappedLink) {
  PlantSwappableTree(root, outside.path());
  Swapper swapper(root + "/a", root + "/l");
  int round = 0;
  Race([&] {
    const std::string copy = tmp / ("copy" + std::to_string(round));
    clonetree(root.c_str(), copy.c_str(), kCloneAll, 1 + round++ % 2 * 3);
    for (const auto& [path, st] : Scan(copy)) {
      if (S_ISREG(st.st_mode)) {
        ASSERT_NE(test::ReadFile(path), Outside::kSecret) << path;
      }
    }
  });
  outside.ExpectUntouched();
}

TEST_F(HostileTreeTest, CopiedHardLinksNeverReachThroughASwappedDestination) {
  // The source links one file twice; the destination's first directory is swapped for a
  // link to the outside, where a file of the same name waits to be linked in.
  test::WriteFile(root + "/sub/f1", "inside");
  test::MakeDirs(root + "/z");
  ASSERT_EQ(::link((root + "/sub/f1").c_str(), (root + "/z/f2").c_str()), 0);
  const std::string copy = tmp / "copy";
  test::MakeDirs(copy + "/sub");
  test::MakeSymlink(outside.path(), copy + "/evil");
  struct stat victim {};
  ASSERT_EQ(::stat((outside.path() + "/f1").c_str(), &victim), 0);
  {
    Swapper swapper(copy + "/sub", copy + "/evil");
    int round = 0;
    Race([&] {
      clonetree(root.c_str(), copy.c_str(), kCloneAll, 1 + round++ % 2 * 3);
      for (const auto& [path, st] : Scan(copy)) {
        ASSERT_FALSE(st.st_dev == victim.st_dev && st.st_ino == victim.st_ino) << path;
      }
    });
  }
  outside.ExpectUntouched();
}

TEST_F(HostileTreeTest, RemovalNeverReachesThroughASwappedLink) {
  // With several workers a queued directory is opened again by name, later: a wider window.
  Race([&] {
    for (const unsigned workers : {1u, 4u}) {
      fm().removeItemAtURL(URL(root), nullptr);
      PlantSwappableTree(root, outside.path());
      Swapper swapper(root + "/a", root + "/l");
      fm().removeItemAtURL(URL(root), workers, nullptr);
    }
  });
  fm().removeItemAtURL(URL(root), nullptr);
  outside.ExpectUntouched();
}

// Deep walks hold few descriptors and find a directory again from afar, by names, or
// through "..". Whichever way, what they reach must be the directory that was met.
TEST_F(HostileTreeTest, DeepDirectoriesAreFoundAgainOnlyAsTheOnesMet) {
  constexpr int kLevels = 200;  // several strides of names below the root
  std::string chain = "d";
  for (int i = 1; i < kLevels; ++i) chain += "/d";
  test::MakeDirs(root + "/" + chain);
  UniqueFd top(::open(root.c_str(), O_RDONLY | O_DIRECTORY));
  FileIdentity rootId;
  ASSERT_TRUE(IdentityOf(top.get(), &rootId));
  DirectoryNodes tree(std::move(top), rootId);
  std::vector<DirectoryNode*> nodes{tree.root()};
  UniqueFd level(::open(root.c_str(), O_RDONLY | O_DIRECTORY));
  for (int i = 0; i < kLevels; ++i) {
    level = OpenDirectoryAt(level.get(), "d");
    FileIdentity id;
    ASSERT_TRUE(level && IdentityOf(level.get(), &id));
    // Only the middle one keeps its descriptor: the rest are found by names.
    nodes.push_back(tree.Add(nodes.back(), "d", id,
                             i == kLevels / 2 ? UniqueFd(::dup(level.get())) : UniqueFd()));
  }
  const auto identity = [](const SharedFd& fd) {
    FileIdentity id;
    return fd && IdentityOf(fd->get(), &id) ? id : FileIdentity{};
  };
  ASSERT_EQ(identity(tree.Open(nodes.back())), nodes.back()->identity);

  // An ancestor replaced by a look-alike chain, then by a link to the real one.
  DirectoryNode* deep = nodes[kLevels / 2 - 1];  // nothing held between it and the root
  ASSERT_EQ(::rename((root + "/d").c_str(), (root + "/real").c_str()), 0);
  test::MakeDirs(root + "/" + chain);
  errno = 0;
  EXPECT_FALSE(tree.Open(deep));
  EXPECT_EQ(errno, ESTALE);
  fm().removeItemAtURL(URL(root + "/d"), nullptr);
  test::MakeSymlink("real", root + "/d");
  EXPECT_FALSE(tree.Open(deep));
  EXPECT_EQ(errno, ELOOP);
  ASSERT_EQ(::unlink((root + "/d").c_str()), 0);
  ASSERT_EQ(::rename((root + "/real").c_str(), (root + "/d").c_str()), 0);

  // The held directory moved away: its ".." is not the parent met, which is found by names.
  DirectoryNode* held = nodes[kLevels / 2 + 1];
  const std::string heldPath = root + "/" + chain.substr(0, 2 * (kLevels / 2 + 1) - 1);
  ASSERT_EQ(::rename(heldPath.c_str(), (root + "/moved").c_str()), 0);
  EXPECT_EQ(identity(tree.OpenParent(held)), held->parent->identity);
}

TEST_F(HostileTreeTest, MeasuringNeverCountsWhatASwappedLinkLeadsTo) {
  PlantSwappableTree(root, outside.path());
  // Reached only through the link: as "a/sub" while "a" is swapped for it.
  test::WriteFile(outside.path() + "/sub/big", std::string(4 << 20, 'b'));
  Swapper swapper(root + "/a", root + "/l");
  Race([&] {
    ASSERT_LT(fm().diskUsageForURL(URL(root)), 1u << 20);
    ASSERT_LT(fm().diskUsageForURL(URL(root), 4), 1u << 20);
  });
}

// The census takes the listing's word for an entry's type wherever it can; a directory
// swapped for a link after it was listed must still not be entered, and a FIFO never opened.
TEST_F(HostileTreeTest, CensusCountsByTypeAndNeverThroughASwappedLink) {
  PlantSwappableTree(root, outside.path());
  ASSERT_EQ(::mkfifo((root + "/a/fifo").c_str(), 0600), 0);
  const ItemCensus whole = CensusOfItemAtPath(root);
  EXPECT_TRUE(whole.exists && whole.complete);
  EXPECT_EQ(whole.files, 11u);
  EXPECT_EQ(whole.bytes, 66u);
  EXPECT_EQ(whole.others, 2u) << "the link and the FIFO";

  test::WriteFile(outside.path() + "/sub/big", std::string(1 << 20, 'b'));
  Swapper swapper(root + "/a", root + "/l");
  Race([&] {
    const ItemCensus census = CensusOfItemAtPath(root);
    ASSERT_LE(census.bytes, 66u);
    ASSERT_LE(census.files, 11u);
  });
}

// Releases a reader that has waited on a FIFO for too long, and remembers that one did.
class FifoWatchdog {
 public:
  explicit FifoWatchdog(std::vector<std::string> fifos)
      : thread_([this, fifos = std::move(fifos)] {
          while (!stop_) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            if (Clock::now() - Clock::time_point(Clock::duration(started_.load())) <
                std::chrono::seconds(2)) {
              continue;
            }
            for (const std::string& fifo : fifos) {
              const int fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
              if (fd >= 0) {
                waited_ = true;
                ::close(fd);
              }
            }
          }
        }) {}
  ~FifoWatchdog() {
    stop_ = true;
    thread_.join();
  }
  // Around each operation that must not wait.
  void Start() { started_ = Clock::now().time_since_epoch().count(); }
  void Stop() { started_ = Clock::time_point::max().time_since_epoch().count(); }
  bool waited() const { return waited_; }

 private:
  std::atomic<bool> stop_{false};
  std::atomic<bool> waited_{false};
  std::atomic<Clock::rep> started_{Clock::time_point::max().time_since_epoch().count()};
  std::thread thread_;
};

TEST_F(HostileTreeTest, FifosNeverMakeAnyoneWait) {
  const std::string fifo = tmp / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  FifoWatchdog watchdog({fifo, root + "/f", root + "/p"});
  test::LogCapture log;

  watchdog.Start();
  EXPECT_EQ(VXCreateSHA256Digest(URL(fifo)), std::nullopt);
  int32_t protectionClass = 0;
  ErrorRef error;
  EXPECT_FALSE(fm().dataProtectionClassOfItemAtURL(URL(fifo), &protectionClass, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(*error->localizedDescription(), "Failed to open " + fifo + " : Invalid argument");
  EXPECT_FALSE(fm().setDataProtectionClassOfItemAtURL(URL(fifo), 3, nullptr, &error));
  int readError = 0;
  EXPECT_EQ(ReadFileContents(fifo, &readError), std::nullopt);
  EXPECT_EQ(readError, EINVAL);
  watchdog.Stop();
  EXPECT_TRUE(log.contains("failed to open " + fifo + " : Invalid argument", 3));

  // A FIFO exchanged with a file between the copier's look and its open.
  test::WriteFile(root + "/f", "data");
  ASSERT_EQ(::mkfifo((root + "/p").c_str(), 0600), 0);
  {
    Swapper swapper(root + "/f", root + "/p");
    int round = 0;
    Race([&] {
      const std::string copy = tmp / ("copy" + std::to_string(round++));
      watchdog.Start();
      // Either copy is fine, the file's or a failure at the FIFO: only waiting is not.
      (void)clonetree(root.c_str(), copy.c_str(), kCloneAll);
      watchdog.Stop();
    });
  }
  EXPECT_FALSE(watchdog.waited());
}

TEST_F(HostileTreeTest, LinksThroughLinksCannotLeaveTheBase) {
  test::MakeDirs(root);
  test::MakeSymlink(".", root + "/d");
  test::MakeSymlink("d/../outside/o1", root + "/esc");
  test::MakeSymlink("d/../outside/not-yet", root + "/later");
  test::MakeSymlink("d/../root/d", root + "/back");
  test::LogCapture log;
  EXPECT_EQ(fm().realPathForURL(URL(root + "/esc"), URL(root)), std::nullopt);
  EXPECT_TRUE(log.contains("because components diverge at root != outside", 3));
  EXPECT_EQ(fm().realPathForURL(URL(root + "/later"), URL(root)), std::nullopt);
  // Where a link leads through another and comes back, it is inside.
  auto back = fm().realPathForURL(URL(root + "/back"), URL(root));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->path(), root);

  ErrorRef error;
  EXPECT_FALSE(fm().standardizeOwnershipAndValidateSymlinksAtURL(URL(root), ::getuid(),
                                                                 ::getgid(), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 70);
}

TEST_F(HostileTreeTest, ALiteralPrivateTreeIsJudgedLikeAnyOther) {
  // It makes /private at the machine's root, outside any test directory: only on request.
  const char* allowed = std::getenv("VX_TEST_MACHINE_ROOT");
  if (!allowed || std::string(allowed) != "1") {
    GTEST_SKIP() << "writes /private at the machine's root; set VX_TEST_MACHINE_ROOT=1 to run it";
  }
  if (!test::RunningAsRoot()) GTEST_SKIP() << "only root can make a directory in /";
  struct stat st {};
  if (::lstat("/private", &st) == 0 && !S_ISDIR(st.st_mode)) GTEST_SKIP() << "/private is an alias";
  const bool madePrivate = ::mkdir("/private", 0755) == 0;
  {
    test::TempDir device("/private");
    const std::string base = device / "var/containers/X";
    test::WriteFile(base + "/dir/file", "x");
    test::MakeSymlink("../dir/file", base + "/dir/sibling");
    test::MakeSymlink("../../../../outside", base + "/up");
    auto sibling = fm().realPathForURL(URL(base + "/dir/sibling"), URL(base));
    ASSERT_TRUE(sibling);
    EXPECT_EQ(sibling->path(), base + "/dir/file");
    auto plain = fm().realPathForURL(URL(base + "/dir/file"), URL(base));
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->path(), base + "/dir/file");
    EXPECT_EQ(fm().realPathForURL(URL(base + "/up"), URL(base)), std::nullopt);
  }
  if (madePrivate) ::rmdir("/private");
}

TEST_F(HostileTreeTest, MovesAcrossFileSystemsKeepWhatTheyCannotCarry) {
  std::string why;
  auto other = test::TempDirOnAnotherFileSystem(tmp.path(), &why);
  if (!other) GTEST_SKIP() << why;
  const test::TempDir& shm = *other;

  const std::string source = shm / "source";
  test::WriteFile(source + "/deep/file", std::string(100000, 'z'));
  test::MakeSymlink("deep/file", source + "/link");
  ASSERT_EQ(::mkfifo((source + "/fifo").c_str(), 0640), 0);
  const bool asRoot = test::RunningAsRoot();
  if (asRoot) {
    ASSERT_EQ(::mknod((source + "/null").c_str(), S_IFCHR | 0600, ::makedev(1, 3)), 0);
  }
  ASSERT_TRUE(fm().moveItemAtURL(URL(source), URL(tmp / "moved"), nullptr));
  EXPECT_FALSE(test::Exists(source));
  EXPECT_EQ(test::ReadFile(tmp / "moved/deep/file"), std::string(100000, 'z'));
  struct stat st {};
  ASSERT_EQ(::lstat((tmp / "moved/link").c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  ASSERT_EQ(::lstat((tmp / "moved/fifo").c_str(), &st), 0);
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  if (asRoot) {
    ASSERT_EQ(::lstat((tmp / "moved/null").c_str(), &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(st.st_rdev, ::makedev(1, 3));
  }

  // A socket cannot be made anew: the move fails and the source stays whole.
  test::WriteFile(source + "/file", "data");
  const int sock = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string socketPath = source + "/socket";
  ASSERT_LT(socketPath.size(), sizeof address.sun_path);
  std::strcpy(address.sun_path, socketPath.c_str());
  ASSERT_EQ(::bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(sock);
  ErrorRef error;
  EXPECT_FALSE(fm().moveItemAtURL(URL(source), URL(tmp / "moved2"), &error));
  ASSERT_TRUE(error);
  EXPECT_TRUE(error->isPOSIX(ENOTSUP));
  EXPECT_EQ(test::ReadFile(source + "/file"), "data");
  EXPECT_TRUE(test::Exists(socketPath));
  // A plain copy still leaves such items out and succeeds.
  EXPECT_TRUE(fm().copyItemAtURL(URL(source), URL(tmp / "copied"), nullptr));
  EXPECT_FALSE(test::Exists(tmp / "copied/socket"));
}

// getdents64 records as a file system might serve them: names of any length, and records
// that make no sense.
std::vector<unsigned char> Records(const std::vector<std::string>& names) {
  std::vector<unsigned char> bytes;
  for (const std::string& name : names) {
    const size_t length = (19 + name.size() + 1 + 7) & ~size_t{7};
    std::vector<unsigned char> record(length, 0);
    const uint64_t inode = 42;
    const auto reclen = static_cast<uint16_t>(length);
    std::memcpy(record.data(), &inode, sizeof inode);
    std::memcpy(record.data() + 16, &reclen, sizeof reclen);
    record[18] = DT_REG;
    std::memcpy(record.data() + 19, name.data(), name.size());
    bytes.insert(bytes.end(), record.begin(), record.end());
  }
  return bytes;
}

TEST(HostileNamesTest, NamesOfAnyLengthAreBoundedAndWholeOnDisk) {
  const std::string longName(1000, 'n');
  std::vector<unsigned char> bytes = Records({"a", longName, "b"});
  DirentReader reader(bytes.data(), bytes.size());
  DirentRecord record;
  std::vector<std::string> names;
  while (reader.Next(&record)) names.emplace_back(record.name);
  EXPECT_FALSE(reader.malformed());
  EXPECT_EQ(names, (std::vector<std::string>{"a", longName, "b"}));

  // Packed only where it fits whole.
  HarvestRequest request;
  request.common = kHarvestCommonReturned | kHarvestCommonName;
  struct statx stx {};
  std::vector<unsigned char> out(2048);
  const size_t length = PackHarvestRecord(longName, stx, 0, request, out.data(), out.size());
  ASSERT_GT(length, longName.size());
  EXPECT_EQ(PackHarvestRecord(longName, stx, 0, request, out.data(), length - 1), 0u);

  // A record longer than what is left, shorter than its head, or a name without its end.
  std::vector<unsigned char> cut(bytes.begin(), bytes.end() - 1);
  std::vector<unsigned char> noNul = Records({std::string(13, 'x')});
  std::fill(noNul.begin() + 19, noNul.end(), 'x');
  std::vector<unsigned char> zero(24, 0);
  for (const auto& bad : {cut, noNul, zero}) {
    DirentReader r(bad.data(), bad.size());
    while (r.Next(&record)) {
    }
    EXPECT_TRUE(r.malformed());
    EXPECT_LE(r.consumed(), bad.size());
  }

  // The longest names a disk file system keeps, measured and listed whole.
  test::TempDir tmp;
  const std::string name255(255, 'x');
  test::WriteFile(tmp / name255 + "/" + name255, std::string(10000, 'd'));
  EXPECT_GE(fm().diskUsageForURL(URL(tmp.path())), 10000u);
  auto items = fm().urlsForItemsInDirectoryAtURL(URL(tmp / name255), false, nullptr);
  ASSERT_TRUE(items);
  ASSERT_EQ(items->size(), 1u);
  EXPECT_EQ(items->front().lastPathComponent(), name255);
}

}  // namespace
}  // namespace vx
