// The recursive remover with several workers. On a disk, removing one directory's entries
// waits on the file system's lock of that directory; workers that empty different
// directories at once keep the disk busy. Each directory is a node that counts what it still
// waits for (its own reading and each subdirectory not yet gone); whoever brings the count to
// zero removes it, so a directory goes only after its last entry. Nodes are reopened from
// their nearest open ancestor with no link followed and must be the directory that was
// listed, so a directory swapped for a link meanwhile leads nowhere, however deep it lies.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/files/Beneath.h"
#include "platform/files/DirectoryNodes.h"
#include "platform/files/DirentRecords.h"
#include "platform/files/PurgeTree.h"
#include "platform/files/FileIdentity.h"
#include "platform/files/PurgeTreeState.h"
#include "platform/files/Sys.h"
#include "platform/files/UniqueFd.h"
#include "platform/files/WorkQueue.h"

namespace vx {
namespace {

constexpr size_t kEntriesSize = 64 * 1024;


struct Node {
  Node* parent = nullptr;
  DirectoryNode* directory = nullptr;  // its name, identity and place in the tree
  bool reread = false;                 // queued again after a reading
  std::atomic<size_t> pending{1};  // its reading, and each subdirectory not yet gone
  std::atomic<bool> failed{false};  // something below stays
  std::atomic<bool> changed{false};  // an entry went during the last reading
};

class ParallelRemover {
 public:
  ParallelRemover(PurgeTreeState* state, std::string path)
      : state_(state), path_(std::move(path)) {}

  // Returns what the one-worker remover returns for a directory it could open.
  int Run(UniqueFd top, unsigned workers) {
    struct stat st {};
    if (::fstat(top.get(), &st) != 0) return errno;
    directories_.emplace(std::move(top), IdentityOf(st));
    Node* root = NewNode(nullptr, directories_->root());
    queue_.Push(root);
    queue_.Run(workers, [this](Node*& node) { Read(node); });
    return 0;
  }

  int firstError() const { return firstError_; }

 private:
  Node* NewNode(Node* parent, DirectoryNode* directory) {
    auto node = std::make_unique<Node>();
    node->parent = parent;
    node->directory = directory;
    std::lock_guard lock(nodesMutex_);
    nodes_.push_back(std::move(node));
    return nodes_.back().get();
  }

  std::string PathOf(const Node* node) const {
    return DirectoryNodes::PathOf(node->directory, path_);
  }

  void Read(Node* node) {
    const SharedFd fd = directories_->Open(node->directory);
    if (!fd) {
      // Gone, or no longer the directory that was listed: nothing of it is removed here.
      const int e = errno;
      Report(PathOf(node), e);
      Release(Leave(node, e == ENOENT, e != ENOENT));
      return;
    }
    // The descriptor may be the one the last reading left at its end.
    if (node->reread && ::lseek(fd->get(), 0, SEEK_SET) != 0) {
      Report(PathOf(node), errno);
      node->failed = true;
      return Release(node);
    }
    std::vector<unsigned char> entries(kEntriesSize);
    for (;;) {
      const long n = ::syscall(SYS_getdents64, fd->get(), entries.data(), entries.size());
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        Report(PathOf(node), errno);
        node->failed = true;
        break;
      }
      if (n == 0) break;
      DirentReader reader(entries.data(), static_cast<size_t>(n));
      DirentRecord entry;
      while (reader.Next(&entry)) {
        if (entry.name == "." || entry.name == "..") continue;
        VisitEntry(node, fd->get(), std::string(entry.name), entry.type);
      }
      if (reader.malformed()) {
        Report(PathOf(node), EIO);
        node->failed = true;
        break;
      }
      if (stopped_) break;
    }
    Release(node);
  }

