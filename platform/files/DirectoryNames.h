// The names in a directory, read through a descriptor of it.
#pragma once

#include <string>
#include <vector>

namespace vx {

// Appends the names in the directory open as `dirfd` ("." and ".." left out), reading through
// a duplicate so that the caller's descriptor keeps its position. False with errno.
bool ReadDirectoryNames(int dirfd, std::vector<std::string>* names);

}  // namespace vx
