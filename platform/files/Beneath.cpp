#include "platform/files/Beneath.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <vector>

#include "platform/files/Sys.h"

namespace vx {
namespace {

// Splits a relative text into its components; false (errno set) for an absolute text or a
// ".." component, which could only lead out of the directory.
bool SplitBeneath(std::string_view relative, std::vector<std::string>& components) {
  if (!relative.empty() && relative.front() == '/') {
    errno = EXDEV;
    return false;
  }
  size_t start = 0;
  while (start <= relative.size()) {
    size_t end = relative.find('/', start);
    if (end == std::string_view::npos) end = relative.size();
    std::string_view part = relative.substr(start, end - start);
    if (part == "..") {
      errno = EXDEV;
      return false;
    }
    if (!part.empty() && part != ".") components.emplace_back(part);
    start = end + 1;
  }
  return true;
}

// Kernels before 5.6 lack openat2; remember the answer rather than asking on every open.
std::atomic<bool> gNoOpenat2{false};

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// The first `count` (at least one) components, opened as directories from `dirfd` itself:
// the start needs no descriptor of its own.
UniqueFd OpenDirectoryChain(int dirfd, const std::vector<std::string>& components, size_t count) {
  if (!gNoOpenat2.load(std::memory_order_relaxed)) {
    std::string path;
    for (size_t i = 0; i < count; ++i) path += (i ? "/" : "") + components[i];
    open_how how{};
    how.flags = kDirectoryFlags;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    long fd = ::syscall(SYS_openat2, dirfd, path.c_str(), &how, sizeof how);
    if (fd >= 0) return UniqueFd(static_cast<int>(fd));
    if (errno != ENOSYS) return UniqueFd();
    gNoOpenat2.store(true, std::memory_order_relaxed);
  }
  UniqueFd current(::openat(dirfd, components[0].c_str(), kDirectoryFlags));
  for (size_t i = 1; current && i < count; ++i) {
    current = UniqueFd(::openat(current.get(), components[i].c_str(), kDirectoryFlags));
  }
  return current;
}

}  // namespace

UniqueFd OpenBeneath(int dirfd, std::string_view relative, int flags, mode_t mode) {
  std::vector<std::string> components;
  if (!SplitBeneath(relative, components)) return UniqueFd();
  if (components.empty()) return UniqueFd(sys::Openat(dirfd, ".", flags, mode));
  const char* last = components.back().c_str();
  // One name needs no directory of its own to be opened in.
  if (components.size() == 1) return UniqueFd(sys::Openat(dirfd, last, flags | O_NOFOLLOW, mode));
  UniqueFd parent = OpenDirectoryChain(dirfd, components, components.size() - 1);
  if (!parent) return parent;
  return UniqueFd(sys::Openat(parent.get(), last, flags | O_NOFOLLOW, mode));
}

UniqueFd OpenDirectoryAt(int dirfd, const char* name) {
  return UniqueFd(::openat(dirfd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

UniqueFd OpenDirectoryNoFollow(const char* path) {
  return UniqueFd(::open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

namespace {

UniqueFd OpenWithoutWaiting(int dirfd, const char* name, struct stat* status, bool allowDirectory) {
  UniqueFd fd(::openat(dirfd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd) return fd;
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) return UniqueFd();
  if (!S_ISREG(st.st_mode) && !(allowDirectory && S_ISDIR(st.st_mode))) {
    errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    return UniqueFd();
  }
  // Reads of a regular file never block; clearing the flag keeps later reads ordinary. Of
  // the flags the open set, F_SETFL can change only this one, so there is nothing to keep.
  ::fcntl(fd.get(), F_SETFL, 0);
  if (status) *status = st;
  return fd;
}

}  // namespace

UniqueFd OpenRegularFileAt(int dirfd, const char* name, struct stat* status) {
  return OpenWithoutWaiting(dirfd, name, status, false);
}

UniqueFd OpenRegularFileOrDirectoryAt(int dirfd, const char* name, struct stat* status) {
  return OpenWithoutWaiting(dirfd, name, status, true);
}

}  // namespace vx
