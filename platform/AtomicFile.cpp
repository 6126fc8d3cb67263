#include "platform/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/Sys.h"
#include "platform/UniqueFd.h"

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

}  // namespace

bool WriteFileAtomically(const std::string& path, std::span<const uint8_t> bytes, int* error,
                         mode_t mode) {
  const std::string directory = DirectoryOf(path);
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
  if (sys::Fsync(fd.get()) != 0) return fail();
  if (sys::Rename(temp.c_str(), path.c_str()) != 0) return fail();
  fd.reset();
  UniqueFd dir(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir && sys::Fsync(dir.get()) != 0) {
    // The new content is in place; only its durability is in doubt.
    if (error) *error = errno;
    return false;
  }
  return true;
}

std::optional<std::vector<uint8_t>> ReadFileContents(const std::string& path, int* error) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) {
    if (error) *error = errno;
    return std::nullopt;
  }
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) {
    if (error) *error = errno;
    return std::nullopt;
  }
  if (S_ISDIR(st.st_mode)) {
    if (error) *error = EISDIR;
    return std::nullopt;
  }
  std::vector<uint8_t> bytes;
  bytes.reserve(st.st_size > 0 ? static_cast<size_t>(st.st_size) : 0);
  uint8_t buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (error) *error = errno;
      return std::nullopt;
    }
    if (n == 0) break;
    bytes.insert(bytes.end(), buffer, buffer + n);
  }
  return bytes;
}

}  // namespace vx
