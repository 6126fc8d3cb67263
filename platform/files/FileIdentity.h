// What names one file whatever its path: a walk that closes a directory and opens it again,
// or meets a name twice, knows by this whether it is still the same file.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

namespace vx {

struct FileIdentity {
  dev_t dev = 0;
  ino_t ino = 0;
  bool operator==(const FileIdentity&) const = default;
};

inline FileIdentity IdentityOf(const struct stat& st) { return {st.st_dev, st.st_ino}; }

// False with errno when the descriptor cannot be looked at.
inline bool IdentityOf(int fd, FileIdentity* id) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) return false;
  *id = IdentityOf(st);
  return true;
}

}  // namespace vx
