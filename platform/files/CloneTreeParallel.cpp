// The tree copier with several workers. Each takes a directory from the shared queue, makes
// its subdirectories in the copy (owner-only, as the one-worker copy does) and queues them,
// and copies its files, links and nodes. Two things wait for the workers to finish, and are
// then done by one thread, in an order that makes the copy the one-worker copy's:
// - files linked more than once, so that every name of one file is linked to the same copy;
// - the directories' own metadata, deepest first, so that no entry made in a directory
//   after its times were set moves them again.
// Directories are reopened from their nearest open ancestor in both trees with no link
// followed, and must be the directories that were made or looked at, however deep they lie.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/files/Beneath.h"
#include "platform/files/CloneItems.h"
#include "platform/files/CloneTree.h"
#include "platform/files/DirectoryNames.h"
#include "platform/files/DirectoryNodes.h"
#include "platform/files/Sys.h"
#include "platform/files/UniqueFd.h"
#include "platform/files/WorkQueue.h"

namespace vx::clone {
namespace {

// A directory of the source and its copy (the same names: the copy keeps every name).
struct Directory {
  DirectoryNode* src = nullptr;
  DirectoryNode* dst = nullptr;
  struct stat st {};  // the source's, as it was when the directory was entered
};

// A file with more than one link, left for after the workers.
struct LinkedFile {
  Directory directory;
  std::string name;
};

// What Enter returns for a source directory gone since it was listed: nothing to copy.
constexpr int kVanished = -1;

class ParallelCloner {
 public:
  ParallelCloner(unsigned flags, unsigned workers) : flags_(flags), workers_(workers) {}

  int Run(int srcDir, const std::string& srcName, int dstDir, const std::string& dstName) {
    UniqueFd src;
    UniqueFd dst;
    struct stat st {};
    Identity dstIdentity;
    if (int e = Enter(srcDir, srcName, dstDir, dstName, &src, &dst, &st, &dstIdentity)) {
      return e == kVanished ? 0 : e;
    }
    dstRootIdentity_ = dstIdentity;
    srcTree_.emplace(std::move(src), IdentityOf(st));
    dstTree_.emplace(std::move(dst), dstIdentity);
    const Directory top{srcTree_->root(), dstTree_->root(), st};
    directories_.push_back(top);
    queue_.Push(top);
    queue_.Run(workers_, [this](Directory& directory) { Copy(directory); });
    if (firstError_) return firstError_;
    if (int e = CopyLinkedFiles()) return e;
    return FinishDirectories();
  }

 private:
  // Opens the source directory `srcName`, makes (or finds, to merge into) its copy, and
  // opens that; the two descriptors, the source's status and the copy's identity.
  int Enter(int srcDir, const std::string& srcName, int dstDir, const std::string& dstName,
            UniqueFd* src, UniqueFd* dst, struct stat* st, Identity* dstIdentity) {
    *src = OpenDirectoryAt(srcDir, srcName.c_str());
    if (!*src) return errno == ENOENT ? kVanished : errno;
    if (::fstat(src->get(), st) != 0) return errno;
    if (sys::Mkdirat(dstDir, dstName.c_str(), 0700) != 0 && errno != EEXIST) return errno;
    *dst = OpenDirectoryAt(dstDir, dstName.c_str());
    if (!*dst) return errno == ENOTDIR || errno == ELOOP ? EEXIST : errno;
    if (!IdentityOf(dst->get(), dstIdentity)) return errno;
    return 0;
  }

  // Both directories, proven to be the ones that were entered; ESTALE when either is not.
  int Reopen(const Directory& directory, SharedFd* src, SharedFd* dst) {
    *src = srcTree_->Open(directory.src);
    if (!*src) return errno;
    *dst = dstTree_->Open(directory.dst);
    return *dst ? 0 : errno;
  }

  void Fail(int e) {
    {
      std::lock_guard lock(mutex_);
      if (!firstError_) firstError_ = e;
    }
    queue_.Stop();
  }

  void Copy(const Directory& directory) {
    SharedFd src;
    SharedFd dst;
    if (int e = Reopen(directory, &src, &dst)) {
      // Gone since it was listed, as for any entry: nothing of it to copy.
      if (e != ENOENT) Fail(e);
      return;
    }
    // The names are read when the directory is entered, as the one-worker copy reads them.
    std::vector<std::string> names;
    if (!ReadDirectoryNames(src->get(), &names)) return Fail(errno);
    for (const std::string& name : names) {
      if (queue_.stopped()) return;
      struct stat st {};
      if (::fstatat(src->get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT) continue;  // gone since it was listed
        return Fail(errno);
      }
      if (int e = CopyEntry(directory, src->get(), dst->get(), name, st)) return Fail(e);
    }
  }

