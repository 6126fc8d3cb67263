#include "platform/files/DurableCopy.h"

#include <fcntl.h>

#include <cerrno>
#include <string>
#include <vector>

#include "platform/files/Beneath.h"
#include "platform/files/CloneItems.h"
#include "platform/files/CloneTree.h"
#include "platform/files/DirectoryNames.h"
#include "platform/files/FileIdentity.h"
#include "platform/files/Sys.h"

namespace vx {
namespace {

bool SameItem(const struct stat& a, const struct stat& b) {
  return IdentityOf(a) == IdentityOf(b) && (a.st_mode & S_IFMT) == (b.st_mode & S_IFMT);
}

int SyncOpen(int fd) { return sys::Fsync(fd) == 0 ? 0 : errno; }

}  // namespace

int SyncItemTree(int dir, const char* name) {
  struct stat st {};
  if (::fstatat(dir, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return errno;
  if (S_ISREG(st.st_mode)) {
    UniqueFd file = OpenRegularFileAt(dir, name);
    return file ? SyncOpen(file.get()) : errno;
  }
  if (!S_ISDIR(st.st_mode)) return 0;  // a link or node lives in its directory's entry
  UniqueFd root = OpenDirectoryAt(dir, name);
  if (!root) return errno;
  // Directories by their path below the root, reopened beneath it: a deep tree costs no
  // descriptor per level.
  std::vector<std::string> pending{""};
  while (!pending.empty()) {
    const std::string relative = std::move(pending.back());
    pending.pop_back();
    UniqueFd here = relative.empty() ? UniqueFd(::fcntl(root.get(), F_DUPFD_CLOEXEC, 0))
                                     : OpenBeneath(root.get(), relative, O_RDONLY | O_DIRECTORY);
    if (!here) return errno;
    std::vector<std::string> names;
    if (!ReadDirectoryNames(here.get(), &names)) return errno;
    for (const std::string& entry : names) {
      struct stat child {};
      if (::fstatat(here.get(), entry.c_str(), &child, AT_SYMLINK_NOFOLLOW) != 0) return errno;
      if (S_ISDIR(child.st_mode)) {
        pending.push_back(relative.empty() ? entry : relative + "/" + entry);
      } else if (S_ISREG(child.st_mode)) {
        UniqueFd file = OpenRegularFileAt(here.get(), entry.c_str());
        if (!file) return errno;
        if (int e = SyncOpen(file.get())) return e;
      }
    }
    if (int e = SyncOpen(here.get())) return e;
  }
  return 0;
}

int CopyItemDurably(int srcDir, const char* name, const struct stat* checked, int dstDir,
                    const char* dstName, unsigned flags) {
  struct stat st {};
  if (::fstatat(srcDir, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return errno;
  if (checked && !SameItem(st, *checked)) return ESTALE;
  int e = 0;
  if (S_ISDIR(st.st_mode)) {
    UniqueFd directory = OpenDirectoryAt(srcDir, name);
    struct stat opened {};
    if (!directory || ::fstat(directory.get(), &opened) != 0) return errno;
    if (!SameItem(opened, st)) return ESTALE;
    // "." of the open directory: the copier never looks the name up again.
    e = clone::CloneDirectoryInParallel(directory.get(), ".", dstDir, dstName, flags, 1);
  } else if (S_ISREG(st.st_mode)) {
    struct stat opened {};
    UniqueFd file = OpenRegularFileAt(srcDir, name, &opened);
    if (!file) return errno;
    if (!SameItem(opened, st)) return ESTALE;
    e = clone::CopyRegularTo(file.get(), opened, dstDir, dstName, flags, nullptr);
  } else if (S_ISLNK(st.st_mode)) {
    e = clone::CopyLink(srcDir, name, dstDir, dstName, st, flags);
  } else if (flags & kCloneSpecial) {
    e = clone::MakeSpecial(dstDir, dstName, st, flags);
  } else {
    e = ENOTSUP;
  }
  if (e) return e;
  if ((e = SyncItemTree(dstDir, dstName))) return e;
  return SyncOpen(dstDir);
}

}  // namespace vx
