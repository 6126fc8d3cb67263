// Handing a whole tree to one owner, and refusing a tree whose links lead out of it: a
// privileged installer must not be tricked into touching files outside what it was given.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "filemanager/VXFileManager.h"
#include "platform/files/Sys.h"
#include "platform/log/InstallerLog.h"
#include "support/errors/ErrorMakers.h"

namespace vx {
namespace {

constexpr const char* kStandardize =
    "-[VXFileManager standardizeOwnershipAndValidateSymlinksAtURL:toUID:GID:error:]";
constexpr const char* kStandardizeVisitor =
    "__78-[VXFileManager standardizeOwnershipAndValidateSymlinksAtURL:toUID:GID:error:]_block_"
    "invoke";
constexpr int64_t kInvalidSymlinkCode = 70;

}  // namespace

bool VXFileManager::standardizeOwnershipAndValidateSymlinksAtURL(const FileURL& root, uid_t uid,
                                                                 gid_t gid,
                                                                 ErrorRef* error) const {
  auto visitor = [&](const TraversalEntry& entry, ErrorRef* walkError) {
    if (entry.uid != uid || entry.gid != gid) {
      // The link itself is re-owned, never what it points at.
      if (sys::Lchown(entry.path.c_str(), uid, gid) != 0) {
        VX_INSTALLER_LOG(3, kStandardizeVisitor, "Could not chown %s: %s", entry.path,
                         std::strerror(errno));
      }
    }
    if (S_ISLNK(entry.mode) &&
        !realPathForURL(FileURL::fileURLWithPath(entry.path, false), root)) {
      const PlistDictionary userInfo{{VXLegacyErrorStringKey, PlistValue(kInvalidSymlinkCode)}};
      SetError(walkError,
               _CreateAndLogError(kStandardizeVisitor, __LINE__, VXInstallerErrorDomain,
                                  kInvalidSymlinkCode, nullptr, &userInfo,
                                  "invalid symlink at %s", entry.path));
      return false;
    }
    return true;
  };
  bool result = _traverseDirectory(root, error, visitor);

  // The walk may have stopped before the root's second visit; its owner is settled here.
  struct stat st {};
  if (::lstat(root.fileSystemRepresentation(), &st) != 0) {
    SetError(error, PosixError(kStandardize, __LINE__, errno, "Could not stat %s: %s",
                               root.path(), std::strerror(errno)));
    return false;
  }
  if (st.st_uid != uid && sys::Lchown(root.fileSystemRepresentation(), uid, gid) != 0) {
    VX_INSTALLER_LOG(3, kStandardize, "Could not chown %s: %s", root.path(),
                     std::strerror(errno));
  }
  return result;
}

}  // namespace vx
