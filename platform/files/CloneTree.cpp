#include "platform/files/CloneTree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
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
#include "platform/files/Sys.h"
#include "platform/files/UniqueFd.h"

namespace vx {
namespace {

// Two descriptors per level; beyond this many levels the shallowest are closed and found
// again through ".." on the way back up.
constexpr size_t kMaxOpenLevels = 32;
constexpr size_t kCopyBufferSize = 128 * 1024;

struct Identity {
  dev_t dev = 0;
  ino_t ino = 0;
  bool operator==(const Identity&) const = default;
};

Identity IdentityOf(const struct stat& st) { return {st.st_dev, st.st_ino}; }

bool IdentityOf(int fd, Identity* id) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) return false;
  *id = IdentityOf(st);
  return true;
}

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

UniqueFd OpenDirectoryAt(int dirfd, const char* name) {
  return UniqueFd(::openat(dirfd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Filesystems that cannot share blocks or copy in the kernel say so with one of these.
bool MeansUnsupported(int e) {
  return e == EOPNOTSUPP || e == ENOTTY || e == EXDEV || e == EINVAL || e == ENOSYS;
}

int CopyByReadWrite(int src, int dst) {
  std::unique_ptr<char[]> buffer(new char[kCopyBufferSize]);
  off_t offset = 0;
  for (;;) {
    const ssize_t n = ::pread(src, buffer.get(), kCopyBufferSize, offset);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    if (n == 0) return 0;
    if (!sys::WriteAll(dst, buffer.get(), static_cast<size_t>(n))) return errno;
    offset += n;
  }
}

int CopyData(int src, int dst) {
  if (sys::CloneFile(dst, src) == 0) return 0;
  if (!MeansUnsupported(errno)) return errno;
  off_t in = 0;
  off_t out = 0;
  for (;;) {
    const ssize_t n = sys::CopyFileRange(src, &in, dst, &out, size_t{1} << 30);
    if (n > 0) continue;
    if (n == 0) return 0;
    if (errno == EINTR) continue;
    // Only a refusal before the first byte can be finished by hand from the start.
    if (in == 0 && MeansUnsupported(errno)) return CopyByReadWrite(src, dst);
    return errno;
  }
}

// Fills `value` with the attribute; false with errno (ENODATA: removed meanwhile).
bool ReadAttribute(int fd, const char* name, std::vector<char>* value) {
  for (;;) {
    const ssize_t size = ::fgetxattr(fd, name, nullptr, 0);
    if (size < 0) return false;
    value->resize(static_cast<size_t>(size));
    const ssize_t n = ::fgetxattr(fd, name, value->data(), value->size());
    if (n >= 0) {
      value->resize(static_cast<size_t>(n));
      return true;
    }
    if (errno != ERANGE) return false;  // grew between the two calls: ask again
  }
}

bool ListAttributes(int fd, std::vector<char>* names) {
  for (;;) {
    const ssize_t size = ::flistxattr(fd, nullptr, 0);
    if (size < 0) return false;
    names->resize(static_cast<size_t>(size));
    const ssize_t n = ::flistxattr(fd, names->data(), names->size());
    if (n >= 0) {
      names->resize(static_cast<size_t>(n));
      return true;
    }
    if (errno != ERANGE) return false;
  }
}

// "system." attributes carry ACLs and are asked for as security information; the rest as
// extended attributes. An attribute the destination cannot keep (a file system without
// user attributes, a namespace reserved to privilege) is left behind rather than failing
// the copy of the data it belongs to.
int CopyAttributes(int src, int dst, unsigned flags) {
  std::vector<char> names;
  if (!ListAttributes(src, &names)) return errno == ENOTSUP ? 0 : errno;
  std::vector<char> value;
  for (size_t at = 0; at < names.size();) {
    const char* name = names.data() + at;
    const std::string_view view(name);
    at += view.size() + 1;
    const bool security = view.starts_with("system.");
    if (!(flags & (security ? kCloneSecurity : kCloneXattr))) continue;
    if (!ReadAttribute(src, name, &value)) {
      if (errno == ENODATA) continue;
      return errno;
    }
    if (sys::Fsetxattr(dst, name, value.data(), value.size(), 0) != 0) {
      if (errno == ENOTSUP || errno == EPERM) continue;
      return errno;
    }
  }
  return 0;
}

// Owner first, since a change of owner clears set-id bits that the mode then restores;
// attributes before the mode, while the new item is still writable to us; times last.
int CopyMetadata(int src, int dst, const struct stat& st, unsigned flags) {
  if ((flags & kCloneStat) && sys::Fchown(dst, st.st_uid, st.st_gid) != 0 && errno != EPERM) {
    return errno;
  }
  if (flags & (kCloneXattr | kCloneSecurity)) {
    if (int e = CopyAttributes(src, dst, flags)) return e;
  }
  if (!(flags & kCloneStat)) return 0;
  if (sys::Fchmod(dst, st.st_mode & 07777) != 0) return errno;
  const struct timespec times[2] = {st.st_atim, st.st_mtim};
  return sys::Futimens(dst, times) == 0 ? 0 : errno;
}

std::string TemporaryName() {
  static std::atomic<unsigned> counter{0};
  return ".vxclone." + std::to_string(::getpid()) + "." + std::to_string(++counter);
}

// Makes a non-directory under `name`. When something is there already, the item is made
// under a temporary name and renamed over it, so that what is replaced stays until a whole
// copy stands in its place. `make(name)` returns 0 or an errno and cleans up after itself.
template <class Make>
int Place(int dirfd, const std::string& name, Make make) {
  int e = make(name);
  for (int attempt = 0; e == EEXIST && attempt < 16; ++attempt) {
    const std::string temporary = TemporaryName();
    e = make(temporary);
    if (e == EEXIST) continue;
    if (e) return e;
    if (sys::Renameat(dirfd, temporary.c_str(), dirfd, name.c_str()) == 0) return 0;
    e = errno;
    sys::Unlinkat(dirfd, temporary.c_str(), 0);
    return e;
  }
  return e;
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
  explicit Cloner(unsigned flags) : flags_(flags) {}
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
  std::string dstPath_;  // of the item being copied
  size_t dstRootPathLength_ = 0;
  Identity dstRootIdentity_;
  UniqueFd dstRoot_;  // hard links are found again beneath it
  std::vector<Level> levels_;
  size_t firstOpen_ = 0;  // levels [firstOpen_, top] hold open descriptors
  std::map<std::pair<dev_t, ino_t>, FirstCopy> linked_;  // copies of multiply-linked files
};

// Gives a node just made by name (a FIFO, device node or link, which cannot be opened to be
// changed by descriptor) the source's owner, mode and times; on failure it goes again, so that
// no half-made copy stays behind. Without privilege the owner stays the copier's.
int StampNodeAt(int dstDir, const std::string& name, const struct stat& st, bool withMode) {
  const struct timespec times[2] = {st.st_atim, st.st_mtim};
  int e = 0;
  if (sys::Fchownat(dstDir, name.c_str(), st.st_uid, st.st_gid, AT_SYMLINK_NOFOLLOW) != 0 &&
      errno != EPERM) {
    e = errno;
  } else if (withMode && sys::Fchmodat(dstDir, name.c_str(), st.st_mode & 07777, 0) != 0) {
    e = errno;
  } else if (sys::Utimensat(dstDir, name.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
    e = errno;
  }
  if (e) sys::Unlinkat(dstDir, name.c_str(), 0);
  return e;
}

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
  const int e = Place(dstDir, dstName, [&](const std::string& name) {
    UniqueFd dst(sys::Openat(dstDir, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600));
    if (!dst) return errno;
    int failure = (flags_ & kCloneData) ? CopyData(src.get(), dst.get()) : 0;
    if (!failure) failure = CopyMetadata(src.get(), dst.get(), st, flags_);
    if (failure) {
      dst.reset();
      sys::Unlinkat(dstDir, name.c_str(), 0);
    }
    return failure;
  });
  if (!e && st.st_nlink > 1 && dstRoot_) {
    struct stat made {};
    if (::fstatat(dstDir, dstName.c_str(), &made, AT_SYMLINK_NOFOLLOW) == 0) {
      linked_.emplace(key, FirstCopy{dstPath_.substr(dstRootPathLength_ + 1), IdentityOf(made)});
    }
  }
  return e;
}

// Links `dstName` in `dstDir` to the copy already made of the same file. The copy is found
// beneath the destination's root without following any link, and proven to be the item made
// before the link is kept, so a destination directory swapped for a link cannot make the
// copier link some other file into the tree.
int Cloner::LinkToFirstCopy(const FirstCopy& first, int dstDir, const std::string& dstName) {
  const size_t slash = first.relativePath.rfind('/');
  const std::string parentPath =
      slash == std::string::npos ? std::string() : first.relativePath.substr(0, slash);
  const std::string name =
      slash == std::string::npos ? first.relativePath : first.relativePath.substr(slash + 1);
  UniqueFd parent = OpenBeneath(dstRoot_.get(), parentPath, O_RDONLY | O_DIRECTORY);
  if (!parent) return ESTALE;
  struct stat st {};
  if (::fstatat(parent.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
      IdentityOf(st) != first.identity) {
    return ESTALE;
  }
  int e = Place(dstDir, dstName, [&](const std::string& made) {
    return sys::Linkat(parent.get(), name.c_str(), dstDir, made.c_str(), 0) == 0 ? 0 : errno;
  });
  if (e) return e;
  // The name may have been swapped between the look and the link.
  if (::fstatat(dstDir, dstName.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
      IdentityOf(st) != first.identity) {
    sys::Unlinkat(dstDir, dstName.c_str(), 0);
    return ESTALE;
  }
  return 0;
}

// Fifos and device nodes are made anew; a socket belongs to the process that bound it and
// cannot be. The item is made by name in a directory of the copy, and its metadata set
// by name without following it: a device node is never opened.
int Cloner::CloneSpecial(int dstDir, const std::string& dstName, const struct stat& st) {
  if (S_ISSOCK(st.st_mode)) return ENOTSUP;
  return Place(dstDir, dstName, [&](const std::string& name) {
    if (sys::Mknodat(dstDir, name.c_str(), st.st_mode & (S_IFMT | 0600), st.st_rdev) != 0) {
      return errno;
    }
    return (flags_ & kCloneStat) ? StampNodeAt(dstDir, name, st, true) : 0;
  });
}

int Cloner::CloneLink(int srcDir, const std::string& srcName, int dstDir,
                      const std::string& dstName, const struct stat& st) {
  // st_size is the target's length on most file systems, but not all: grow until it fits.
  std::string target(static_cast<size_t>(st.st_size) + 1, '\0');
  for (;;) {
    const ssize_t n = ::readlinkat(srcDir, srcName.c_str(), target.data(), target.size());
    if (n < 0) return errno == ENOENT ? 0 : errno;
    if (static_cast<size_t>(n) < target.size()) {
      target.resize(static_cast<size_t>(n));
      break;
    }
    target.resize(target.size() * 2);
  }
  return Place(dstDir, dstName, [&](const std::string& name) {
    if (sys::Symlinkat(target.c_str(), dstDir, name.c_str()) != 0) return errno;
    // A link has no mode of its own on Linux.
    return (flags_ & kCloneStat) ? StampNodeAt(dstDir, name, st, false) : 0;
  });
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
    UniqueFd listing(::fcntl(level.src.get(), F_DUPFD_CLOEXEC, 0));
    UniqueDir dir(listing ? ::fdopendir(listing.get()) : nullptr);
    if (!dir) return errno;
    listing.release();  // the stream owns it now
    errno = 0;
    while (const dirent* entry = ::readdir(dir.get())) {
      const std::string_view name(entry->d_name);
      if (name != "." && name != "..") level.names.emplace_back(name);
    }
    if (errno) return errno;
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
  if (int e = CopyMetadata(top.src.get(), top.dst.get(), top.st, flags_)) return e;
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
  Cloner cloner(flags);
  if (int e = cloner.Run(from, WithoutTrailingSlashes(destination))) {
    errno = e;
    return -1;
  }
  return 0;
}

}  // namespace vx
