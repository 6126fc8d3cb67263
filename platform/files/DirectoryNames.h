// The names in a directory, read through a descriptor of it.
#pragma once

#include <string>
#include <vector>

namespace vx {

// Appends the names in the directory open as `dirfd` ("." and ".." left out), reading from
// the descriptor's position (a descriptor just opened lists them all) and leaving it at the
// end; the descriptor stays the caller's. False with errno.
bool ReadDirectoryNames(int dirfd, std::vector<std::string>* names);

}  // namespace vx
