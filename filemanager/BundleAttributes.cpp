#include <sys/xattr.h>

#include <cerrno>
#include <cstring>

#include "filemanager/VXFileManager.h"
#include "platform/files/Beneath.h"
#include "platform/files/ExtendedAttributes.h"
#include "platform/files/ProtectionClass.h"
#include "platform/files/Sys.h"
#include "platform/files/UniqueFd.h"
#include "support/errors/ErrorMakers.h"

// The attributes live in the "user." namespace. On a file system that keeps no user
// attributes (a tmpfs mounted without them) every call fails with ENOTSUP: the setters and
// the install-type read report that as an error rather than pretend the attribute is
// absent, and the placeholder test answers false, as for any mark it cannot read.

namespace vx {
namespace {

std::string PlaceholderAttribute() {
  return LinuxAttributeName("com.tarsel.velotrixd.placeholder");
}

std::string InstallTypeAttribute() {
  return LinuxAttributeName("com.tarsel.velotrixd.installType");
}

// The class is read and set through a descriptor of the item itself: a symbolic link is
// refused, never followed, and only a file or a directory is kept open. A FIFO, socket or
// device node fails at once ("Invalid argument") instead of waiting for a writer.
UniqueFd OpenForClass(const char* function, const FileURL& url, ErrorRef* error) {
  UniqueFd fd = OpenRegularFileOrDirectoryAt(AT_FDCWD, url.fileSystemRepresentation());
  if (!fd) {
    const int saved = errno;
    SetError(error, PosixError(function, __LINE__, saved, "Failed to open %s : %s", url.path(),
                               std::strerror(saved)));
  }
  return fd;
}

// The current class, or -1 with the error set.
int ReadClass(const char* function, int fd, const FileURL& url, ErrorRef* error) {
  const int current = GetProtectionClass(fd);
  if (current < 0) {
    const int saved = errno;
    SetError(error, PosixError(function, __LINE__, saved, "Failed to getclass of file %s: %s",
                               url.path(), std::strerror(saved)));
  }
  return current;
}

}  // namespace

bool VXFileManager::markBundleAsPlaceholder(const FileURL& bundle, ErrorRef* error) const {
  // Native byte order is part of the persisted format.
  const uint32_t value = 1;
  if (sys::Lsetxattr(bundle.fileSystemRepresentation(), PlaceholderAttribute().c_str(), &value,
                     sizeof value, 0) != 0) {
    int saved = errno;
    SetError(error, _CreateAndLogError("-[VXFileManager markBundleAsPlaceholder:withError:]",
                                       __LINE__, VXInstallerErrorDomain, 4, PosixCause(saved),
                                       nullptr, "Could't set placeholder EA on \"%s\": %s",
                                       bundle.path(), std::strerror(saved)));
    return false;
  }
  return true;
}

bool VXFileManager::bundleAtURLIsPlaceholder(const FileURL& bundle) const {
  // Only the size counts; a longer value does not fit the buffer and fails with ERANGE.
  uint32_t value = 0;
  return ::lgetxattr(bundle.fileSystemRepresentation(), PlaceholderAttribute().c_str(), &value,
                     sizeof value) == static_cast<ssize_t>(sizeof value);
}

bool VXFileManager::setInstallType(uint64_t installType, const FileURL& bundle,
                                   ErrorRef* error) const {
  if (sys::Lsetxattr(bundle.fileSystemRepresentation(), InstallTypeAttribute().c_str(),
                     &installType, sizeof installType, 0) != 0) {
    int saved = errno;
    SetError(error, _CreateAndLogError("-[VXFileManager setInstallType:onBundle:error:]", __LINE__,
                                       VXInstallerErrorDomain, 4, PosixCause(saved), nullptr,
                                       "Could't set installType EA on \"%s\": %s", bundle.path(),
                                       std::strerror(saved)));
    return false;
  }
  return true;
}

std::optional<uint64_t> VXFileManager::installTypeForBundle(const FileURL& bundle,
                                                            ErrorRef* error) const {
  static constexpr const char* kFunction = "-[VXFileManager installTypeForBundle:error:]";
  uint64_t value = 0;
  ssize_t n = ::lgetxattr(bundle.fileSystemRepresentation(), InstallTypeAttribute().c_str(), &value,
                          sizeof value);
  if (n < 0) {
    int saved = errno;
    if (saved == ENODATA) return uint64_t{0};
    SetError(error, _CreateAndLogError(kFunction, __LINE__, VXInstallerErrorDomain, 4,
                                       PosixCause(saved), nullptr,
                                       "Couldn't get installType EA from \"%s\": %s",
                                       bundle.path(), std::strerror(saved)));
    return std::nullopt;
  }
  if (n != static_cast<ssize_t>(sizeof value)) {
    SetError(error, _CreateAndLogError(
                        kFunction, __LINE__, VXInstallerErrorDomain, 4, nullptr, nullptr,
                        "getxattr for installType EA on %s returned %zd (expected %zu)",
                        bundle.path(), n, sizeof value));
    return std::nullopt;
  }
  return value;
}

bool VXFileManager::dataProtectionClassOfItemAtURL(const FileURL& url, int32_t* protectionClass,
                                                   ErrorRef* error) const {
  static constexpr const char* kFunction =
      "-[VXFileManager dataProtectionClassOfItemAtURL:class:error:]";
  UniqueFd fd = OpenForClass(kFunction, url, error);
  if (!fd) return false;
  const int current = ReadClass(kFunction, fd.get(), url, error);
  if (current < 0) return false;
  if (protectionClass) *protectionClass = current;
  return true;
}

bool VXFileManager::setDataProtectionClassOfItemAtURL(const FileURL& url, int32_t protectionClass,
                                                      const ProtectionClassPredicate& predicate,
                                                      ErrorRef* error) const {
  static constexpr const char* kFunction =
      "-[VXFileManager setDataProtectionClassOfItemAtURL:toClass:ifPredicate:error:]";
  UniqueFd fd = OpenForClass(kFunction, url, error);
  if (!fd) return false;
  if (predicate) {
    const int current = ReadClass(kFunction, fd.get(), url, error);
    if (current < 0) return false;
    if (!predicate(current)) return true;
  }
  if (SetProtectionClass(fd.get(), protectionClass) != 0) {
    int saved = errno;
    SetError(error, PosixError(kFunction, __LINE__, saved, "Failed to setclass(%d) on file %s: %s",
                               protectionClass, url.path(), std::strerror(saved)));
    return false;
  }
  return true;
}

}  // namespace vx
