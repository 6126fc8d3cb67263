// What a power cut does to a node's owner, mode and extended attributes: a change the kernel
// has accepted lives in the inode in memory, and reaches the disk with that inode's fsync (or
// a sync of the whole file system), not before. The journal keeps, for every node whose
// metadata changed since it was last synced, what the disk still holds, and puts that back at
// the cut. A node is held by an O_PATH descriptor, so that a rename or a new name for it
// changes nothing.
#pragma once

#include <sys/stat.h>

#include <cstddef>

namespace vx::powercut::metadata {

// Before a change of owner, mode or attributes of the node `fd` refers to (any descriptor,
// O_PATH included): remembers what it held, once per node until the node is synced.
void Remember(int fd);
// The node's metadata reached the disk.
void Synced(const struct stat& node);
// Every node of the file system `device` reached the disk (a sync of that file system).
void AllSynced(dev_t device);
// At the cut: every remembered node gets back what the disk held. Returns how many.
size_t Restore(bool trace);
// Journaling starts or stops: forget every node.
void Forget();

}  // namespace vx::powercut::metadata
