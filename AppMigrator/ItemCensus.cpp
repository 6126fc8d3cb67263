#include "AppMigrator/ItemCensus.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "platform/files/Beneath.h"

namespace vx {
namespace {

// Deeper than any application's data goes; a planted chain of directories stops here
// instead of exhausting descriptors.
constexpr int kDepthLimit = 64;

void Count(int dirfd, const char* name, int depth, ItemCensus* census) {
  struct stat st {};
  if (::fstatat(dirfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
    census->complete = false;
    return;
  }
  if (S_ISREG(st.st_mode)) {
    ++census->files;
    census->bytes += static_cast<uint64_t>(st.st_size);
    return;
  }
  if (!S_ISDIR(st.st_mode)) {
    ++census->others;
    return;
  }
  if (depth >= kDepthLimit) {
    census->complete = false;
    return;
  }
  UniqueFd directory = OpenBeneath(dirfd, name, O_RDONLY | O_DIRECTORY | O_NONBLOCK);
  if (!directory) {
    census->complete = false;
    return;
  }
  // The stream owns the descriptor from here on.
  UniqueDir stream(::fdopendir(directory.get()));
  if (!stream) {
    census->complete = false;
    return;
  }
  directory.release();
  while (const dirent* entry = ::readdir(stream.get())) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    Count(::dirfd(stream.get()), entry->d_name, depth + 1, census);
  }
}

}  // namespace

ItemCensus CensusOfItemAt(int dirfd, const std::string& name) {
  ItemCensus census;
  struct stat st {};
  if (name.empty() || name.find('/') != std::string::npos ||
      ::fstatat(dirfd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    return census;
  }
  census.exists = true;
  Count(dirfd, name.c_str(), 0, &census);
  return census;
}

ItemCensus CensusOfItemAtPath(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos || slash + 1 == path.size()) return {};
  const std::string parent = slash == 0 ? "/" : path.substr(0, slash);
  const UniqueFd directory = OpenDirectoryNoFollow(parent.c_str());
  if (!directory) return {};
  return CensusOfItemAt(directory.get(), path.substr(slash + 1));
}

}  // namespace vx
