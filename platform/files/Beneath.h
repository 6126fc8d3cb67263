// Opening inside a tree that someone else may write (an application's container, a data or
// group container, a tree handed to vxfile). Such a tree may hold any symbolic link, FIFO or
// device node and may change while we look, so a name inside it is resolved by descriptor,
// one component at a time, and never through a link: the result lies beneath the directory
// it started from or the open fails.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string_view>

#include "platform/files/UniqueFd.h"

namespace vx {

// Opens `relative` beneath the open directory `dirfd` without following any symbolic link,
// intermediate or final, and without leaving the directory: an absolute text, a ".."
// component or a link anywhere on the way fails with ELOOP, EXDEV or ENOTDIR (errno set, the
// handle invalid). Uses openat2 with RESOLVE_BENEATH and RESOLVE_NO_SYMLINKS where the kernel
// has it, a component-by-component O_NOFOLLOW walk otherwise. `flags` apply to the last
// component (O_CREAT included); O_CLOEXEC is always added. A mutating open goes through the
// fault seam.
UniqueFd OpenBeneath(int dirfd, std::string_view relative, int flags, mode_t mode = 0);

// Opens the directory `name` in `dirfd`, never through a link: O_RDONLY | O_DIRECTORY |
// O_NOFOLLOW.
UniqueFd OpenDirectoryAt(int dirfd, const char* name);

// Opens a directory given by an absolute or relative path whose last component must not be a
// symbolic link (its ancestors are the caller's trusted path). O_RDONLY | O_DIRECTORY |
// O_NOFOLLOW.
UniqueFd OpenDirectoryNoFollow(const char* path);

// Opens a regular file for reading, never blocking and never through a final link:
// O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, then fstat. A FIFO, socket, device node or
// directory fails with EINVAL (EISDIR for a directory) instead of waiting or reading
// something that is not a file's bytes. `status`, when given, receives the fstat result.
// `name` is one name in `dirfd`, or a path whose directories the caller trusts (with
// AT_FDCWD, an absolute path of the caller's own).
UniqueFd OpenRegularFileAt(int dirfd, const char* name, struct stat* status = nullptr);

// As OpenRegularFileAt, but a directory is accepted too: for what is kept on an item itself
// (its protection class), where a directory is as good as a file and anything else must not
// make the caller wait.
UniqueFd OpenRegularFileOrDirectoryAt(int dirfd, const char* name, struct stat* status = nullptr);

}  // namespace vx
