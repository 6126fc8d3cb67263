#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "filemanager/StringAdditions.h"
#include "filemanager/VXFileManager.h"
#include "platform/files/Sys.h"
#include "support/errors/ErrorMakers.h"

namespace vx {

bool VXFileManager::createSymbolicLinkAtURL(const FileURL& url, const FileURL& destination,
                                            ErrorRef* error) const {
  // The link holds the destination's full path, so it means the same from anywhere.
  if (sys::Symlink(destination.fileSystemRepresentation(), url.fileSystemRepresentation()) == 0) {
    return true;
  }
  const int e = errno;
  SetError(error, PosixError("-[VXFileManager createSymbolicLinkAtURL:withDestinationURL:error:]",
                             __LINE__, e, "Could not create symlink containing %s at %s: %s",
                             destination.path(), url.path(), std::strerror(e)));
  return false;
}

std::optional<FileURL> VXFileManager::destinationOfSymbolicLinkAtURL(const FileURL& url,
                                                                     ErrorRef* error) const {
  char buffer[1025];
  const ssize_t length = ::readlink(url.fileSystemRepresentation(), buffer, 1024);
  if (length < 0) {
    const int e = errno;
    SetError(error, PosixError("-[VXFileManager destinationOfSymbolicLinkAtURL:error:]", __LINE__, e,
                               "Could not readlink %s : %s", url.path(), std::strerror(e)));
    return std::nullopt;
  }
  buffer[length] = '\0';
  return FileURL::fileURLWithPath(
      VelotrixAdditions::stringWithFileSystemRepresentation(buffer, static_cast<size_t>(length)));
}

}  // namespace vx
