// Directory creation with every missing ancestor.
#pragma once

#include <sys/types.h>

namespace vx {

enum class DirChainSync {
  None,
  // Each directory made is synced into its parent, so that what is later put in it and
  // synced does not vanish with it in a power cut. For directories that hold data for good,
  // not for scratch space.
  Durable,
};

// Creates `path` and each missing ancestor with `mode` (subject to the umask). Returns 0, or
// an error number: EEXIST when the final directory already existed, ENOTDIR when an
// ancestor is not a directory, or the failing mkdir's (or sync's) errno.
int dirchain(const char* path, mode_t mode, DirChainSync sync = DirChainSync::None);

}  // namespace vx
