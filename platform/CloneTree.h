// The tree copier: copies a file, a symbolic link or a directory tree, carrying data,
// extended attributes (POSIX ACLs included, as they are attributes on Linux), permission
// bits, owner where permitted and times to the nanosecond. Regular files are shared by
// reflink where the file system can, else copied in the kernel with copy_file_range, else
// read and written. Symbolic links are copied as links; no link is followed at the source
// or the destination.
#pragma once

namespace vx {

enum CloneTreeFlags : unsigned {
  kCloneData = 1u << 0,
  kCloneXattr = 1u << 1,
  kCloneSecurity = 1u << 2,  // ACLs
  kCloneStat = 1u << 3,      // mode, owner, times
  kCloneRecursive = 1u << 4,
  kCloneNoFollow = 1u << 5,
  kCloneAll = kCloneData | kCloneXattr | kCloneSecurity | kCloneStat | kCloneRecursive | kCloneNoFollow,
};

// Returns 0, or -1 with errno. An existing destination file is replaced; an existing
// destination directory is merged into. A failure part-way may leave a partial destination.
int clonetree(const char* source, const char* destination, unsigned flags);

}  // namespace vx
