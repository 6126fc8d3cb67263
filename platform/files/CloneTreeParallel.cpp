// The tree copier with several workers. Each takes a directory from the shared queue, makes
// its subdirectories in the copy (owner-only, as the one-worker copy does) and queues them,
// and copies its files, links and nodes. Two things wait for the workers to finish, and are
// then done by one thread, in an order that makes the copy the one-worker copy's:
// - files linked more than once, so that every name of one file is linked to the same copy;
// - the directories' own metadata, deepest first, so that no entry made in a directory
//   after its times were set moves them again.
// Directories are reopened beneath the roots of both trees by their path with no link
// followed, and must be the directories that were made or looked at.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/files/Beneath.h"
#include "platform/files/CloneItems.h"
#include "platform/files/CloneTree.h"
#include "platform/files/DirectoryNames.h"
#include "platform/files/Sys.h"
#include "platform/files/UniqueFd.h"
#include "platform/files/WorkQueue.h"

namespace vx::clone {
namespace {

// A directory of the source and its copy, by their path below the two roots (the same
// path: the copy keeps every name).
struct Directory {
  std::string relative;
  Identity src;
  Identity dst;
  struct stat st {};  // the source's, as it was when the directory was entered
};

// A file with more than one link, left for after the workers.
struct LinkedFile {
  std::string directory;  // relative
  std::string name;
  Identity srcDirectory;
  Identity dstDirectory;
};

// What Enter returns for a source directory gone since it was listed: nothing to copy.
constexpr int kVanished = -1;

std::string Join(const std::string& relative, const std::string& name) {
  return relative.empty() ? name : relative + "/" + name;
}

class ParallelCloner {
 public:
  ParallelCloner(unsigned flags, unsigned workers) : flags_(flags), workers_(workers) {}

  int Run(int srcDir, const std::string& srcName, int dstDir, const std::string& dstName) {
    Directory top;
    if (int e = Enter(srcDir, srcName, dstDir, dstName, std::string(), &srcRoot_, &dstRoot_,
                      &top)) {
      return e == kVanished ? 0 : e;
    }
    dstRootIdentity_ = top.dst;
    directories_.push_back(top);
    queue_.Push(top);
    queue_.Run(workers_, [this](Directory& directory) { Copy(directory); });
    if (firstError_) return firstError_;
    if (int e = CopyLinkedFiles()) return e;
    return FinishDirectories();
  }

 private:
  // Opens the source directory `srcName`, makes (or finds, to merge into) its copy, and
  // opens that; the two descriptors and what the directory is.
  int Enter(int srcDir, const std::string& srcName, int dstDir, const std::string& dstName,
            const std::string& relative, UniqueFd* src, UniqueFd* dst, Directory* directory) {
    *src = OpenDirectoryAt(srcDir, srcName.c_str());
    if (!*src) return errno == ENOENT ? kVanished : errno;
    if (::fstat(src->get(), &directory->st) != 0) return errno;
    directory->src = IdentityOf(directory->st);
    if (sys::Mkdirat(dstDir, dstName.c_str(), 0700) != 0 && errno != EEXIST) return errno;
    *dst = OpenDirectoryAt(dstDir, dstName.c_str());
    if (!*dst) return errno == ENOTDIR || errno == ELOOP ? EEXIST : errno;
    if (!IdentityOf(dst->get(), &directory->dst)) return errno;
    directory->relative = relative;
    return 0;
  }

  // Both directories, proven to be the ones that were entered; ESTALE when either is not.
  int Reopen(const std::string& relative, const Identity& srcId, const Identity& dstId,
             UniqueFd* src, UniqueFd* dst) {
    *src = relative.empty() ? UniqueFd(::fcntl(srcRoot_.get(), F_DUPFD_CLOEXEC, 0))
                            : OpenBeneath(srcRoot_.get(), relative, O_RDONLY | O_DIRECTORY);
    *dst = relative.empty() ? UniqueFd(::fcntl(dstRoot_.get(), F_DUPFD_CLOEXEC, 0))
                            : OpenBeneath(dstRoot_.get(), relative, O_RDONLY | O_DIRECTORY);
    if (!*src || !*dst) return errno;
    Identity s;
    Identity d;
    if (!IdentityOf(src->get(), &s) || !IdentityOf(dst->get(), &d)) return errno;
    return s == srcId && d == dstId ? 0 : ESTALE;
  }

  void Fail(int e) {
    {
      std::lock_guard lock(mutex_);
      if (!firstError_) firstError_ = e;
    }
    queue_.Stop();
  }

