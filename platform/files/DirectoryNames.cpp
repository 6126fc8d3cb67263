#include "platform/files/DirectoryNames.h"

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <string_view>

#include "platform/files/UniqueFd.h"

namespace vx {

bool ReadDirectoryNames(int dirfd, std::vector<std::string>* names) {
  UniqueFd listing(::fcntl(dirfd, F_DUPFD_CLOEXEC, 0));
  UniqueDir dir(listing ? ::fdopendir(listing.get()) : nullptr);
  if (!dir) return false;
  listing.release();  // the stream owns it now
  errno = 0;
  while (const dirent* entry = ::readdir(dir.get())) {
    const std::string_view name(entry->d_name);
    if (name != "." && name != "..") names->emplace_back(name);
  }
  return errno == 0;
}

}  // namespace vx
