#include "platform/files/DirectoryNames.h"

#include <cerrno>

#include "platform/files/DirectoryStream.h"
#include "platform/files/UniqueFd.h"

namespace vx {

bool ReadDirectoryNames(int dirfd, std::vector<std::string>* names) {
  // Read through the caller's own descriptor: a duplicate would cost two calls per
  // directory and share the position all the same.
  DirectoryStream stream{UniqueFd(dirfd)};
  DirentRecord entry;
  while (stream.Next(&entry)) names->emplace_back(entry.name);
  const int error = errno;
  stream.release();
  errno = error;
  return error == 0;
}

}  // namespace vx
