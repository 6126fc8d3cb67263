// The power-cut journal behind the fault seam. Ending the process proves recovery from a
// crash only: the kernel keeps every write and rename made before it. A power cut keeps only
// what was synced, so while a power cut is armed the seam journals, for every file and
// directory it sees changed, what an fsync has made durable, and at the cut rolls the tree
// back to what the disk could hold afterwards:
//   - a file's data is cut to the length it had at its last fsync (its length when first
//     touched, or nothing for a file made since);
//   - a node's owner, mode and extended attributes go back to what they were at its last
//     fsync (PowerCutMetadata.h);
//   - the creations, renames and removals in a directory since its last fsync are undone,
//     each directory on its own: a rename whose source directory was synced but whose
//     destination was not loses the item, as a real file system may. One whose destination
//     was synced stands whole (a journal commits the old name's removal with the new name,
//     and a directory cannot have two).
// Removed and replaced files are kept alive by hard links in a stash directory (on the same
// file system, or they cannot come back) until the cut. Directories removed (they were
// empty) come back as new empty directories with their mode and owner.
//
// Everything here uses the raw system calls: the journal must not count as mutations.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace vx::powercut {

enum class Loss {
  // Everything not synced is lost.
  Everything,
  // As Everything, except that in one directory, chosen at random, the unsynced operations
  // survive in order up to a random point, as when the disk had written part of its queue:
  // with each, every operation made before it survives too, in whatever directory, and a
  // rename survives whole.
  AllButPartOfOneDirectory,
};

// Starts journaling; the tree as it is now counts as durable. `stash` is the directory for
// the hard links that keep removed files (made if absent; empty: a new one under $TMPDIR).
// Raises the soft limit on descriptors, since every touched directory and file is held open.
void Start(Loss loss, uint64_t seed, const std::string& stash);
void Stop();
bool Recording();

// Rolls the tree back as a power cut would leave it, then ends the process with SIGKILL.
[[noreturn]] void Cut();

// The hooks of the system-call wrappers: `Before*` runs before the call (when it may need
// to see the old state), `After*` only once the call has succeeded. A null `name` with
// `dirfd` AT_FDCWD never occurs; a path is (AT_FDCWD, path).
// A node a removal or a rename takes away from its name, and how it comes back at the cut.
struct Node {
  bool exists = false;
  bool directory = false;
  dev_t device = 0;
  ino_t inode = 0;
  std::string stash;  // a file, link or special node: kept alive by a hard link there
  mode_t mode = 0;    // a directory (empty, or it could not go): made again with these
  uid_t owner = 0;
  gid_t group = 0;
};

struct Pending {
  bool active = false;
  Node node;      // what is removed, renamed or opened
  Node replaced;  // what a rename replaces
  off_t size = 0;  // a regular file opened for writing: its length before
};

Pending BeforeRemove(int dirfd, const char* name);
void AfterRemove(int dirfd, const char* name, const Pending& pending);
Pending BeforeRename(int fromDirfd, const char* from, int toDirfd, const char* to);
void AfterRename(int fromDirfd, const char* from, int toDirfd, const char* to,
                 const Pending& pending);
// Undoes what a Before* kept when the call failed.
void Abandon(const Pending& pending);
Pending BeforeOpen(int dirfd, const char* name);
void AfterOpen(int dirfd, const char* name, int fd, const Pending& pending);
// Any new name: mkdir, mkdtemp, mkostemp, symlink, mknod, and a hard link (not `newNode`).
void AfterCreate(int dirfd, const char* name, bool newNode = true);
// Before a write, truncation, copy or clone into `fd`.
void BeforeData(int fd);
// Before a change of owner, mode or extended attributes: of the node `fd` refers to, or of
// `name` in `dirfd` (its final link followed only with `follow`).
void BeforeMetadata(int fd);
void BeforeMetadataAt(int dirfd, const char* name, bool follow);
void AfterSync(int fd);
// A sync of the whole file system `fd` lies on: everything journaled is durable.
void AfterSyncFileSystem(int fd);

}  // namespace vx::powercut
