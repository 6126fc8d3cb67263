#include "platform/files/DirChain.h"

#include <sys/stat.h>

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

// An ancestor counts when it is a directory or a link to one, as for any path lookup.
int EnsureAncestor(const std::string& prefix, mode_t mode) {
  struct stat st {};
  if (::stat(prefix.c_str(), &st) == 0) return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
  if (errno != ENOENT) return errno;
  if (sys::Mkdir(prefix.c_str(), mode) == 0) return 0;
  if (errno != EEXIST) return errno;
  // Someone else made it between our look and our mkdir: fine if it is a directory.
  if (::stat(prefix.c_str(), &st) != 0) return errno;
  return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
}

}  // namespace

int dirchain(const char* path, mode_t mode) {
  if (!path || !*path) return ENOENT;
  const std::string target = WithoutTrailingSlashes(path);
  // Most calls find the parent in place; look at ancestors only when it is not.
  if (sys::Mkdir(target.c_str(), mode) == 0) return 0;
  if (errno != ENOENT) return errno;

  for (size_t slash = target.find('/', 1); slash != std::string::npos;
       slash = target.find('/', slash + 1)) {
    if (target[slash - 1] == '/') continue;  // "a//b": the prefix "a/" was already seen
    if (int e = EnsureAncestor(target.substr(0, slash), mode)) return e;
  }
  return sys::Mkdir(target.c_str(), mode) == 0 ? 0 : errno;
}

}  // namespace vx
