#include <cerrno>
#include <string>

#include "filemanager/VXFileManager.h"
#include "platform/files/Sys.h"
#include "support/errors/ErrorMakers.h"

namespace vx {

std::optional<FileURL> VXFileManager::createTemporaryDirectoryInDirectoryURL(
    const FileURL& parent, ErrorRef* error) const {
  if (error) error->reset();
  const FileURL templ = parent.URLByAppendingPathComponent("temp.XXXXXX", true);
  std::string buffer = templ.path();
  if (sys::Mkdtemp(buffer.data()) != nullptr) {
    return FileURL::fileURLWithPath(buffer, true);
  }
  const int e = errno;
  const PlistDictionary userInfo{{VXPathArgumentErrorKey, PlistValue(templ)}};
  SetError(error, _CreateAndLogError("-[VXFileManager createTemporaryDirectoryInDirectoryURL:error:]",
                                     __LINE__, VXInstallerErrorDomain, 4, PosixCause(e), &userInfo,
                                     "Failed to create temp dir at path %s", buffer.c_str()));
  return std::nullopt;
}

}  // namespace vx
