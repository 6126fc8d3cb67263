// Creation and moves inside a directory that its owner's application could write. A path
// would be resolved afresh at every call, through whatever link was planted or swapped in
// meanwhile; a descriptor stays the directory that was verified.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "filemanager/StoreDataItems.h"
#include "filemanager/VXFileManager.h"
#include "platform/files/Beneath.h"
#include "platform/files/Sys.h"
#include "support/errors/ErrorMakers.h"

namespace vx {
namespace {

constexpr const char* kCreateFunction =
    "-[VXFileManager createDirectoryBeneath:name:mode:url:error:]";
constexpr const char* kMoveFunction =
    "-[VXFileManager moveItemIfExistsBeneath:name:toDirectory:name:error:]";
constexpr const char* kCaptureFunction =
    "-[VXFileManager captureStoreDataFromDirectory:toDirectory:doCopy:failureIsFatal:withError:]";

bool IsOneName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

}  // namespace

UniqueFd VXFileManager::createDirectoryBeneath(int dirfd, const std::string& name, mode_t mode,
                                               const FileURL& url, ErrorRef* error) const {
  if (!IsOneName(name)) {
    SetError(error, PosixError(kCreateFunction, __LINE__, EINVAL,
                               "mkdir of %@ failed: not a single name", url));
    return UniqueFd();
  }
  if (sys::Mkdirat(dirfd, name.c_str(), mode) != 0 && errno != EEXIST) {
    const int e = errno;
    SetError(error, PosixError(kCreateFunction, __LINE__, e, "mkdir of %@ failed: %s", url,
                               std::strerror(e)));
    return UniqueFd();
  }
  // Whatever stands there now, made by us or found: only a real directory is opened.
  UniqueFd directory = OpenBeneath(dirfd, name, O_RDONLY | O_DIRECTORY);
  if (!directory) {
    const int e = errno;
    SetError(error, PosixError(kCreateFunction, __LINE__, e,
                               "open of %@ failed: %s (a directory is required, not a link)", url,
                               std::strerror(e)));
  }
  return directory;
}

bool VXFileManager::moveItemIfExistsBeneath(int fromDirfd, const std::string& fromName,
                                            int toDirfd, const std::string& toName,
                                            const FileURL& from, const FileURL& to,
                                            ErrorRef* error) const {
  if (!IsOneName(fromName) || !IsOneName(toName)) {
    SetError(error, PosixError(kMoveFunction, __LINE__, EINVAL,
                               "rename of %@ to %@ failed: not a single name", from, to));
    return false;
  }
  struct stat st {};
  if (::fstatat(fromDirfd, fromName.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    const int e = errno;
    if (e == ENOENT) return true;
    SetError(error, PosixError(kMoveFunction, __LINE__, e, "stat of %@ failed: %s", from,
                               std::strerror(e)));
    return false;
  }
  if (sys::Renameat(fromDirfd, fromName.c_str(), toDirfd, toName.c_str()) != 0) {
    const int e = errno;
    SetError(error, PosixError(kMoveFunction, __LINE__, e, "rename of %@ to %@ failed: %s", from,
                               to, std::strerror(e)));
    return false;
  }
  return true;
}

bool VXFileManager::captureStoreDataBeneath(int sourceDirfd, int destinationDirfd,
                                            const FileURL& source, const FileURL& destination,
                                            bool failureIsFatal, ErrorRef* error) const {
  for (const StoreDataItem& item : kStoreDataItems) {
    const FileURL from = source.URLByAppendingPathComponent(item.name, false);
    const FileURL to = destination.URLByAppendingPathComponent(item.name, false);
    ErrorRef cause;
    if (moveItemIfExistsBeneath(sourceDirfd, item.name, destinationDirfd, item.name, from, to,
                                &cause)) {
      continue;
    }
    const PlistDictionary userInfo{{VXLegacyErrorStringKey, PlistValue(item.failureWord)}};
    ErrorRef failure = _CreateAndLogError(kCaptureFunction, __LINE__, VXInstallerErrorDomain, 24,
                                          cause, &userInfo, "Failed to move %@ to %@", from, to);
    if (failureIsFatal) {
      SetError(error, std::move(failure));
      return false;
    }
  }
  return true;
}

}  // namespace vx
