#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "filemanager/VXFileManager.h"
#include "platform/log/InstallerLog.h"

namespace vx {

// Both tests look at the item itself (lstat), so a dangling symbolic link exists. They are
// not complements: when lstat fails for another reason than ENOENT, both answer false.
bool VXFileManager::itemExistsAtURL(const FileURL& url) const {
  struct stat st {};
  if (::lstat(url.fileSystemRepresentation(), &st) == 0) return true;
  const int e = errno;
  if (e != ENOENT) {
    VX_INSTALLER_LOG(3, "-[VXFileManager itemExistsAtURL:]", "Failed to determine if %@ exists: %s",
                     url, std::strerror(e));
  }
  return false;
}

bool VXFileManager::itemDoesNotExistAtURL(const FileURL& url) const {
  struct stat st {};
  if (::lstat(url.fileSystemRepresentation(), &st) == 0) return false;
  const int e = errno;
  if (e == ENOENT) return true;
  VX_INSTALLER_LOG(3, "-[VXFileManager itemDoesNotExistAtURL:]",
                   "Failed to determine if %@ exists: %s", url, std::strerror(e));
  return false;
}

}  // namespace vx