  void VisitEntry(Node* node, int dirfd, const std::string& name, unsigned char type) {
    if (type != DT_DIR) {
      if (type != DT_UNKNOWN || !IsDirectory(dirfd, name)) {
        if (sys::Unlinkat(dirfd, name.c_str(), 0) == 0) {
          node->changed = true;
          return;
        }
        if (errno != EISDIR) return FailChild(node, name, errno);
      }
    }
    // A directory: queued as a node of its own, known by what it is now.
    struct stat st {};
    if (::fstatat(dirfd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      return FailChild(node, name, errno);
    }
    if (!S_ISDIR(st.st_mode)) {
      // Replaced by a file or a link since it was listed: the link goes, its target stays.
      if (sys::Unlinkat(dirfd, name.c_str(), 0) == 0) {
        node->changed = true;
        return;
      }
      return FailChild(node, name, errno);
    }
    ++node->pending;
    queue_.Push(NewNode(node, directories_->Add(node->directory, name, IdentityOf(st))));
  }

  static bool IsDirectory(int dirfd, const std::string& name) {
    struct stat st {};
    return ::fstatat(dirfd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
  }

  // An item that vanished meanwhile is reported all the same, but it is gone as wished.
  void FailChild(Node* node, const std::string& name, int error) {
    Report(PathOf(node) + "/" + name, error);
    if (error == ENOENT) {
      node->changed = true;
    } else {
      node->failed = true;
    }
  }

  // One thing the node waited for is done; the last one removes it, and so on up the tree:
  // a loop, as a tree may be deeper than any stack.
  void Release(Node* node) {
    while (node && --node->pending == 0) node = Finish(node);
  }

  // Removes the node's directory; returns the parent to release, if any.
  Node* Finish(Node* node) {
    if (stopped_) return nullptr;
    int error = 0;
    bool failed = node->failed;
    if (!failed) {
      const bool isTop = node->parent == nullptr;
      const SharedFd parentFd = isTop ? SharedFd() : directories_->OpenParent(node->directory);
      int result = -1;
      if (isTop) {
        result = sys::Unlinkat(AT_FDCWD, path_.c_str(), AT_REMOVEDIR);
      } else if (parentFd) {
        result = sys::Unlinkat(parentFd->get(), node->directory->name.c_str(), AT_REMOVEDIR);
      }
      if (result == 0) {
        directories_->Forget(node->directory);
        if (!isTop) node->parent->changed = true;
      } else if ((errno == ENOTEMPTY || errno == EEXIST) && node->changed.exchange(false)) {
        // Removing entries while reading may hide others from the listing: read it again.
        node->pending = 1;
        node->reread = true;
        queue_.Push(node);
        return nullptr;
      } else {
        error = errno;
        failed = error != ENOENT;
      }
    }
    // A directory that kept a failed descendant is not worth a report of its own.
    if (error) Report(PathOf(node), error);
    return Leave(node, error == ENOENT, failed);
  }

  // The node is dealt with: tell its parent whether it stays. Returns the parent.
  static Node* Leave(Node* node, bool vanished, bool failed) {
    Node* parent = node->parent;
    if (!parent) return nullptr;
    if (vanished) parent->changed = true;
    if (failed) parent->failed = true;
    return parent;
  }

  void Report(const std::string& path, int error) {
    std::lock_guard lock(reportMutex_);
    if (ReportPurgeError(state_, path.c_str(), error, &firstError_)) {
      stopped_ = true;
      queue_.Stop();
    }
  }

  PurgeTreeState* state_;
  const std::string path_;
  std::optional<DirectoryNodes> directories_;
  WorkQueue<Node*> queue_;
  std::mutex nodesMutex_;
  std::deque<std::unique_ptr<Node>> nodes_;
  std::mutex reportMutex_;
  int firstError_ = 0;
  std::atomic<bool> stopped_{false};
};

std::string WithoutTrailingSlashes(const char* path) {
  std::string p(path);
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return p;
}

}  // namespace

int purgetree(const char* path, PurgeTreeState* state, bool recursive, unsigned workers) {
  if (workers <= 1 || !recursive || !path || !*path) return purgetree(path, state, recursive);
  const std::string top = WithoutTrailingSlashes(path);
  // As with one worker, an empty directory goes in one call, and no worker is started.
  if (sys::Rmdir(top.c_str()) == 0) return 0;
  const int rmdirError = errno;
  // Anything but a directory that opens is the one-worker remover's case.
  UniqueFd fd;
  if (rmdirError != ENOENT) {
    fd.reset(::open(top.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  }
  if (!fd) return PurgeTreeAfterRmdir(top, state, recursive, rmdirError);
  ParallelRemover remover(state, top);
  if (int e = remover.Run(std::move(fd), workers)) {
    errno = e;
    return -1;
  }
  if (const int e = remover.firstError()) {
    errno = e;
    return -1;
  }
  return 0;
}

}  // namespace vx
