#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>

#include "filemanager/VXFileManager.h"
#include "platform/files/CloneTree.h"
#include "platform/files/DurableCopy.h"
#include "platform/files/Sys.h"
#include "platform/files/UniqueFd.h"
#include "platform/log/InstallerLog.h"
#include "support/errors/ErrorMakers.h"

namespace vx {
namespace {

constexpr const char* kCopyFunction = "-[VXFileManager _copyItemAtURL:toURL:failIfSrcMissing:error:]";
constexpr const char* kMoveFunction = "-[VXFileManager _moveItemAtURL:toURL:failIfSrcMissing:error:]";

enum class SourceState { Present, Missing, Failed };

// The "if exists" forms treat a missing source as nothing to do, which is what lets an
// interrupted migration run again over a half-moved container.
SourceState CheckSource(const char* function, const FileURL& source, ErrorRef* error) {
  struct stat st {};
  if (::lstat(source.fileSystemRepresentation(), &st) == 0) return SourceState::Present;
  const int e = errno;
  if (e == ENOENT) return SourceState::Missing;
  SetError(error,
           PosixError(function, __LINE__, e, "stat of %@ failed: %s", source, std::strerror(e)));
  return SourceState::Failed;
}

// The copier with the flags the file manager always asks for, plus `extraFlags`.
bool Clone(const FileURL& source, const FileURL& destination, unsigned extraFlags,
           ErrorRef* error, unsigned workers = 1) {
  if (clonetree(source.fileSystemRepresentation(), destination.fileSystemRepresentation(),
                kCloneAll | extraFlags, workers) != 0) {
    const int e = errno;
    SetError(error, PosixError(kCopyFunction, __LINE__, e, "clonetree of %@ to %@ failed: %s",
                               source, destination, std::strerror(e)));
    return false;
  }
  return true;
}

// Across file systems a move is a copy, and the source goes only once the copy is whole and
// on disk: FIFOs and device nodes are made anew, and one that cannot be (a socket, a device
// node without privilege) fails the move, as removing the source would lose it. The item is
// copied from the descriptor of what was looked at, and removed only while its name still
// holds that item: a link swapped in meanwhile is neither followed nor mistaken for it.
bool MoveAcrossFileSystems(const FileURL& source, const FileURL& destination, ErrorRef* error) {
  const FileURL sourceParent = source.URLByDeletingLastPathComponent();
  const FileURL destinationParent = destination.URLByDeletingLastPathComponent();
  const std::string name = source.lastPathComponent();
  const std::string destinationName = destination.lastPathComponent();
  UniqueFd from(::open(sourceParent.fileSystemRepresentation(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  UniqueFd to(
      ::open(destinationParent.fileSystemRepresentation(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat checked {};
  int e = !from || !to ? errno
          : ::fstatat(from.get(), name.c_str(), &checked, AT_SYMLINK_NOFOLLOW) != 0
              ? errno
              : CopyItemDurably(from.get(), name.c_str(), &checked, to.get(),
                                destinationName.c_str(), kCloneAll | kCloneSpecial);
  if (e) {
    SetError(error, PosixError(kCopyFunction, __LINE__, e, "clonetree of %@ to %@ failed: %s",
                               source, destination, std::strerror(e)));
    return false;
  }
  // The source leaves its name in one rename, under a name of its own, and goes only when
  // that is the item copied: a swap between a look and a removal by name cannot send the
  // removal to something else.
  static std::atomic<unsigned> moves{0};
  const std::string aside =
      ".moving-" + std::to_string(::getpid()) + "-" + std::to_string(moves.fetch_add(1));
  struct stat now {};
  if (sys::Renameat(from.get(), name.c_str(), from.get(), aside.c_str()) != 0) {
    VX_INSTALLER_LOG(3, kMoveFunction, "Failed to take source %@ away: %s", source.path(),
                     std::strerror(errno));
    return true;
  }
  if (::fstatat(from.get(), aside.c_str(), &now, AT_SYMLINK_NOFOLLOW) != 0 ||
      now.st_dev != checked.st_dev || now.st_ino != checked.st_ino) {
    sys::Renameat(from.get(), aside.c_str(), from.get(), name.c_str());
    VX_INSTALLER_LOG(3, kMoveFunction, "Not removing source %@ : it changed while it was copied",
                     source.path());
    return true;
  }
  ErrorRef removeError;
  if (!VXFileManager::defaultManager().removeItemAtURL(
          sourceParent.URLByAppendingPathComponent(aside), &removeError)) {
    VX_INSTALLER_LOG(3, kMoveFunction, "Failed to remove source %@ : %@", source.path(),
                     removeError);
  }
  return true;
}

}  // namespace

bool VXFileManager::_copyItemAtURL(const FileURL& source, const FileURL& destination,
                                   bool failIfSrcMissing, ErrorRef* error) const {
  if (!failIfSrcMissing) {
    const SourceState state = CheckSource(kCopyFunction, source, error);
    if (state != SourceState::Present) return state == SourceState::Missing;
  }
  return Clone(source, destination, 0, error);
}

bool VXFileManager::_moveItemAtURL(const FileURL& source, const FileURL& destination,
                                   bool failIfSrcMissing, ErrorRef* error) const {
  if (!failIfSrcMissing) {
    const SourceState state = CheckSource(kMoveFunction, source, error);
    if (state != SourceState::Present) return state == SourceState::Missing;
  }
  if (sys::Rename(source.fileSystemRepresentation(), destination.fileSystemRepresentation()) == 0) {
    return true;
  }
  const int e = errno;
  if (e != EXDEV) {
    SetError(error, PosixError(kMoveFunction, __LINE__, e, "rename of %@ to %@ failed: %s", source,
                               destination, std::strerror(e)));
    return false;
  }
  return MoveAcrossFileSystems(source, destination, error);
}

bool VXFileManager::copyItemAtURL(const FileURL& source, const FileURL& destination,
                                  ErrorRef* error) const {
  return _copyItemAtURL(source, destination, true, error);
}

bool VXFileManager::copyItemAtURL(const FileURL& source, const FileURL& destination,
                                  unsigned workers, ErrorRef* error) const {
  return Clone(source, destination, 0, error, workers);
}

bool VXFileManager::copyItemIfExistsAtURL(const FileURL& source, const FileURL& destination,
                                          ErrorRef* error) const {
  return _copyItemAtURL(source, destination, false, error);
}

bool VXFileManager::moveItemAtURL(const FileURL& source, const FileURL& destination,
                                  ErrorRef* error) const {
  return _moveItemAtURL(source, destination, true, error);
}

bool VXFileManager::moveItemIfExistsAtURL(const FileURL& source, const FileURL& destination,
                                          ErrorRef* error) const {
  return _moveItemAtURL(source, destination, false, error);
}

}  // namespace vx
