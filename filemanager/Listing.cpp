#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>

#include "filemanager/StringAdditions.h"
#include "filemanager/VXFileManager.h"
#include "platform/files/DirentRecords.h"
#include "platform/files/UniqueFd.h"
#include "platform/log/InstallerLog.h"
#include "support/errors/ErrorMakers.h"

namespace vx {
namespace {

constexpr const char* kListFunction =
    "-[VXFileManager urlsForItemsInDirectoryAtURL:ignoringSymlinks:error:]";

// One entry as the directory yields it; the name is not NUL-terminated beyond `nameLength`.
struct DirectoryEntry {
  const char* name;
  size_t nameLength;
  unsigned char type;  // DT_*
};

// Large reads: one getdents64 call returns thousands of entries, where the C library's
// readdir would make many smaller calls on a big directory.
constexpr size_t kListingBufferSize = 1024 * 1024;

// Visits every entry of the directory at `path` (a final symbolic link is not followed, so
// a link to a directory fails). Returns 0, or the error number that ended the walk.
int _IterateDirectory(const std::string& path,
                      const std::function<bool(const DirectoryEntry&)>& visitor) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) return errno;
  std::unique_ptr<char[]> buffer(new char[kListingBufferSize]);
  for (;;) {
    const long n = ::syscall(SYS_getdents64, fd.get(), buffer.get(), kListingBufferSize);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (n == 0) return 0;
    DirentReader reader(reinterpret_cast<const unsigned char*>(buffer.get()),
                        static_cast<size_t>(n));
    DirentRecord record;
    while (reader.Next(&record)) {
      DirectoryEntry entry{record.name.data(), record.name.size(), record.type};
      if (entry.type == DT_UNKNOWN) {
        // Some file systems do not say; ask the entry itself, in this very directory.
        struct stat st {};
        if (::fstatat(fd.get(), entry.name, &st, AT_SYMLINK_NOFOLLOW) == 0) {
          if (S_ISDIR(st.st_mode)) entry.type = DT_DIR;
          else if (S_ISLNK(st.st_mode)) entry.type = DT_LNK;
          else if (S_ISREG(st.st_mode)) entry.type = DT_REG;
        }
      }
      if (!visitor(entry)) return 0;
    }
    if (reader.malformed()) return EIO;
  }
}

}  // namespace

bool VXFileManager::forEachItemInDirectoryAtURL(const FileURL& directory, bool ignoringSymlinks,
                                                const ItemNameVisitor& visitor,
                                                ErrorRef* error) const {
  const std::string& path = directory.path();
  const int result = _IterateDirectory(path, [&](const DirectoryEntry& entry) {
    const std::string_view name(entry.name, entry.nameLength);
    if (name == "." || name == "..") return true;
    if (entry.type == DT_LNK && ignoringSymlinks) {
      VX_INSTALLER_LOG(5, kListFunction, "Ignoring symlink at %s/%s", path, std::string(name));
      return true;
    }
    visitor(name, entry.type == DT_DIR);
    return true;
  });
  if (result != 0) {
    SetError(error, PosixError(kListFunction, __LINE__, result, "_IterateDirectory for %s returned %s",
                               path, std::strerror(result)));
    return false;
  }
  return true;
}

std::optional<std::vector<FileURL>> VXFileManager::urlsForItemsInDirectoryAtURL(
    const FileURL& directory, bool ignoringSymlinks, ErrorRef* error) const {
  std::vector<FileURL> urls;
  const bool listed = forEachItemInDirectoryAtURL(
      directory, ignoringSymlinks,
      [&](std::string_view name, bool isDirectory) {
        urls.push_back(directory.URLByAppendingPathComponent(
            VelotrixAdditions::stringWithFileSystemRepresentation(name.data(), name.size()),
            isDirectory));
      },
      error);
  if (!listed) return std::nullopt;
  return urls;
}

}  // namespace vx
