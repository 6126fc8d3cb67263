#include "platform/files/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <vector>

#include "platform/files/Beneath.h"
#include "platform/files/ReadBounded.h"
#include "platform/files/Sys.h"
#include "platform/files/UniqueFd.h"

namespace vx {
namespace {

std::string DirectoryOf(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string NameOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

constexpr size_t kTempSuffixLength = 7;  // ".XXXXXX"

// A write cut off by a crash leaves its temporary file behind. It is ours, named after the
// target, so the next write of the same target removes it: otherwise it would be a stray
// entry, for instance in an old container that must be empty before it can go.
void RemoveStaleTemporaries(const std::string& directory, const std::string& name) {
  UniqueDir dir(::opendir(directory.c_str()));
  if (!dir) return;
  const std::string prefix = "." + name + ".";
  std::vector<std::string> stale;
  while (const dirent* entry = ::readdir(dir.get())) {
    const std::string_view entryName(entry->d_name);
    if (entryName.size() == prefix.size() + kTempSuffixLength - 1 &&
        entryName.substr(0, prefix.size()) == prefix && entry->d_type != DT_DIR) {
      stale.emplace_back(entryName);
    }
  }
  for (const std::string& entryName : stale) {
    sys::Unlinkat(::dirfd(dir.get()), entryName.c_str(), 0);
  }
}

}  // namespace

bool WriteFileAtomically(const std::string& path, std::span<const uint8_t> bytes, int* error,
                         mode_t mode) {
  const std::string directory = DirectoryOf(path);
  RemoveStaleTemporaries(directory, NameOf(path));
  std::string temp = directory + "/." + NameOf(path) + ".XXXXXX";
  UniqueFd fd(sys::Mkostemp(temp.data(), O_CLOEXEC));
  if (!fd) {
    if (error) *error = errno;
    return false;
  }
  auto fail = [&]() {
    int saved = errno;
    fd.reset();
    ::unlink(temp.c_str());  // our own temporary file: cleaning it is not a data mutation
    if (error) *error = saved;
    return false;
  };
  if (sys::Fchmod(fd.get(), mode) != 0) return fail();
  if (!sys::WriteAll(fd.get(), bytes.data(), bytes.size())) return fail();
  // The bytes reach the disk before the name points at them: a rename is metadata, and a
  // power cut after it could otherwise leave the target empty or short.
  if (sys::Fsync(fd.get()) != 0) return fail();
  if (sys::Rename(temp.c_str(), path.c_str()) != 0) return fail();
  fd.reset();
  // The rename is durable only with its directory: without this sync a power cut brings
  // back the old content after the caller was told of the new (a marker that moved on, a
  // record that says a step was done).
  UniqueFd dir(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir && sys::Fsync(dir.get()) != 0) {
    // The new content is in place; only its durability is in doubt.
    if (error) *error = errno;
    return false;
  }
  return true;
}

std::optional<std::vector<uint8_t>> ReadFileContents(const std::string& path, int* error) {
  // A FIFO or device where a file was expected must fail, not wait for a writer.
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat st {};
  if (!fd || ::fstat(fd.get(), &st) != 0) {
    if (error) *error = errno;
    return std::nullopt;
  }
  if (!S_ISREG(st.st_mode)) {
    if (error) *error = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    return std::nullopt;
  }
  return ReadBounded(fd.get(), static_cast<size_t>(std::max<off_t>(st.st_size, 0)),
                     kMaxWholeFileSize, error);
}

std::optional<std::vector<uint8_t>> ReadRegularFileAt(int dirfd, const char* name, size_t limit,
                                                      int* error) {
  struct stat st {};
  UniqueFd fd = OpenRegularFileAt(dirfd, name, &st);
  if (!fd) {
    if (error) *error = errno;
    return std::nullopt;
  }
  return ReadBounded(fd.get(), static_cast<size_t>(std::max<off_t>(st.st_size, 0)), limit, error);
}

}  // namespace vx