  void Copy(const Directory& directory) {
    UniqueFd src;
    UniqueFd dst;
    if (int e = Reopen(directory.relative, directory.src, directory.dst, &src, &dst)) {
      // Gone since it was listed, as for any entry: nothing of it to copy.
      if (e != ENOENT) Fail(e);
      return;
    }
    // The names are read when the directory is entered, as the one-worker copy reads them.
    std::vector<std::string> names;
    if (!ReadDirectoryNames(src.get(), &names)) return Fail(errno);
    for (const std::string& name : names) {
      if (queue_.stopped()) return;
      struct stat st {};
      if (::fstatat(src.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT) continue;  // gone since it was listed
        return Fail(errno);
      }
      if (int e = CopyEntry(directory, src.get(), dst.get(), name, st)) return Fail(e);
    }
  }

  int CopyEntry(const Directory& parent, int srcDir, int dstDir, const std::string& name,
                const struct stat& st) {
    if (S_ISDIR(st.st_mode)) {
      // The destination inside the source: its copy is what is being made, not a part of it.
      if (IdentityOf(st) == dstRootIdentity_) return 0;
      Directory child;
      UniqueFd src;
      UniqueFd dst;
      if (int e = Enter(srcDir, name, dstDir, name, Join(parent.relative, name), &src, &dst,
                        &child)) {
        return e == kVanished ? 0 : e;
      }
      {
        std::lock_guard lock(mutex_);
        directories_.push_back(child);
      }
      queue_.Push(std::move(child));
      return 0;
    }
    if (S_ISREG(st.st_mode)) {
      if (st.st_nlink > 1) {
        std::lock_guard lock(mutex_);
        linkedFiles_.push_back({parent.relative, name, parent.src, parent.dst});
        return 0;
      }
      struct stat opened {};
      // Whatever the listing said, only a regular file by its open descriptor is read.
      UniqueFd file = OpenRegularFileAt(srcDir, name.c_str(), &opened);
      if (!file) return errno == ENOENT ? 0 : errno;
      if (opened.st_nlink > 1) {
        std::lock_guard lock(mutex_);
        linkedFiles_.push_back({parent.relative, name, parent.src, parent.dst});
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
    std::map<std::pair<dev_t, ino_t>, std::pair<std::string, Identity>> firstCopies;
    for (const LinkedFile& linked : linkedFiles_) {
      UniqueFd src;
      UniqueFd dst;
      if (int e = Reopen(linked.directory, linked.srcDirectory, linked.dstDirectory, &src, &dst)) {
        return e;
      }
      struct stat st {};
      UniqueFd file = OpenRegularFileAt(src.get(), linked.name.c_str(), &st);
      if (!file) {
        if (errno == ENOENT) continue;
        return errno;
      }
      const std::string relative = Join(linked.directory, linked.name);
      const std::pair<dev_t, ino_t> key{st.st_dev, st.st_ino};
      if (auto first = firstCopies.find(key); first != firstCopies.end()) {
        const int e =
            LinkToCopy(dstRoot_.get(), first->second.first, first->second.second, dst.get(),
                       linked.name);
        if (e == 0) continue;
        // A file system without hard links, or a first copy no longer where it was made:
        // copy it on its own.
        if (e != EMLINK && e != EPERM && e != EXDEV && e != ESTALE && e != ENOENT) return e;
      }
      if (int e = CopyRegularTo(file.get(), st, dst.get(), linked.name, flags_, &noReflink_)) {
        return e;
      }
      struct stat made {};
      if (::fstatat(dst.get(), linked.name.c_str(), &made, AT_SYMLINK_NOFOLLOW) == 0) {
        firstCopies.emplace(key, std::make_pair(relative, IdentityOf(made)));
      }
    }
    return 0;
  }

  // Deepest first, the top last: a directory's times are set once nothing more is made in it.
  int FinishDirectories() {
    auto depth = [](const Directory& d) {
      return d.relative.empty() ? 0 : 1 + std::count(d.relative.begin(), d.relative.end(), '/');
    };
    std::stable_sort(directories_.begin(), directories_.end(),
                     [&](const Directory& a, const Directory& b) { return depth(a) > depth(b); });
    for (const Directory& directory : directories_) {
      UniqueFd src;
      UniqueFd dst;
      if (int e = Reopen(directory.relative, directory.src, directory.dst, &src, &dst)) {
        if (e == ENOENT) continue;
        return e;
      }
      if (int e = CopyMetadata(src.get(), dst.get(), directory.st, flags_)) return e;
    }
    return 0;
  }

  const unsigned flags_;
  const unsigned workers_;
  UniqueFd srcRoot_;
  UniqueFd dstRoot_;
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
