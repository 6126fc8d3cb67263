#include "platform/files/Sys.h"

#include <linux/fs.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/files/Fault.h"
#include "platform/files/PowerCut.h"

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

// The power-cut journal sees each change once it has happened, and what a removal or a
// rename replaces before it goes. Each returns the call's own result with its errno.
int Created(int result, int dirfd, const char* name, bool newNode = true) {
  if (result == 0 && powercut::Recording()) {
    const int saved = errno;
    powercut::AfterCreate(dirfd, name, newNode);
    errno = saved;
  }
  return result;
}

template <typename Call>
int Remove(int dirfd, const char* name, const char* operation, Call call) {
  if (Refused(operation)) return -1;
  const powercut::Pending pending = powercut::BeforeRemove(dirfd, name);
  const int result = call();
  const int saved = errno;
  result == 0 ? powercut::AfterRemove(dirfd, name, pending) : powercut::Abandon(pending);
  errno = saved;
  return result;
}

int RenameAt(int fromDirfd, const char* from, int toDirfd, const char* to, const char* operation) {
  if (Refused(operation)) return -1;
  const powercut::Pending pending = powercut::BeforeRename(fromDirfd, from, toDirfd, to);
  const int result = ::renameat(fromDirfd, from, toDirfd, to);
  const int saved = errno;
  result == 0 ? powercut::AfterRename(fromDirfd, from, toDirfd, to, pending)
              : powercut::Abandon(pending);
  errno = saved;
  return result;
}

int OpenAt(int dirfd, const char* name, int flags, mode_t mode, const char* operation) {
  const bool mutates = OpenMutates(flags);
  if (mutates && Refused(operation)) return -1;
  const powercut::Pending pending =
      mutates ? powercut::BeforeOpen(dirfd, name) : powercut::Pending{};
  const int fd = ::openat(dirfd, name, flags | O_CLOEXEC, mode);
  if (fd >= 0 && pending.active) {
    const int saved = errno;
    powercut::AfterOpen(dirfd, name, fd, pending);
    errno = saved;
  }
  return fd;
}

// Before a change of owner or mode by name, or of the descriptor itself (AT_EMPTY_PATH).
void BeforeMetadataOf(int dirfd, const char* name, int flags) {
  if (!powercut::Recording()) return;
  if ((flags & AT_EMPTY_PATH) && name && !*name) {
    powercut::BeforeMetadata(dirfd);
  } else {
    powercut::BeforeMetadataAt(dirfd, name, !(flags & AT_SYMLINK_NOFOLLOW));
  }
}

// Before a call that changes a file's data through its descriptor.
bool RefusedData(const char* operation, int fd) {
  if (Refused(operation)) return true;
  if (powercut::Recording()) powercut::BeforeData(fd);
  return false;
}

}  // namespace

int Mkdir(const char* path, mode_t mode) {
  return Refused("mkdir") ? -1 : Created(::mkdir(path, mode), AT_FDCWD, path);
}

int Mkdirat(int dirfd, const char* name, mode_t mode) {
  return Refused("mkdirat") ? -1 : Created(::mkdirat(dirfd, name, mode), dirfd, name);
}

char* Mkdtemp(char* templ) {
  if (Refused("mkdtemp")) return nullptr;
  char* made = ::mkdtemp(templ);
  Created(made ? 0 : -1, AT_FDCWD, templ);
  return made;
}

int Mkostemp(char* templ, int flags) {
  if (Refused("mkostemp")) return -1;
  const int fd = ::mkostemp(templ, flags);
  Created(fd >= 0 ? 0 : -1, AT_FDCWD, templ);
  return fd;
}

int Rename(const char* from, const char* to) {
  return RenameAt(AT_FDCWD, from, AT_FDCWD, to, "rename");
}

int Renameat(int fromDirfd, const char* from, int toDirfd, const char* to) {
  return RenameAt(fromDirfd, from, toDirfd, to, "renameat");
}

int Unlink(const char* path) {
  return Remove(AT_FDCWD, path, "unlink", [&] { return ::unlink(path); });
}

int Unlinkat(int dirfd, const char* name, int flags) {
  return Remove(dirfd, name, flags & AT_REMOVEDIR ? "unlinkat(rmdir)" : "unlinkat",
                [&] { return ::unlinkat(dirfd, name, flags); });
}

