#include "AppMigrator/ItemCensus.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/files/Beneath.h"
#include "platform/files/DirectoryStream.h"

namespace vx {
namespace {

// Deeper than any application's data goes; a planted chain of directories stops here
// instead of exhausting descriptors.
constexpr int kDepthLimit = 64;

int CountDirectory(int dirfd, const char* name, int depth, ItemCensus* census);

void CountStatus(int dirfd, const char* name, const struct stat& st, int depth,
                 ItemCensus* census) {
  if (S_ISREG(st.st_mode)) {
    ++census->files;
    census->bytes += static_cast<uint64_t>(st.st_size);
  } else if (S_ISDIR(st.st_mode)) {
    CountDirectory(dirfd, name, depth, census);
  } else {
    ++census->others;
  }
}

void CountByStatus(int dirfd, const char* name, int depth, ItemCensus* census) {
  struct stat st {};
  if (::fstatat(dirfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
    census->complete = false;
    return;
  }
  CountStatus(dirfd, name, st, depth, census);
}

// The listing's type spares a status call wherever it answers the question: a directory is
// simply opened (and the open, which follows no link, says if it is one no longer), a link,
// FIFO or device node is counted as it is. Only a regular file, for its size, and an entry
// of unknown type are looked at. Returns the errno when nothing could be counted of the
// entry (ENOENT: nothing stands there), else 0.
int CountDirectory(int dirfd, const char* name, int depth, ItemCensus* census) {
  if (depth >= kDepthLimit) {
    census->complete = false;
    return 0;
  }
  DirectoryStream stream(OpenBeneath(dirfd, name, O_RDONLY | O_DIRECTORY | O_NONBLOCK));
  if (!stream) {
    // Not a directory (any more): count what stands there now, but never chase an entry
    // that keeps changing back and forth.
    int error = errno;
    struct stat st {};
    if (error == ENOTDIR || error == ELOOP) {
      error = ::fstatat(dirfd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
      if (!error && !S_ISDIR(st.st_mode)) {
        CountStatus(dirfd, name, st, depth, census);
        return 0;
      }
    }
    census->complete = false;
    return error;
  }
  DirentRecord entry;
  while (stream.Next(&entry)) {
    const char* child = entry.name.data();
    switch (entry.type) {
      case DT_DIR: CountDirectory(stream.fd(), child, depth + 1, census); break;
      case DT_REG:
      case DT_UNKNOWN: CountByStatus(stream.fd(), child, depth + 1, census); break;
      default: ++census->others; break;
    }
  }
  if (errno != 0) census->complete = false;
  return 0;
}

}  // namespace

ItemCensus CensusOfItemAt(int dirfd, const std::string& name) {
  if (name.empty() || name.find('/') != std::string::npos) return {};
  // Most items counted are directories: opened at once, with no look first.
  ItemCensus census;
  census.exists = true;
  if (const int error = CountDirectory(dirfd, name.c_str(), 0, &census)) {
    // Whether anything stands there at all, when the open could not say.
    struct stat st {};
    if (error == ENOENT || ::fstatat(dirfd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return {};
  }
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
