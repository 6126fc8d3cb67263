// Handing a whole tree to one owner, and refusing a tree whose links lead out of it: a
// privileged installer must not be tricked into touching files outside what it was given.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "filemanager/VXFileManager.h"
#include "platform/files/Beneath.h"
#include "platform/files/DirectoryNames.h"
#include "platform/files/DirectoryNodes.h"
#include "platform/files/Sys.h"
#include "platform/files/UniqueFd.h"
#include "platform/files/WorkQueue.h"
#include "platform/log/InstallerLog.h"
#include "support/errors/ErrorMakers.h"

namespace vx {
namespace {

constexpr const char* kStandardize =
    "-[VXFileManager standardizeOwnershipAndValidateSymlinksAtURL:toUID:GID:error:]";
constexpr const char* kStandardizeVisitor =
    "__78-[VXFileManager standardizeOwnershipAndValidateSymlinksAtURL:toUID:GID:error:]_block_"
    "invoke";
constexpr int64_t kInvalidSymlinkCode = 70;

// Gives the item open as `fd` (an O_PATH descriptor, or a directory's own) to `uid`:`gid`.
// By descriptor, never by path, so what changes owner is the item whose status was read,
// and a symbolic link is re-owned itself, never what it points at.
//
// An item that is not a directory and has more than one link is left as it is, with the
// failure line of a refused change: its other names may lie outside the tree, and a change
// of owner would follow it there. An app can link any file it can see (another app's, a
// device node, a file of the system) into its own container; giving that file to the
// container's new owner would hand it away everywhere it is linked. Counting the names met
// inside the tree cannot prove them all inside either, as a name can be moved under the walk
// and met twice. A tree that links its own files together keeps their old owner, and says so.
void ChangeOwner(const char* function, int fd, const std::string& path, const struct stat& st,
                 uid_t uid, gid_t gid) {
  int failure = 0;
  if (!S_ISDIR(st.st_mode) && st.st_nlink > 1) {
    failure = EMLINK;
  } else if (sys::Fchownat(fd, "", uid, gid, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW) != 0) {
    failure = errno;
  }
  if (failure) VX_INSTALLER_LOG(3, function, "Could not chown %s: %s", path, std::strerror(failure));
}

// What the walk does with each item: its owner, and for a link, where it leads. False with
// the refusal in `refusal` for a link that leads out of the tree.
bool VisitItem(const VXFileManager& files, const FileURL& root, int fd, const std::string& path,
               const struct stat& st, uid_t uid, gid_t gid, ErrorRef* refusal) {
  if (st.st_uid != uid || st.st_gid != gid) {
    ChangeOwner(kStandardizeVisitor, fd, path, st, uid, gid);
  }
  if (S_ISLNK(st.st_mode) && !files.realPathForURL(FileURL::fileURLWithPath(path, false), root)) {
    const PlistDictionary userInfo{{VXLegacyErrorStringKey, PlistValue(kInvalidSymlinkCode)}};
    SetError(refusal, _CreateAndLogError(kStandardizeVisitor, __LINE__, VXInstallerErrorDomain,
                                         kInvalidSymlinkCode, nullptr, &userInfo,
                                         "invalid symlink at %s", path));
    return false;
  }
  return true;
}

struct Identity {
  dev_t dev = 0;
  ino_t ino = 0;
  bool operator<(const Identity& o) const { return dev != o.dev ? dev < o.dev : ino < o.ino; }
  bool operator==(const Identity&) const = default;
};

// The walk of the one-worker form, by several workers: each takes a directory from the
// shared queue, looks at every item in it through an O_PATH descriptor of its own, and
// queues the directories it finds. A queued directory is opened again from its parent with
// no link followed, however deep it lies, and must be the one that was looked at, or the
// walk stops as the one-worker walk stops at an item that changed under it. Mount points are not entered; a
// directory met a second time (a bind mount of an ancestor) is not entered again.
class ParallelOwnership {
 public:
  ParallelOwnership(const VXFileManager& files, const FileURL& root, uid_t uid, gid_t gid)
      : files_(files), root_(root), rootPath_(root.path()), uid_(uid), gid_(gid) {}

