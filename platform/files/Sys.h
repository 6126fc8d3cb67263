// platform/files: the device's file-system services (atomic writes, descriptors, tree
// removal and copying, directory chains and listings, protection classes, extended
// attributes) and the fault seam every mutation passes through. The bottom of the platform
// layer: it uses only the C library and the kernel.
//
// The system calls that change the file system, each behind the fault seam. Code of the
// platform layer and the file manager makes such calls only through these wrappers, so that
// no mutation escapes fault injection. They behave exactly as the calls they wrap (-1 and
// errno on failure).
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>

namespace vx::sys {

int Mkdir(const char* path, mode_t mode);
int Mkdirat(int dirfd, const char* name, mode_t mode);
char* Mkdtemp(char* templ);
int Mkostemp(char* templ, int flags);
int Rename(const char* from, const char* to);
int Renameat(int fromDirfd, const char* from, int toDirfd, const char* to);
int Unlink(const char* path);
int Unlinkat(int dirfd, const char* name, int flags);
int Rmdir(const char* path);
// Counts as a mutation only when it may create, truncate or open for writing.
int Open(const char* path, int flags, mode_t mode = 0);
int Openat(int dirfd, const char* name, int flags, mode_t mode = 0);
ssize_t Write(int fd, const void* buffer, size_t size);
int Ftruncate(int fd, off_t length);
int Fsync(int fd);
// Makes everything written to the file system that `fd` lies on durable at once.
int Syncfs(int fd);
int Lsetxattr(const char* path, const char* name, const void* value, size_t size, int flags);
int Fsetxattr(int fd, const char* name, const void* value, size_t size, int flags);
int Lremovexattr(const char* path, const char* name);
int Symlink(const char* target, const char* linkPath);
int Symlinkat(const char* target, int dirfd, const char* name);
// Names are taken in their directories' descriptors, so a directory swapped for a link on
// either side cannot send the new link elsewhere. Without AT_SYMLINK_FOLLOW in `flags` an
// existing symbolic link is linked itself.
int Linkat(int existingDirfd, const char* existing, int newDirfd, const char* newName, int flags);
int Mknodat(int dirfd, const char* name, mode_t mode, dev_t device);
int Fchown(int fd, uid_t uid, gid_t gid);
int Fchownat(int dirfd, const char* name, uid_t uid, gid_t gid, int flags);
int Fchmod(int fd, mode_t mode);
int Fchmodat(int dirfd, const char* name, mode_t mode, int flags);
int Utimensat(int dirfd, const char* path, const struct timespec times[2], int flags);
int Futimens(int fd, const struct timespec times[2]);
// Shares the source's blocks with the destination (FICLONE); EOPNOTSUPP and EXDEV say that
// the file system cannot.
int CloneFile(int destinationFd, int sourceFd);
ssize_t CopyFileRange(int sourceFd, off_t* sourceOffset, int destinationFd,
                      off_t* destinationOffset, size_t length);

// Writes the whole buffer, retrying short writes and EINTR; false with errno on failure.
bool WriteAll(int fd, const void* buffer, size_t size);

}  // namespace vx::sys
