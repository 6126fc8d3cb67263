#include "platform/files/DirChain.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/files/Sys.h"

namespace vx {
namespace {

// "a/b///" names the same directory as "a/b"; only "/" itself keeps its slash.
std::string WithoutTrailingSlashes(const char* path) {
  std::string p(path);
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return p;
}

// A new directory survives a power cut only once the entry naming it does.
int SyncParentOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string parent = slash == std::string::npos ? "." : path.substr(0, slash ? slash : 1);
  const int fd = ::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return errno;
  const int result = sys::Fsync(fd) == 0 ? 0 : errno;
  ::close(fd);
  return result;
}

int Make(const std::string& path, mode_t mode, bool durable) {
  if (sys::Mkdir(path.c_str(), mode) != 0) return errno;
  return durable ? SyncParentOf(path) : 0;
}

// An ancestor counts when it is a directory or a link to one, as for any path lookup.
int EnsureAncestor(const std::string& prefix, mode_t mode, bool durable) {
  struct stat st {};
  if (::stat(prefix.c_str(), &st) == 0) return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
  if (errno != ENOENT) return errno;
  const int made = Make(prefix, mode, durable);
  if (made == 0 || made != EEXIST) return made;
  // Someone else made it between our look and our mkdir: fine if it is a directory.
  if (::stat(prefix.c_str(), &st) != 0) return errno;
  return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
}

}  // namespace

int dirchain(const char* path, mode_t mode, DirChainSync sync) {
  if (!path || !*path) return ENOENT;
  const bool durable = sync == DirChainSync::Durable;
  const std::string target = WithoutTrailingSlashes(path);
  // Most calls find the parent in place; look at ancestors only when it is not.
  const int made = Make(target, mode, durable);
  if (made != ENOENT) return made;

  for (size_t slash = target.find('/', 1); slash != std::string::npos;
       slash = target.find('/', slash + 1)) {
    if (target[slash - 1] == '/') continue;  // "a//b": the prefix "a/" was already seen
    if (int e = EnsureAncestor(target.substr(0, slash), mode, durable)) return e;
  }
  return Make(target, mode, durable);
}

}  // namespace vx
