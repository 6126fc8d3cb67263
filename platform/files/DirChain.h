// Directory creation with every missing ancestor.
#pragma once

#include <sys/types.h>

namespace vx {

// Creates `path` and each missing ancestor with `mode` (subject to the umask). Returns 0, or
// an error number: EEXIST when the final directory already existed, ENOTDIR when an
// ancestor is not a directory, or the failing mkdir's errno.
int dirchain(const char* path, mode_t mode);

}  // namespace vx