int Rmdir(const char* path) {
  return Remove(AT_FDCWD, path, "rmdir", [&] { return ::rmdir(path); });
}

int Open(const char* path, int flags, mode_t mode) {
  return OpenAt(AT_FDCWD, path, flags, mode, "open");
}

int Openat(int dirfd, const char* name, int flags, mode_t mode) {
  return OpenAt(dirfd, name, flags, mode, "openat");
}

ssize_t Write(int fd, const void* buffer, size_t size) {
  return RefusedData("write", fd) ? -1 : ::write(fd, buffer, size);
}

int Ftruncate(int fd, off_t length) {
  return RefusedData("ftruncate", fd) ? -1 : ::ftruncate(fd, length);
}

int Fsync(int fd) {
  if (Refused("fsync")) return -1;
  const int result = ::fsync(fd);
  if (result == 0) powercut::AfterSync(fd);
  return result;
}

int Syncfs(int fd) {
  if (Refused("syncfs")) return -1;
  const int result = ::syncfs(fd);
  if (result == 0) powercut::AfterSyncFileSystem(fd);
  return result;
}

int Lsetxattr(const char* path, const char* name, const void* value, size_t size, int flags) {
  if (Refused("lsetxattr")) return -1;
  powercut::BeforeMetadataAt(AT_FDCWD, path, false);
  return ::lsetxattr(path, name, value, size, flags);
}

int Fsetxattr(int fd, const char* name, const void* value, size_t size, int flags) {
  if (Refused("fsetxattr")) return -1;
  powercut::BeforeMetadata(fd);
  return ::fsetxattr(fd, name, value, size, flags);
}

int Lremovexattr(const char* path, const char* name) {
  if (Refused("lremovexattr")) return -1;
  powercut::BeforeMetadataAt(AT_FDCWD, path, false);
  return ::lremovexattr(path, name);
}

int Symlink(const char* target, const char* linkPath) {
  return Refused("symlink") ? -1 : Created(::symlink(target, linkPath), AT_FDCWD, linkPath);
}

int Symlinkat(const char* target, int dirfd, const char* name) {
  return Refused("symlinkat") ? -1 : Created(::symlinkat(target, dirfd, name), dirfd, name);
}

int Linkat(int existingDirfd, const char* existing, int newDirfd, const char* newName, int flags) {
  if (Refused("linkat")) return -1;
  return Created(::linkat(existingDirfd, existing, newDirfd, newName, flags), newDirfd, newName,
                 false);
}

int Mknodat(int dirfd, const char* name, mode_t mode, dev_t device) {
  return Refused("mknodat") ? -1 : Created(::mknodat(dirfd, name, mode, device), dirfd, name);
}

int Fchown(int fd, uid_t uid, gid_t gid) {
  if (Refused("fchown")) return -1;
  powercut::BeforeMetadata(fd);
  return ::fchown(fd, uid, gid);
}

int Fchownat(int dirfd, const char* name, uid_t uid, gid_t gid, int flags) {
  if (Refused("fchownat")) return -1;
  BeforeMetadataOf(dirfd, name, flags);
  return ::fchownat(dirfd, name, uid, gid, flags);
}

int Fchmod(int fd, mode_t mode) {
  if (Refused("fchmod")) return -1;
  powercut::BeforeMetadata(fd);
  return ::fchmod(fd, mode);
}

int Fchmodat(int dirfd, const char* name, mode_t mode, int flags) {
  if (Refused("fchmodat")) return -1;
  BeforeMetadataOf(dirfd, name, flags);
  return ::fchmodat(dirfd, name, mode, flags);
}

int Utimensat(int dirfd, const char* path, const struct timespec times[2], int flags) {
  return Refused("utimensat") ? -1 : ::utimensat(dirfd, path, times, flags);
}

int Futimens(int fd, const struct timespec times[2]) {
  return Refused("futimens") ? -1 : ::futimens(fd, times);
}

int CloneFile(int destinationFd, int sourceFd) {
  return RefusedData("ioctl(FICLONE)", destinationFd) ? -1
                                                      : ::ioctl(destinationFd, FICLONE, sourceFd);
}

ssize_t CopyFileRange(int sourceFd, off_t* sourceOffset, int destinationFd,
                      off_t* destinationOffset, size_t length) {
  if (RefusedData("copy_file_range", destinationFd)) return -1;
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
