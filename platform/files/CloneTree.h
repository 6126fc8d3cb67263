// The tree copier: copies a file, a symbolic link or a directory tree, carrying data,
// extended attributes (POSIX ACLs included, as they are attributes on Linux), permission
// bits, owner where permitted and times to the nanosecond. Regular files are shared by
// reflink where the file system can, else copied in the kernel with copy_file_range, else
// read and written. Symbolic links are copied as links; no link is followed at the
// destination, nor at the source but for the source named when kCloneNoFollow is absent.
// Both trees are walked by descriptors, so no intermediate link is followed either, and a
// file is opened without waiting and copied only when it is a regular file by its open
// descriptor (a FIFO or device swapped in for it fails the copy with EINVAL). Files linked
// more than once within the tree stay linked in the copy, the links made relative to the
// destination's own directories. Fifos, sockets and device nodes inside a tree are left out
// unless kCloneSpecial asks for them; one given as the source itself fails with ENOTSUP.
#pragma once

namespace vx {

enum CloneTreeFlags : unsigned {
  kCloneData = 1u << 0,
  kCloneXattr = 1u << 1,
  kCloneSecurity = 1u << 2,  // ACLs
  kCloneStat = 1u << 3,      // mode, owner, times
  kCloneRecursive = 1u << 4,
  kCloneNoFollow = 1u << 5,  // without it the source named is followed, links within it not
  // Re-create FIFOs and device nodes too, and fail (ENOTSUP for a socket, EPERM for a device
  // node without privilege) rather than leave one out: for a copy that stands in for a move.
  kCloneSpecial = 1u << 6,
  kCloneAll = kCloneData | kCloneXattr | kCloneSecurity | kCloneStat | kCloneRecursive | kCloneNoFollow,
};

// Returns 0, or -1 with errno. An existing destination file (or link) is replaced by a
// rename once its replacement is complete; an existing destination directory is merged
// into and takes the source's metadata; a non-directory where a directory goes fails with
// EEXIST. The destination's parent must exist. The first failure ends the copy and may
// leave a partial destination.
int clonetree(const char* source, const char* destination, unsigned flags);

// The same copy of a directory tree by `workers` threads (one: the call above) that take
// directories from a shared queue and copy their files at once. The copy is the same:
// directories are made before what they hold and get their own metadata after it, and files
// linked more than once are linked in the copy too. With several workers the first failure
// still ends the copy, but which failure comes first may vary from run to run.
int clonetree(const char* source, const char* destination, unsigned flags, unsigned workers);

}  // namespace vx
