// The string additions of the file manager (category `VelotrixAdditions`): strings made
// from file-system bytes, and the ".." test for paths.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vx::VelotrixAdditions {

// On Linux a name is bytes and a string holds bytes, so the conversion keeps them exactly.
std::string stringWithFileSystemRepresentation(const char* bytes, size_t length);
std::string stringWithFileSystemRepresentation(const char* bytes);
// True when any path component of `path` is exactly "..".
bool containsDotDotPathComponents(std::string_view path);

}  // namespace vx::VelotrixAdditions
