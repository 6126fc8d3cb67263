#include "platform/files/ProtectionClass.h"

#include <sys/xattr.h>

#include <cerrno>
#include <cstdint>

#include "platform/files/Sys.h"

namespace vx {

int GetProtectionClass(int fd) {
  int32_t value = 0;
  const ssize_t n = ::fgetxattr(fd, kProtectionClassAttribute, &value, sizeof value);
  if (n < 0) {
    // ENODATA: never assigned. ENOTSUP and the rest are real failures: a caller that
    // sets classes must learn that this file system cannot keep them.
    return errno == ENODATA ? kDefaultProtectionClass : -1;
  }
  // Anything but four bytes holding a class we could have written is not ours to trust.
  if (n != static_cast<ssize_t>(sizeof value) || value < 0) {
    errno = EINVAL;
    return -1;
  }
  return value;
}

int SetProtectionClass(int fd, int protectionClass) {
  if (protectionClass < 0) {
    errno = EINVAL;
    return -1;
  }
  const int32_t value = protectionClass;
  return sys::Fsetxattr(fd, kProtectionClassAttribute, &value, sizeof value, 0) == 0 ? 0 : -1;
}

}  // namespace vx
