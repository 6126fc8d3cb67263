#include "platform/files/PurgeTree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <unordered_set>
#include <vector>

#include "platform/files/Beneath.h"
#include "platform/files/DirectoryStream.h"
#include "platform/files/FileIdentity.h"
#include "platform/files/PurgeTreeState.h"
#include "platform/files/Sys.h"
#include "platform/files/UniqueFd.h"

namespace vx {

PurgeTreeState* purgetree_state_alloc() { return new PurgeTreeState; }

void purgetree_state_free(PurgeTreeState* state) { delete state; }

int purgetree_state_set(PurgeTreeState* state, PurgeTreeOption option, const void* value) {
  if (!state) {
    errno = EINVAL;
    return -1;
  }
  switch (option) {
    case PurgeTreeOption::ErrorCallback:
      state->callback = reinterpret_cast<PurgeTreeErrorCallback>(const_cast<void*>(value));
      return 0;
    case PurgeTreeOption::ErrorContext:
      state->context = const_cast<void*>(value);
      return 0;
  }
  errno = EINVAL;
  return -1;
}

int purgetree_state_get_error(const PurgeTreeState* state, int* error) {
  if (!state || !error || !state->reporting) {
    errno = EINVAL;
    return -1;
  }
  *error = state->reportedError;
  return 0;
}

namespace {

// A deep tree must not cost a descriptor per level: beyond this many open directories the
// shallowest ones are closed and opened again when the walk climbs back to them.
constexpr size_t kMaxOpenDirectories = 64;

using Identity = FileIdentity;

// One directory being emptied. Its stream may be closed to save descriptors; reopened, it
// is read from the start, where only the entries in `leftBehind` may still stand.
struct Frame {
  std::string name;  // within the parent frame; the whole path for the top directory
  size_t pathLength = 0;
  // Taken from the stream's descriptor as it is closed, to know the directory again when
  // it is reopened; only then is it needed.
  Identity identity;
  bool identityKnown = false;
  DirectoryStream dir;
  std::unordered_set<std::string> leftBehind;
  bool changedThisPass = false;  // an entry went, by our hand or another's
  bool descendantFailed = false;
};

class Remover {
 public:
  Remover(PurgeTreeState* state, std::string path) : state_(state), path_(std::move(path)) {}

  // `rmdirError`: how a try to remove the path as an empty directory failed, or -1 when it
  // is still to be made.
  int Run(bool recursive, int rmdirError);

 private:
  int RemoveItem(bool recursive, int rmdirError);
  void Walk();
  void VisitEntry(const char* name, unsigned char type);
  void RemoveNonDirectory(int dirfd, const char* name);
  void Descend(int dirfd, const char* name);
  void FinishTop();
  bool ReopenParentOfTop();
  void Push(const char* name, UniqueFd fd);
  void Report(const std::string& path, int error);
  void FailChild(const char* name, int error);

  Frame& Top() { return frames_.back(); }
  std::string ChildPath(const char* name) const { return path_ + "/" + name; }