  int CopyEntry(const Directory& parent, int srcDir, int dstDir, const std::string& name,
                const struct stat& st) {
    if (S_ISDIR(st.st_mode)) {
      // The destination inside the source: its copy is what is being made, not a part of it.
      if (IdentityOf(st) == dstRootIdentity_) return 0;
      UniqueFd src;
      UniqueFd dst;
      Directory child;
      Identity dstIdentity;
      if (int e = Enter(srcDir, name, dstDir, name, &src, &dst, &child.st, &dstIdentity)) {
        return e == kVanished ? 0 : e;
      }
      child.src = srcTree_->Add(parent.src, name, IdentityOf(child.st), std::move(src));
      child.dst = dstTree_->Add(parent.dst, name, dstIdentity, std::move(dst));
      {
        std::lock_guard lock(mutex_);
        directories_.push_back(child);
      }
      queue_.Push(child);
      return 0;
    }
    if (S_ISREG(st.st_mode)) {
      if (st.st_nlink > 1) {
        std::lock_guard lock(mutex_);
        linkedFiles_.push_back({parent, name});
        return 0;
      }
      struct stat opened {};
      // Whatever the listing said, only a regular file by its open descriptor is read.
      UniqueFd file = OpenRegularFileAt(srcDir, name.c_str(), &opened);
      if (!file) return errno == ENOENT ? 0 : errno;
      if (opened.st_nlink > 1) {
        std::lock_guard lock(mutex_);
        linkedFiles_.push_back({parent, name});
        return 0;
      }
      return CopyRegularTo(file.get(), opened, dstDir, name, flags_, &noReflink_);
    }
    if (S_ISLNK(st.st_mode)) return CopyLink(srcDir, name, dstDir, name, st, flags_);
    if (flags_ & kCloneSpecial) return MakeSpecial(dstDir, name, st, flags_);
    return 0;
  }

  // One name of each file becomes a copy; the others are linked to it, as in the source.
  int CopyLinkedFiles() {
    struct FirstCopy {
      DirectoryNode* directory;  // of the copy
      const std::string* name;
      Identity identity;
    };
    std::map<std::pair<dev_t, ino_t>, FirstCopy> firstCopies;
    for (const LinkedFile& linked : linkedFiles_) {
      SharedFd src;
      SharedFd dst;
      if (int e = Reopen(linked.directory, &src, &dst)) return e;
      struct stat st {};
      UniqueFd file = OpenRegularFileAt(src->get(), linked.name.c_str(), &st);
      if (!file) {
        if (errno == ENOENT) continue;
        return errno;
      }
      const std::pair<dev_t, ino_t> key{st.st_dev, st.st_ino};
      if (auto first = firstCopies.find(key); first != firstCopies.end()) {
        const SharedFd firstDirectory = dstTree_->Open(first->second.directory);
        const int e = firstDirectory ? LinkToCopyIn(firstDirectory->get(), *first->second.name,
                                                    first->second.identity, dst->get(),
                                                    linked.name)
                                     : ESTALE;
        if (e == 0) continue;
        // A file system without hard links, or a first copy no longer where it was made:
        // copy it on its own.
        if (e != EMLINK && e != EPERM && e != EXDEV && e != ESTALE && e != ENOENT) return e;
      }
      if (int e = CopyRegularTo(file.get(), st, dst->get(), linked.name, flags_, &noReflink_)) {
        return e;
      }
      struct stat made {};
      if (::fstatat(dst->get(), linked.name.c_str(), &made, AT_SYMLINK_NOFOLLOW) == 0) {
        firstCopies.emplace(key, FirstCopy{linked.directory.dst, &linked.name, IdentityOf(made)});
      }
    }
    return 0;
  }

  // Deepest first, the top last: a directory's times are set once nothing more is made in it.
  int FinishDirectories() {
    std::stable_sort(directories_.begin(), directories_.end(),
                     [](const Directory& a, const Directory& b) {
                       return a.src->depth > b.src->depth;
                     });
    for (size_t i = 0; i < directories_.size(); ++i) {
      const Directory& directory = directories_[i];
      SharedFd src;
      SharedFd dst;
      if (int e = Reopen(directory, &src, &dst)) {
        if (e == ENOENT) continue;
        return e;
      }
      if (int e = CopyMetadata(src->get(), dst->get(), directory.st, flags_)) return e;
      // Climbing a deep tree, the parent comes next: found through "..", not from afar.
      if (i + 1 < directories_.size() && directories_[i + 1].src == directory.src->parent) {
        srcTree_->OpenParent(directory.src);
        dstTree_->OpenParent(directory.dst);
      }
      srcTree_->Forget(directory.src);
      dstTree_->Forget(directory.dst);
    }
    return 0;
  }

  const unsigned flags_;
  const unsigned workers_;
  std::optional<DirectoryNodes> srcTree_;
  std::optional<DirectoryNodes> dstTree_;
  Identity dstRootIdentity_;
  std::atomic<bool> noReflink_{false};
  WorkQueue<Directory> queue_;
  std::mutex mutex_;
  std::vector<Directory> directories_;
  std::vector<LinkedFile> linkedFiles_;
  int firstError_ = 0;
};

}  // namespace

int CloneDirectoryInParallel(int srcDir, const std::string& srcName, int dstDir,
                             const std::string& dstName, unsigned flags, unsigned workers) {
  return ParallelCloner(flags, workers).Run(srcDir, srcName, dstDir, dstName);
}

}  // namespace vx::clone
