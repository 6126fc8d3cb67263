#include "platform/files/CloneTree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/files/Beneath.h"
#include "platform/files/CloneItems.h"
#include "platform/files/DirectoryNames.h"
#include "platform/files/Sys.h"
#include "platform/files/UniqueFd.h"

namespace vx {
namespace {

// Two descriptors per level; beyond this many levels the shallowest are closed and found
// again through ".." on the way back up.
constexpr size_t kMaxOpenLevels = 32;

using clone::Identity;
using clone::IdentityOf;
using clone::OpenDirectoryAt;

std::string WithoutTrailingSlashes(std::string p) {
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return p;
}

// The directory holding `path` (followed like any lookup) and the name of `path` in it.
int OpenParent(const std::string& path, UniqueFd* parent, std::string* name) {
  const size_t slash = path.rfind('/');
  std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  *name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (name->empty()) *name = ".";
  parent->reset(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return *parent ? 0 : errno;
}

// A directory being copied. Its names are read when it is entered, so that what the copy
// adds (when the destination lies within the source) is not copied again.
struct Level {
  UniqueFd src;
  UniqueFd dst;
  Identity srcIdentity;
  Identity dstIdentity;
  struct stat st {};
  std::vector<std::string> names;
  size_t next = 0;
  size_t dstPathLength = 0;
};

class Cloner {
 public:
  Cloner(unsigned flags, unsigned workers) : flags_(flags), workers_(workers) {}
  int Run(const std::string& source, const std::string& destination);

 private:
  int CloneEntry(int srcDir, const std::string& srcName, int dstDir, const std::string& dstName,
                 const struct stat& st);
  struct FirstCopy {
    std::string relativePath;  // below the destination's root
    Identity identity;         // of the copy made there
  };
  int CloneRegular(int srcDir, const std::string& srcName, int dstDir, const std::string& dstName);
  int LinkToFirstCopy(const FirstCopy& first, int dstDir, const std::string& dstName);
  int CloneSpecial(int dstDir, const std::string& dstName, const struct stat& st);
  int CloneLink(int srcDir, const std::string& srcName, int dstDir, const std::string& dstName,
                const struct stat& st);
  int EnterDirectory(int srcDir, const std::string& srcName, int dstDir,
                     const std::string& dstName);
  int Walk();
  int LeaveDirectory();
  int ReopenParent();

  unsigned flags_;
  unsigned workers_;
  std::atomic<bool> noReflink_{false};
  std::string dstPath_;  // of the item being copied
  size_t dstRootPathLength_ = 0;
  Identity dstRootIdentity_;
  UniqueFd dstRoot_;  // hard links are found again beneath it
  std::vector<Level> levels_;
  size_t firstOpen_ = 0;  // levels [firstOpen_, top] hold open descriptors
  std::map<std::pair<dev_t, ino_t>, FirstCopy> linked_;  // copies of multiply-linked files
};

int Cloner::Run(const std::string& source, const std::string& destination) {
  UniqueFd srcDir;
  UniqueFd dstDir;
  std::string srcName;
  std::string dstName;
  if (int e = OpenParent(source, &srcDir, &srcName)) return e;
  if (int e = OpenParent(destination, &dstDir, &dstName)) return e;
  struct stat st {};
  if (::fstatat(srcDir.get(), srcName.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return errno;
  dstPath_ = destination;
  dstRootPathLength_ = destination.size();
  if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode) && !S_ISLNK(st.st_mode) &&
      !(flags_ & kCloneSpecial)) {
    return ENOTSUP;
  }
  if (S_ISDIR(st.st_mode) && workers_ > 1 && (flags_ & kCloneRecursive)) {
    return clone::CloneDirectoryInParallel(srcDir.get(), srcName, dstDir.get(), dstName, flags_,
                                           workers_);
  }
  if (int e = CloneEntry(srcDir.get(), srcName, dstDir.get(), dstName, st)) return e;
  if (levels_.empty()) return 0;
  dstRootIdentity_ = levels_.front().dstIdentity;
  dstRoot_.reset(::fcntl(levels_.front().dst.get(), F_DUPFD_CLOEXEC, 0));
  if (!dstRoot_) return errno;
  return Walk();
}

// Fifos, sockets and device nodes hold no data; a copy leaves them out, a copy that stands
// in for a move makes them anew or fails.
int Cloner::CloneEntry(int srcDir, const std::string& srcName, int dstDir,
                       const std::string& dstName, const struct stat& st) {
  if (S_ISREG(st.st_mode)) return CloneRegular(srcDir, srcName, dstDir, dstName);
  if (S_ISLNK(st.st_mode)) return CloneLink(srcDir, srcName, dstDir, dstName, st);
  if (S_ISDIR(st.st_mode)) {
    // The destination inside the source: its copy is what is being made, not a part of it.
    if (!levels_.empty() && IdentityOf(st) == dstRootIdentity_) return 0;
    return EnterDirectory(srcDir, srcName, dstDir, dstName);
  }
  if (flags_ & kCloneSpecial) return CloneSpecial(dstDir, dstName, st);
  return 0;
}

int Cloner::CloneRegular(int srcDir, const std::string& srcName, int dstDir,
                         const std::string& dstName) {
  // Whatever the listing said, only a regular file by its open descriptor is read: a FIFO
  // put in its place would make the copy wait forever.
  struct stat st {};
  UniqueFd src = OpenRegularFileAt(srcDir, srcName.c_str(), &st);
  if (!src) return errno == ENOENT ? 0 : errno;

  const std::pair<dev_t, ino_t> key{st.st_dev, st.st_ino};
  if (st.st_nlink > 1) {
    if (auto first = linked_.find(key); first != linked_.end()) {
      const int e = LinkToFirstCopy(first->second, dstDir, dstName);
      // A file system without hard links, or a first copy no longer where it was made:
      // copy it on its own.
      if (e != EMLINK && e != EPERM && e != EXDEV && e != ESTALE && e != ENOENT) return e;
    }
  }
  const int e = clone::CopyRegularTo(src.get(), st, dstDir, dstName, flags_, &noReflink_);
  if (!e && st.st_nlink > 1 && dstRoot_) {
    struct stat made {};
    if (::fstatat(dstDir, dstName.c_str(), &made, AT_SYMLINK_NOFOLLOW) == 0) {
      linked_.emplace(key, FirstCopy{dstPath_.substr(dstRootPathLength_ + 1), IdentityOf(made)});
    }
  }
  return e;
}

// Links `dstName` in `dstDir` to the copy already made of the same file, found again beneath
// the destination's root.
int Cloner::LinkToFirstCopy(const FirstCopy& first, int dstDir, const std::string& dstName) {
  return clone::LinkToCopy(dstRoot_.get(), first.relativePath, first.identity, dstDir, dstName);
}

int Cloner::CloneSpecial(int dstDir, const std::string& dstName, const struct stat& st) {
  return clone::MakeSpecial(dstDir, dstName, st, flags_);
}

int Cloner::CloneLink(int srcDir, const std::string& srcName, int dstDir,
                      const std::string& dstName, const struct stat& st) {
  return clone::CopyLink(srcDir, srcName, dstDir, dstName, st, flags_);
}

// Makes (or finds, to merge into) the destination directory and starts copying into it.
// It stays owner-only until its contents are in; its own metadata comes last.
int Cloner::EnterDirectory(int srcDir, const std::string& srcName, int dstDir,
                           const std::string& dstName) {
  Level level;
  level.src = OpenDirectoryAt(srcDir, srcName.c_str());
  if (!level.src) return errno == ENOENT ? 0 : errno;
  if (::fstat(level.src.get(), &level.st) != 0) return errno;
  level.srcIdentity = IdentityOf(level.st);

  if (sys::Mkdirat(dstDir, dstName.c_str(), 0700) != 0 && errno != EEXIST) return errno;
  level.dst = OpenDirectoryAt(dstDir, dstName.c_str());
  if (!level.dst) return errno == ENOTDIR || errno == ELOOP ? EEXIST : errno;
  if (!IdentityOf(level.dst.get(), &level.dstIdentity)) return errno;

  if (flags_ & kCloneRecursive) {
    if (!ReadDirectoryNames(level.src.get(), &level.names)) return errno;
  }
  level.dstPathLength = dstPath_.size();
  levels_.push_back(std::move(level));
  if (levels_.size() - firstOpen_ > kMaxOpenLevels) {
    levels_[firstOpen_].src.reset();
    levels_[firstOpen_].dst.reset();
    ++firstOpen_;
  }
  return 0;
}

int Cloner::Walk() {
  while (!levels_.empty()) {
    Level& top = levels_.back();
    if (top.next == top.names.size()) {
      if (int e = LeaveDirectory()) return e;
      continue;
    }
    const std::string name = top.names[top.next++];
    struct stat st {};
    if (::fstatat(top.src.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno == ENOENT) continue;  // gone since it was listed
      return errno;
    }
    dstPath_.resize(top.dstPathLength);
    dstPath_ += "/" + name;
    if (int e = CloneEntry(top.src.get(), name, top.dst.get(), name, st)) return e;
  }
  return 0;
}

int Cloner::LeaveDirectory() {
  Level& top = levels_.back();
  if (int e = clone::CopyMetadata(top.src.get(), top.dst.get(), top.st, flags_)) return e;
  if (levels_.size() > 1 && levels_.size() - 2 < firstOpen_) {
    if (int e = ReopenParent()) return e;
  }
  levels_.pop_back();
  return 0;
}

// The parent's descriptors were closed to save them. Its ".." leads back, unless the tree
// was moved meanwhile: then the copy cannot know where it is, and stops.
int Cloner::ReopenParent() {
  Level& child = levels_.back();
  Level& parent = levels_[levels_.size() - 2];
  UniqueFd src = OpenDirectoryAt(child.src.get(), "..");
  UniqueFd dst = OpenDirectoryAt(child.dst.get(), "..");
  Identity srcId;
  Identity dstId;
  if (!src || !dst || !IdentityOf(src.get(), &srcId) || !IdentityOf(dst.get(), &dstId)) {
    return errno;
  }
  if (srcId != parent.srcIdentity || dstId != parent.dstIdentity) return ESTALE;
  parent.src = std::move(src);
  parent.dst = std::move(dst);
  firstOpen_ = levels_.size() - 2;
  return 0;
}

}  // namespace

int clonetree(const char* source, const char* destination, unsigned flags) {
  return clonetree(source, destination, flags, 1);
}

int clonetree(const char* source, const char* destination, unsigned flags, unsigned workers) {
  if (!source || !*source || !destination || !*destination) {
    errno = ENOENT;
    return -1;
  }
  std::string from = WithoutTrailingSlashes(source);
  if (!(flags & kCloneNoFollow)) {
    // Only the source named is followed; links inside it are still copied as links.
    std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(from.c_str(), nullptr),
                                                         &std::free);
    if (!resolved) return -1;
    from = resolved.get();
  }
  Cloner cloner(flags, workers);
  if (int e = cloner.Run(from, WithoutTrailingSlashes(destination))) {
    errno = e;
    return -1;
  }
  return 0;
}

}  // namespace vx
