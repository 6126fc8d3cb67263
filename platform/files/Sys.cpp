#include "platform/files/Sys.h"

#include <linux/fs.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/files/Fault.h"

namespace vx::sys {
namespace {

// Every wrapper starts here: the seam may refuse the call before it takes effect.
bool Refused(const char* operation) {
  if (int e = fault::BeforeMutation(operation)) {
    errno = e;
    return true;
  }
  return false;
}

bool OpenMutates(int flags) {
  return (flags & (O_CREAT | O_TRUNC)) != 0 || (flags & O_ACCMODE) != O_RDONLY;
}

}  // namespace

int Mkdir(const char* path, mode_t mode) { return Refused("mkdir") ? -1 : ::mkdir(path, mode); }

int Mkdirat(int dirfd, const char* name, mode_t mode) {
  return Refused("mkdirat") ? -1 : ::mkdirat(dirfd, name, mode);
}

char* Mkdtemp(char* templ) { return Refused("mkdtemp") ? nullptr : ::mkdtemp(templ); }

int Mkostemp(char* templ, int flags) {
  return Refused("mkostemp") ? -1 : ::mkostemp(templ, flags);
}

int Rename(const char* from, const char* to) {
  return Refused("rename") ? -1 : ::rename(from, to);
}

int Renameat(int fromDirfd, const char* from, int toDirfd, const char* to) {
  return Refused("renameat") ? -1 : ::renameat(fromDirfd, from, toDirfd, to);
}

int Unlink(const char* path) { return Refused("unlink") ? -1 : ::unlink(path); }

int Unlinkat(int dirfd, const char* name, int flags) {
  return Refused(flags & AT_REMOVEDIR ? "unlinkat(rmdir)" : "unlinkat") ? -1
                                                                        : ::unlinkat(dirfd, name, flags);
}

int Rmdir(const char* path) { return Refused("rmdir") ? -1 : ::rmdir(path); }

int Open(const char* path, int flags, mode_t mode) {
  if (OpenMutates(flags) && Refused("open")) return -1;
  return ::open(path, flags | O_CLOEXEC, mode);
}

int Openat(int dirfd, const char* name, int flags, mode_t mode) {
  if (OpenMutates(flags) && Refused("openat")) return -1;
  return ::openat(dirfd, name, flags | O_CLOEXEC, mode);
}

ssize_t Write(int fd, const void* buffer, size_t size) {
  return Refused("write") ? -1 : ::write(fd, buffer, size);
}

int Ftruncate(int fd, off_t length) { return Refused("ftruncate") ? -1 : ::ftruncate(fd, length); }

int Fsync(int fd) { return Refused("fsync") ? -1 : ::fsync(fd); }

int Lsetxattr(const char* path, const char* name, const void* value, size_t size, int flags) {
  return Refused("lsetxattr") ? -1 : ::lsetxattr(path, name, value, size, flags);
}

int Fsetxattr(int fd, const char* name, const void* value, size_t size, int flags) {
  return Refused("fsetxattr") ? -1 : ::fsetxattr(fd, name, value, size, flags);
}

int Lremovexattr(const char* path, const char* name) {
  return Refused("lremovexattr") ? -1 : ::lremovexattr(path, name);
}

int Symlink(const char* target, const char* linkPath) {
  return Refused("symlink") ? -1 : ::symlink(target, linkPath);
}

int Symlinkat(const char* target, int dirfd, const char* name) {
  return Refused("symlinkat") ? -1 : ::symlinkat(target, dirfd, name);
}

int Linkat(int existingDirfd, const char* existing, int newDirfd, const char* newName, int flags) {
  return Refused("linkat") ? -1 : ::linkat(existingDirfd, existing, newDirfd, newName, flags);
}

int Mknodat(int dirfd, const char* name, mode_t mode, dev_t device) {
  return Refused("mknodat") ? -1 : ::mknodat(dirfd, name, mode, device);
}

int Fchown(int fd, uid_t uid, gid_t gid) { return Refused("fchown") ? -1 : ::fchown(fd, uid, gid); }

int Fchownat(int dirfd, const char* name, uid_t uid, gid_t gid, int flags) {
  return Refused("fchownat") ? -1 : ::fchownat(dirfd, name, uid, gid, flags);
}

int Fchmod(int fd, mode_t mode) { return Refused("fchmod") ? -1 : ::fchmod(fd, mode); }

int Fchmodat(int dirfd, const char* name, mode_t mode, int flags) {
  return Refused("fchmodat") ? -1 : ::fchmodat(dirfd, name, mode, flags);
}

int Utimensat(int dirfd, const char* path, const struct timespec times[2], int flags) {
  return Refused("utimensat") ? -1 : ::utimensat(dirfd, path, times, flags);
}

int Futimens(int fd, const struct timespec times[2]) {
  return Refused("futimens") ? -1 : ::futimens(fd, times);
}

int CloneFile(int destinationFd, int sourceFd) {
  return Refused("ioctl(FICLONE)") ? -1 : ::ioctl(destinationFd, FICLONE, sourceFd);
}

ssize_t CopyFileRange(int sourceFd, off_t* sourceOffset, int destinationFd,
                      off_t* destinationOffset, size_t length) {
  if (Refused("copy_file_range")) return -1;
  return ::copy_file_range(sourceFd, sourceOffset, destinationFd, destinationOffset, length, 0);
}

bool WriteAll(int fd, const void* buffer, size_t size) {
  const char* p = static_cast<const char*>(buffer);
  while (size > 0) {
    ssize_t n = Write(fd, p, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace vx::sys
