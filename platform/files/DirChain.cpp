#include "platform/files/DirChain.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

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

// The length of the parent's path within the first `length` bytes of `path`, its trailing
// slashes left out ("a//b" has the parent "a", "/a" the parent "/"); 0 when there is none.
size_t ParentLength(const std::string& path, size_t length) {
  size_t slash = path.rfind('/', length - 1);
  if (slash == std::string::npos) return 0;
  while (slash > 0 && path[slash - 1] == '/') --slash;
  return slash == 0 ? 1 : slash;
}

}  // namespace

int dirchain(const char* path, mode_t mode, DirChainSync sync) {
  if (!path || !*path) return ENOENT;
  const bool durable = sync == DirChainSync::Durable;
  const std::string target = WithoutTrailingSlashes(path);
  // Most calls find the parent in place. Otherwise climb only as far as mkdir says that a
  // parent is missing; the path lookup of each mkdir judges what stands there (a link to a
  // directory counts as one, anything else gives ENOTDIR), so no ancestor needs a look.
  std::vector<size_t> missing;  // lengths of the prefixes still to make, deepest first
  size_t length = target.size();
  for (;;) {
    const int made = Make(target.substr(0, length), mode, durable);
    if (made != ENOENT) {
      if (missing.empty()) return made;
      // Someone else may have made this ancestor meanwhile: as good as ours.
      if (made != 0 && made != EEXIST) return made;
      break;
    }
    missing.push_back(length);
    length = ParentLength(target, length);
    if (length == 0 || (length == 1 && target[0] == '/')) return ENOENT;
  }
  // Back down: each made now has its parent. Only the target's own EEXIST is for the caller.
  for (size_t i = missing.size(); i-- > 0;) {
    const int made = Make(target.substr(0, missing[i]), mode, durable);
    if (made != 0 && (i == 0 || made != EEXIST)) return made;
  }
  return 0;
}

}  // namespace vx
