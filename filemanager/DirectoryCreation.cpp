#include <cerrno>
#include <cstring>

#include "filemanager/VXFileManager.h"
#include "platform/files/Beneath.h"
#include "platform/files/DirChain.h"
#include "platform/files/ProtectionClass.h"
#include "platform/files/Sys.h"
#include "platform/files/UniqueFd.h"
#include "support/errors/ErrorMakers.h"

namespace vx {
namespace {

constexpr const char* kCreateFunction =
    "-[VXFileManager createDirectoryAtURL:withIntermediateDirectories:mode:class:error:]";

}  // namespace

bool VXFileManager::createDirectoryAtURL(const FileURL& url, bool withIntermediateDirectories,
                                         mode_t mode, int32_t protectionClass,
                                         ErrorRef* error) const {
  const char* path = url.fileSystemRepresentation();
  if (withIntermediateDirectories) {
    const int result = dirchain(path, mode);
    if (result != 0 && result != EEXIST) {
      SetError(error, PosixError(kCreateFunction, __LINE__, result, "dirchain of %@ failed: %s",
                                 url.path(), std::strerror(result)));
      return false;
    }
  } else if (sys::Mkdir(path, mode) != 0 && errno != EEXIST) {
    // Whatever stands at the location after EEXIST counts as created; a caller that needs a
    // directory finds out when it uses it.
    const int e = errno;
    SetError(error, PosixError(kCreateFunction, __LINE__, e, "mkdir of %@ failed: %s", url.path(),
                               std::strerror(e)));
    return false;
  }
  if (protectionClass == -1) return true;

  // Creation took EEXIST on trust, so what stands there may be a symbolic link, planted by
  // whoever can write the parent. Following it would put the class on whatever it names,
  // anywhere on the file system. A link is not a directory here: it is refused as a file in
  // the way is, with ENOTDIR, and its target is left alone.
  UniqueFd dir = OpenDirectoryNoFollow(path);
  if (!dir) {
    const int e = errno == ELOOP ? ENOTDIR : errno;
    SetError(error, PosixError(kCreateFunction, __LINE__, e, "opendir of %@ failed: %s",
                               url.path(), std::strerror(e)));
    return false;
  }
  if (SetProtectionClass(dir.get(), protectionClass) != 0) {
    const int e = errno;
    SetError(error, PosixError(kCreateFunction, __LINE__, e,
                               "Failed to setclass(%d) on directory %@: %s", protectionClass,
                               url.path(), std::strerror(e)));
    return false;
  }
  return true;
}

bool VXFileManager::createDirectoryAtURL(const FileURL& url, bool withIntermediateDirectories,
                                         mode_t mode, ErrorRef* error) const {
  return createDirectoryAtURL(url, withIntermediateDirectories, mode, -1, error);
}

}  // namespace vx
