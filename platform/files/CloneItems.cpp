#include "platform/files/CloneItems.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>
#include <vector>

#include "platform/files/Beneath.h"
#include "platform/files/CloneTree.h"
#include "platform/files/Sys.h"

namespace vx::clone {
namespace {

constexpr size_t kCopyBufferSize = 128 * 1024;

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

std::string TemporaryName() {
  static std::atomic<unsigned> counter{0};
  return ".vxclone." + std::to_string(::getpid()) + "." + std::to_string(++counter);
}

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

}  // namespace

int CopyData(int src, int dst, std::atomic<bool>* noReflink) {
  if (!noReflink || !noReflink->load(std::memory_order_relaxed)) {
    if (sys::CloneFile(dst, src) == 0) return 0;
    if (!MeansUnsupported(errno)) return errno;
    if (noReflink && (errno == EOPNOTSUPP || errno == ENOTTY)) noReflink->store(true);
  }
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

int Place(int dirfd, const std::string& name, const std::function<int(const std::string&)>& make) {
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

int CopyRegularTo(int src, const struct stat& st, int dstDir, const std::string& dstName,
                  unsigned flags, std::atomic<bool>* noReflink) {
  return Place(dstDir, dstName, [&](const std::string& name) {
    UniqueFd dst(sys::Openat(dstDir, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600));
    if (!dst) return errno;
    int failure = (flags & kCloneData) ? CopyData(src, dst.get(), noReflink) : 0;
    if (!failure) failure = CopyMetadata(src, dst.get(), st, flags);
    if (failure) {
      dst.reset();
      sys::Unlinkat(dstDir, name.c_str(), 0);
    }
    return failure;
  });
}

int CopyLink(int srcDir, const std::string& srcName, int dstDir, const std::string& dstName,
             const struct stat& st, unsigned flags) {
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
    return (flags & kCloneStat) ? StampNodeAt(dstDir, name, st, false) : 0;
  });
}

// A socket belongs to the process that bound it and cannot be made anew. The item is made
// by name in a directory of the copy, and its metadata set by name without following it: a
// device node is never opened.
int MakeSpecial(int dstDir, const std::string& dstName, const struct stat& st, unsigned flags) {
  if (S_ISSOCK(st.st_mode)) return ENOTSUP;
  return Place(dstDir, dstName, [&](const std::string& name) {
    if (sys::Mknodat(dstDir, name.c_str(), st.st_mode & (S_IFMT | 0600), st.st_rdev) != 0) {
      return errno;
    }
    return (flags & kCloneStat) ? StampNodeAt(dstDir, name, st, true) : 0;
  });
}

// The copy is found beneath the destination's root without following any link, and proven
// to be the item made before the link is kept, so a destination directory swapped for a link
// cannot make the copier link some other file into the tree.
int LinkToCopy(int dstRoot, const std::string& relativePath, const Identity& made, int dstDir,
               const std::string& dstName) {
  const size_t slash = relativePath.rfind('/');
  const std::string parentPath =
      slash == std::string::npos ? std::string() : relativePath.substr(0, slash);
  const std::string name =
      slash == std::string::npos ? relativePath : relativePath.substr(slash + 1);
  // The copy may lie deeper than any path the kernel takes: found a stretch at a time.
  constexpr size_t kStretch = 2048;
  std::string_view rest = parentPath;
  UniqueFd parent;
  do {
    size_t end = rest.size();
    if (end > kStretch) end = rest.rfind('/', kStretch);
    if (end == std::string_view::npos || (end == 0 && !rest.empty())) return ESTALE;
    parent = OpenBeneath(parent ? parent.get() : dstRoot, rest.substr(0, end),
                         O_RDONLY | O_DIRECTORY);
    if (!parent) return ESTALE;
    rest.remove_prefix(std::min(rest.size(), end + 1));
  } while (!rest.empty());
  return LinkToCopyIn(parent.get(), name, made, dstDir, dstName);
}

int LinkToCopyIn(int parent, const std::string& name, const Identity& made, int dstDir,
                 const std::string& dstName) {
  struct stat st {};
  if (::fstatat(parent, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
      IdentityOf(st) != made) {
    return ESTALE;
  }
  int e = Place(dstDir, dstName, [&](const std::string& linkName) {
    return sys::Linkat(parent, name.c_str(), dstDir, linkName.c_str(), 0) == 0 ? 0 : errno;
  });
  if (e) return e;
  // The name may have been swapped between the look and the link.
  if (::fstatat(dstDir, dstName.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
      IdentityOf(st) != made) {
    sys::Unlinkat(dstDir, dstName.c_str(), 0);
    return ESTALE;
  }
  return 0;
}

}  // namespace vx::clone
