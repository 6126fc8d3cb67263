#include "filemanager/StringAdditions.h"

#include <cstring>

#include "support/types/FileURL.h"

namespace vx::VelotrixAdditions {

std::string stringWithFileSystemRepresentation(const char* bytes, size_t length) {
  return bytes ? std::string(bytes, length) : std::string();
}

std::string stringWithFileSystemRepresentation(const char* bytes) {
  return bytes ? stringWithFileSystemRepresentation(bytes, std::strlen(bytes)) : std::string();
}

bool containsDotDotPathComponents(std::string_view path) {
  for (const std::string& component : PathComponents(path)) {
    if (component == "..") return true;
  }
  return false;
}

}  // namespace vx::VelotrixAdditions