  PurgeTreeState* state_;
  std::string path_;  // of the top frame while walking
  std::vector<Frame> frames_;
  size_t firstOpen_ = 1;  // frame 0 and frames [firstOpen_, top] hold open streams
  int firstError_ = 0;
  bool stopped_ = false;
};

int Remover::Run(bool recursive, int rmdirError) {
  const int topLevelError = RemoveItem(recursive, rmdirError);
  // Nothing at the path is for the caller to judge, not a failure worth a report.
  if (topLevelError && topLevelError != ENOENT) Report(path_, topLevelError);
  const int e = topLevelError == ENOENT ? ENOENT : firstError_;
  if (!e) return 0;
  errno = e;
  return -1;
}

// Returns the errno of a failure on the item itself, before a directory's contents were
// reached.
int Remover::RemoveItem(bool recursive, int rmdirError) {
  // Most trees removed are empty directories by then: one call, with no look first and no
  // walk to set up. rmdir never follows a link; it also takes an empty directory whose
  // contents we could not read.
  if (rmdirError < 0) {
    if (sys::Rmdir(path_.c_str()) == 0) return 0;
    rmdirError = errno;
  }
  if (rmdirError == ENOENT) return ENOENT;
  // Only a directory can be non-empty; anything else is looked at first.
  if (rmdirError != ENOTEMPTY && rmdirError != EEXIST) {
    struct stat st {};
    if (::lstat(path_.c_str(), &st) != 0) return errno;
    if (!S_ISDIR(st.st_mode)) return sys::Unlink(path_.c_str()) == 0 ? 0 : errno;
  }
  if (!recursive) return rmdirError;
  UniqueFd fd(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) return errno;
  Push(path_.c_str(), std::move(fd));
  Walk();
  frames_.clear();
  return 0;
}

void Remover::Walk() {
  while (!stopped_ && !frames_.empty()) {
    Frame& top = Top();
    DirentRecord entry;
    if (top.dir.Next(&entry)) {
      // The name lies in the stream's buffer, which stays put while frames are pushed.
      if (top.leftBehind.empty() || !top.leftBehind.count(std::string(entry.name))) {
        VisitEntry(entry.name.data(), entry.type);
      }
      continue;
    }
    if (errno != 0) {
      Report(path_, errno);
      top.descendantFailed = true;
    }
    FinishTop();
  }
}

void Remover::VisitEntry(const char* name, unsigned char type) {
  const int dirfd = Top().dir.fd();
  if (type == DT_UNKNOWN) {
    struct stat st {};
    if (::fstatat(dirfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      FailChild(name, errno);
      return;
    }
    type = S_ISDIR(st.st_mode) ? DT_DIR : DT_REG;
  }
  if (type == DT_DIR) {
    Descend(dirfd, name);
  } else {
    RemoveNonDirectory(dirfd, name);
  }
}

void Remover::RemoveNonDirectory(int dirfd, const char* name) {
  if (sys::Unlinkat(dirfd, name, 0) == 0) {
    Top().changedThisPass = true;
    return;
  }
  if (errno == EISDIR) {
    Descend(dirfd, name);  // replaced by a directory since it was listed
    return;
  }
  FailChild(name, errno);
}

void Remover::Descend(int dirfd, const char* name) {
  UniqueFd fd = OpenDirectoryAt(dirfd, name);
  if (fd) {
    Push(name, std::move(fd));
    return;
  }
  const int openError = errno;
  if (openError == ENOENT) {
    FailChild(name, ENOENT);
    return;
  }
  if (openError == ENOTDIR || openError == ELOOP) {
    // Replaced by a file or a link since it was listed: the link goes, its target stays.
    RemoveNonDirectory(dirfd, name);
    return;
  }
  if (sys::Unlinkat(dirfd, name, AT_REMOVEDIR) == 0) {
    Top().changedThisPass = true;
    return;
  }
  FailChild(name, errno == ENOENT ? ENOENT : openError);
}

void Remover::Push(const char* name, UniqueFd fd) {
  Frame frame;
  frame.name = name;
  frame.dir = DirectoryStream(std::move(fd));
  if (!frames_.empty()) path_ += "/" + frame.name;
  frame.pathLength = path_.size();
  frames_.push_back(std::move(frame));
  if (frames_.size() - firstOpen_ > kMaxOpenDirectories) {
    Frame& shallowest = frames_[firstOpen_++];
    shallowest.identityKnown = IdentityOf(shallowest.dir.fd(), &shallowest.identity);
    shallowest.dir.reset();
  }
}

// The top directory's contents are dealt with: remove it, or give up on it and let its
// parent know that it stays.
void Remover::FinishTop() {
  const bool isTopLevel = frames_.size() == 1;
  const size_t parentIndex = frames_.size() - 2;
  if (!isTopLevel && parentIndex != 0 && parentIndex < firstOpen_ && !ReopenParentOfTop()) return;

  Frame& child = Top();
  // The top-level directory's name is its whole path.
  const int parentFd = isTopLevel ? AT_FDCWD : frames_[parentIndex].dir.fd();
  bool failed = child.descendantFailed;
  int error = 0;
  if (!failed) {
    if (sys::Unlinkat(parentFd, child.name.c_str(), AT_REMOVEDIR) == 0) {
      if (!isTopLevel) frames_[parentIndex].changedThisPass = true;
    } else {
      error = errno;
      // Removing entries while reading may hide others from the stream: read it again.
      if ((error == ENOTEMPTY || error == EEXIST) && child.changedThisPass && child.dir.Rewind()) {
        child.changedThisPass = false;
        return;
      }
      failed = error != ENOENT;
    }
  }
  const std::string childPath = path_;
  std::string name = std::move(child.name);
  frames_.pop_back();
  // A directory that kept a failed descendant is not worth a report of its own.
  if (error) Report(childPath, error);
  if (isTopLevel) return;

  Frame& parent = Top();
  path_.resize(parent.pathLength);
  if (error == ENOENT) parent.changedThisPass = true;
  if (failed) {
    parent.leftBehind.insert(std::move(name));
    parent.descendantFailed = true;
  }
}

// The parent's stream was closed to save descriptors. Its ".." is the quickest way back;
// should the tree have been moved meanwhile, walk down again by name from the top.
bool Remover::ReopenParentOfTop() {
  const size_t parentIndex = frames_.size() - 2;
  Frame& parent = frames_[parentIndex];
  const std::string parentPath(path_, 0, parent.pathLength);
  UniqueFd fd(::openat(Top().dir.fd(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  Identity id;
  const auto isParent = [&] {
    return parent.identityKnown && IdentityOf(fd.get(), &id) && id == parent.identity;
  };
  if (!fd || !isParent()) {
    fd.reset(::fcntl(frames_[0].dir.fd(), F_DUPFD_CLOEXEC, 0));
    for (size_t i = 1; fd && i <= parentIndex; ++i) {
      fd = OpenDirectoryAt(fd.get(), frames_[i].name.c_str());
    }
    if (!fd || !isParent()) {
      // The tree moved under us: what is left of it is no longer at this path.
      Report(parentPath, fd ? ESTALE : errno);
      stopped_ = true;
      return false;
    }
  }
  parent.dir = DirectoryStream(std::move(fd));
  parent.changedThisPass = false;
  firstOpen_ = parentIndex;
  return true;
}

// An item that vanished meanwhile is reported all the same, but it is gone as wished: no
// failure of the tree, and a sign that its directory is worth reading again.
void Remover::FailChild(const char* name, int error) {
  Report(ChildPath(name), error);
  if (error == ENOENT) {
    Top().changedThisPass = true;
    return;
  }
  Top().leftBehind.insert(name);
  Top().descendantFailed = true;
}

void Remover::Report(const std::string& path, int error) {
  if (ReportPurgeError(state_, path.c_str(), error, &firstError_)) stopped_ = true;
}

std::string WithoutTrailingSlashes(const char* path) {
  // "link/" would resolve the link; the item named is the link itself.
  std::string p(path);
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return p;
}

}  // namespace

int purgetree(const char* path, PurgeTreeState* state, bool recursive) {
  if (!path || !*path) {
    errno = ENOENT;
    return -1;
  }
  Remover remover(state, WithoutTrailingSlashes(path));
  return remover.Run(recursive, -1);
}

int PurgeTreeAfterRmdir(const std::string& path, PurgeTreeState* state, bool recursive,
                        int rmdirError) {
  Remover remover(state, path);
  return remover.Run(recursive, rmdirError);
}

}  // namespace vx
