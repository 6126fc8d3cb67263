// Handing a whole tree to one owner, and refusing a tree whose links lead out of it: a
// privileged installer must not be tricked into touching files outside what it was given.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "filemanager/VXFileManager.h"
#include "platform/files/Sys.h"
#include "platform/files/UniqueFd.h"
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

// Gives the item open as `fd` (an O_PATH descriptor, or a directory's own) to `uid`:`gid`.
// By descriptor, never by path, so what changes owner is the item whose status was read,
// and a symbolic link is re-owned itself, never what it points at.
//
// An item that is not a directory and has more than one link is left as it is, with the
// failure line of a refused change: its other names may lie outside the tree, and a change
// of owner would follow it there. An app can link any file it can see (another app's, a
// device node, a file of the system) into its own container; giving that file to the
// container's new owner would hand it away everywhere it is linked. Counting the names met
// inside the tree cannot prove them all inside either, as a name can be moved under the walk
// and met twice. A tree that links its own files together keeps their old owner, and says so.
void ChangeOwner(const char* function, int fd, const std::string& path, const struct stat& st,
                 uid_t uid, gid_t gid) {
  int failure = 0;
  if (!S_ISDIR(st.st_mode) && st.st_nlink > 1) {
    failure = EMLINK;
  } else if (sys::Fchownat(fd, "", uid, gid, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW) != 0) {
    failure = errno;
  }
  if (failure) VX_INSTALLER_LOG(3, function, "Could not chown %s: %s", path, std::strerror(failure));
}

}  // namespace

bool VXFileManager::standardizeOwnershipAndValidateSymlinksAtURL(const FileURL& root, uid_t uid,
                                                                 gid_t gid,
                                                                 ErrorRef* error) const {
  auto visitor = [&](const TraversalEntry& entry, ErrorRef* walkError) {
    if (entry.uid != uid || entry.gid != gid) {
      struct stat st {};
      st.st_mode = entry.mode;
      st.st_nlink = entry.nlink;
      ChangeOwner(kStandardizeVisitor, entry.fd, entry.path, st, uid, gid);
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
  UniqueFd item(::open(root.fileSystemRepresentation(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat st {};
  if (!item || ::fstat(item.get(), &st) != 0) {
    SetError(error, PosixError(kStandardize, __LINE__, errno, "Could not stat %s: %s",
                               root.path(), std::strerror(errno)));
    return false;
  }
  if (st.st_uid != uid) ChangeOwner(kStandardize, item.get(), root.path(), st, uid, gid);
  return result;
}

}  // namespace vx