  bool Run(unsigned workers, ErrorRef* error) {
    if (rootPath_.empty()) {
      SetError(error, PosixError(kTraverse, __LINE__, ENOENT,
                                 "fts_open failed for %s with error %s", rootPath_,
                                 std::strerror(ENOENT)));
      return false;
    }
    UniqueFd item(::open(rootPath_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat st {};
    if (!item || ::fstat(item.get(), &st) != 0) {
      Fail(errno);
    } else if (Visit(item.get(), rootPath_, st) && S_ISDIR(st.st_mode)) {
      rootDevice_ = st.st_dev;
      entered_.insert({st.st_dev, st.st_ino});
      UniqueFd rootDir(::openat(item.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      // An unreadable root is visited and not entered, as any unreadable directory.
      if (rootDir) {
        tree_.emplace(std::move(rootDir), FileIdentity{st.st_dev, st.st_ino});
        queue_.Push(tree_->root());
        queue_.Run(workers, [this](Pending& directory) { ReadDirectory(directory); });
      }
    }
    std::lock_guard lock(mutex_);
    if (!failed_) return true;
    if (error_) SetError(error, std::move(error_));
    return false;
  }

 private:
  static constexpr const char* kTraverse = "-[VXFileManager _traverseDirectory:error:withBlock:]";

  using Pending = DirectoryNode*;

  bool Visit(int fd, const std::string& path, const struct stat& st) {
    ErrorRef refusal;
    if (VisitItem(files_, root_, fd, path, st, uid_, gid_, &refusal)) return true;
    Stop(std::move(refusal));
    return false;
  }

  // The first failure any worker meets is the walk's; the rest of the queue is dropped.
  void Stop(ErrorRef error) {
    {
      std::lock_guard lock(mutex_);
      if (!failed_) {
        failed_ = true;
        error_ = std::move(error);
      }
    }
    queue_.Stop();
  }

  void Fail(int entryError) {
    Stop(PosixError(kTraverse, __LINE__, entryError, "Error for path %s: %s", rootPath_,
                    std::strerror(entryError)));
  }

  void ReadDirectory(const Pending& pending) {
    const SharedFd dir = tree_->Open(pending);
    if (!dir) {
      // Unreadable: visited already, and not entered.
      if (errno != EACCES) Fail(errno);
      return;
    }
    std::vector<std::string> names;
    if (!ReadDirectoryNames(dir->get(), &names)) return Fail(errno);
    std::string directoryPath;  // for the visits that need a path, made once
    // Items of one directory tend to need the same: once one needed a change, the next is
    // opened at once rather than looked at by name first.
    bool expectChange = false;
    for (const std::string& name : names) {
      if (queue_.stopped()) return;
      // A look by name first: an item that already has the owner needs no descriptor, as
      // nothing is done to it. Only a change is made through a descriptor of the item, and
      // by the status of that descriptor.
      struct stat st {};
      UniqueFd item;
      if (!expectChange) {
        if (::fstatat(dir->get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return Fail(errno);
      }
      if (expectChange || st.st_uid != uid_ || st.st_gid != gid_) {
        item.reset(::openat(dir->get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (!item || ::fstat(item.get(), &st) != 0) return Fail(errno);
        expectChange = st.st_uid != uid_ || st.st_gid != gid_;
      }
      const bool isDirectory = S_ISDIR(st.st_mode);
      if (!item && !isDirectory && !S_ISLNK(st.st_mode)) continue;  // nothing to do or to enter
      if (item || S_ISLNK(st.st_mode)) {
        if (directoryPath.empty()) directoryPath = DirectoryNodes::PathOf(pending, rootPath_);
        const bool slash = directoryPath.back() == '/';
        if (!Visit(item.get(), directoryPath + (slash ? "" : "/") + name, st)) return;
      }
      if (!isDirectory || st.st_dev != rootDevice_) continue;
      bool first = false;
      {
        std::lock_guard lock(mutex_);
        first = entered_.insert({st.st_dev, st.st_ino}).second;
      }
      if (first) queue_.Push(tree_->Add(pending, name, {st.st_dev, st.st_ino}));
    }
  }

  const VXFileManager& files_;
  const FileURL& root_;
  const std::string& rootPath_;
  const uid_t uid_;
  const gid_t gid_;
  std::optional<DirectoryNodes> tree_;
  dev_t rootDevice_ = 0;
  WorkQueue<Pending> queue_;
  std::mutex mutex_;
  std::set<Identity> entered_;
  bool failed_ = false;
  ErrorRef error_;
};

// After the walk, whatever its result: the root's own owner, which the walk may not have
// reached.
bool SettleRoot(const FileURL& root, uid_t uid, gid_t gid, bool result, ErrorRef* error) {
  UniqueFd item(::open(root.fileSystemRepresentation(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat st {};
  if (!item || ::fstat(item.get(), &st) != 0) {
    SetError(error, PosixError(kStandardize, __LINE__, errno, "Could not stat %s: %s",
                               root.path(), std::strerror(errno)));
    return false;
  }
  if (st.st_uid != uid) ChangeOwner(kStandardize, item.get(), root.path(), st, uid, gid);
  return result;
}

}  // namespace

bool VXFileManager::standardizeOwnershipAndValidateSymlinksAtURL(const FileURL& root, uid_t uid,
                                                                 gid_t gid,
                                                                 ErrorRef* error) const {
  return standardizeOwnershipAndValidateSymlinksAtURL(root, uid, gid, 1, error);
}

bool VXFileManager::standardizeOwnershipAndValidateSymlinksAtURL(const FileURL& root, uid_t uid,
                                                                 gid_t gid, unsigned workers,
                                                                 ErrorRef* error) const {
  if (workers > 1) {
    const bool result = ParallelOwnership(*this, root, uid, gid).Run(workers, error);
    return SettleRoot(root, uid, gid, result, error);
  }
  auto visitor = [&](const TraversalEntry& entry, ErrorRef* walkError) {
    struct stat st {};
    st.st_mode = entry.mode;
    st.st_nlink = entry.nlink;
    st.st_uid = entry.uid;
    st.st_gid = entry.gid;
    return VisitItem(*this, root, entry.fd, entry.path, st, uid, gid, walkError);
  };
  const bool result = _traverseDirectory(root, error, visitor);
  return SettleRoot(root, uid, gid, result, error);
}

}  // namespace vx
