// A physical walk over a tree that hands every entry to a visitor.
//
// The tree may belong to someone else and change while it is walked, so it is walked by
// descriptors: every entry is opened once, by name in its parent's descriptor, with O_PATH
// and O_NOFOLLOW, and its status is that descriptor's. A directory is entered through the
// descriptor of the entry that was looked at, so a directory swapped for a link after its
// status was taken leads nowhere: the walk never resolves a path, and no symbolic link is
// ever followed, wherever it stands. The visitor receives the same descriptor to act on.
//
// The entries, their kinds and their order are those of the BSD walker in physical mode
// without a change of directory and without crossing file systems: a directory comes before
// and after its contents with the same status, a mount point below the root is visited but
// not entered, an unreadable directory comes a second time as unreadable (and not after its
// contents), a directory that is its own ancestor comes once as a cycle, and an entry that
// cannot be looked at ends the walk as an error.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "filemanager/VXFileManager.h"
#include "platform/files/DirectoryNames.h"
#include "platform/files/UniqueFd.h"
#include "support/errors/ErrorMakers.h"

namespace vx {
namespace {

using Kind = TraversalEntry::Kind;

constexpr const char* kTraverse = "-[VXFileManager _traverseDirectory:error:withBlock:]";

// One descriptor per level; beyond this many levels the shallowest are closed and found
// again through ".." (and proven to be the same directory) on the way back up.
constexpr size_t kMaxOpenLevels = 64;

struct Identity {
  dev_t dev = 0;
  ino_t ino = 0;
  bool operator==(const Identity&) const = default;
};

Identity IdentityOf(const struct stat& st) { return {st.st_dev, st.st_ino}; }

// A directory whose contents are being visited.
struct Level {
  UniqueFd dir;  // O_RDONLY | O_DIRECTORY; closed for levels above the open window
  struct stat st {};
  std::vector<std::string> names;  // read whole on entry, as the walker does
  size_t next = 0;
  size_t pathLength = 0;
};

class Walker {
 public:
  Walker(const std::string& rootPath, const VXFileManager::TraversalVisitor& visitor)
      : rootPath_(rootPath), path_(rootPath), visitor_(visitor) {}

  // True when every entry was visited and every visit returned true.
  bool Run();
  ErrorRef TakeError() { return std::move(error_); }

 private:
  bool VisitItem(UniqueFd item, const struct stat& st);
  bool Visit(Kind kind, int fd, const struct stat& st, int entryError = 0);
  bool Fail(int entryError);
  bool NextEntry();
  bool LeaveDirectory();
  bool ReopenParent();

  const std::string& rootPath_;
  std::string path_;  // of the entry being visited
  const VXFileManager::TraversalVisitor& visitor_;
  dev_t rootDevice_ = 0;
  std::vector<Level> levels_;
  size_t firstOpen_ = 0;  // levels [firstOpen_, top] hold open descriptors
  ErrorRef error_;
};

bool Walker::Run() {
  UniqueFd root(::open(rootPath_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat st {};
  if (!root || ::fstat(root.get(), &st) != 0) return Fail(errno);
  rootDevice_ = st.st_dev;
  if (!VisitItem(std::move(root), st)) return false;
  while (!levels_.empty()) {
    if (!NextEntry()) return false;
  }
  return true;
}

// An entry the walker cannot look at ends the walk; the message names the root, as the
// written walk's does.
bool Walker::Fail(int entryError) {
  error_ = PosixError(kTraverse, __LINE__, entryError, "Error for path %s: %s", rootPath_,
                      std::strerror(entryError));
  return false;
}

bool Walker::Visit(Kind kind, int fd, const struct stat& st, int entryError) {
  TraversalEntry entry;
  entry.path = path_;
  entry.kind = kind;
  entry.error = entryError;
  entry.mode = st.st_mode;
  entry.uid = st.st_uid;
  entry.gid = st.st_gid;
  entry.nlink = st.st_nlink;
  entry.fd = fd;
  ErrorRef visitorError;
  if (visitor_(entry, &visitorError)) return true;
  error_ = std::move(visitorError);
  return false;
}

// Visits an item that was just opened and, for a directory, enters it.
bool Walker::VisitItem(UniqueFd item, const struct stat& st) {
  if (S_ISLNK(st.st_mode)) return Visit(Kind::Symlink, item.get(), st);
  if (S_ISREG(st.st_mode)) return Visit(Kind::File, item.get(), st);
  if (!S_ISDIR(st.st_mode)) return Visit(Kind::Other, item.get(), st);

  for (const Level& level : levels_) {
    if (IdentityOf(level.st) == IdentityOf(st)) return Visit(Kind::Cycle, item.get(), st);
  }
  if (!Visit(Kind::DirectoryPre, item.get(), st)) return false;
  // A mount point is not ours to walk: its second visit follows at once.
  if (st.st_dev != rootDevice_) return Visit(Kind::DirectoryPost, item.get(), st);

  // Entered through the very item looked at: no name is resolved a second time.
  Level level;
  level.dir.reset(::openat(item.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!level.dir) return Visit(Kind::UnreadableDirectory, item.get(), st, errno);
  if (!ReadDirectoryNames(level.dir.get(), &level.names)) return Fail(errno);
  level.st = st;
  level.pathLength = path_.size();
  levels_.push_back(std::move(level));
  if (levels_.size() - firstOpen_ > kMaxOpenLevels) levels_[firstOpen_++].dir.reset();
  return true;
}

bool Walker::NextEntry() {
  Level& top = levels_.back();
  if (top.next == top.names.size()) return LeaveDirectory();
  const std::string& name = top.names[top.next++];
  path_.resize(top.pathLength);
  if (path_.back() != '/') path_ += '/';
  path_ += name;
  UniqueFd item(::openat(top.dir.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat st {};
  // Gone since the directory was read, as for the written walk, is an entry in error.
  if (!item || ::fstat(item.get(), &st) != 0) return Fail(errno);
  return VisitItem(std::move(item), st);
}

bool Walker::LeaveDirectory() {
  if (levels_.size() > 1 && levels_.size() - 2 < firstOpen_ && !ReopenParent()) return false;
  Level& top = levels_.back();
  path_.resize(top.pathLength);
  const bool result = Visit(Kind::DirectoryPost, top.dir.get(), top.st);
  levels_.pop_back();
  return result;
}

// The parent's descriptor was closed to save descriptors. Its ".." leads back, unless the
// tree was moved meanwhile: then the walk no longer knows where it is, and stops.
bool Walker::ReopenParent() {
  Level& child = levels_.back();
  Level& parent = levels_[levels_.size() - 2];
  UniqueFd dir(::openat(child.dir.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat st {};
  if (!dir || ::fstat(dir.get(), &st) != 0) return Fail(errno);
  if (IdentityOf(st) != IdentityOf(parent.st)) return Fail(ESTALE);
  parent.dir = std::move(dir);
  firstOpen_ = levels_.size() - 2;
  return true;
}

}  // namespace

bool VXFileManager::_traverseDirectory(const FileURL& root, ErrorRef* error,
                                       const TraversalVisitor& visitor) const {
  const std::string& rootPath = root.path();
  if (rootPath.empty()) {
    SetError(error, PosixError(kTraverse, __LINE__, ENOENT, "fts_open failed for %s with error %s",
                               rootPath, std::strerror(ENOENT)));
    return false;
  }
  Walker walker(rootPath, visitor);
  if (walker.Run()) return true;
  if (ErrorRef recorded = walker.TakeError()) SetError(error, std::move(recorded));
  return false;
}

}  // namespace vx
