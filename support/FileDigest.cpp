#include "support/FileDigest.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/files/Beneath.h"
#include "platform/files/UniqueFd.h"
#include "platform/log/InstallerLog.h"

namespace vx {
namespace {

constexpr const char* kReadFile = "_ReadFile";
constexpr const char* kDigest = "VXCreateSHA256Digest";
// Bounds memory whatever the file's size; a smaller file gets a buffer of its own size.
constexpr int64_t kChunkLimit = 65536;

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};
struct DigestContextDeleter {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

ssize_t ReadRetryingInterrupts(int fd, void* buffer, size_t size) {
  ssize_t n;
  do {
    n = ::read(fd, buffer, size);
  } while (n < 0 && errno == EINTR);
  return n;
}

}  // namespace

bool _ReadFile(const char* path, const FileChunkConsumer& consumer) {
  // Only a regular file has content to digest: a directory is refused, and a FIFO or device
  // is refused before anything waits on it.
  struct stat st {};
  UniqueFd fd = OpenRegularFileAt(AT_FDCWD, path, &st);
  if (!fd) {
    VX_INSTALLER_LOG(3, kReadFile, "failed to open %s : %s", path, std::strerror(errno));
    return false;
  }
  // The size is taken once: what is appended meanwhile is not read, and a file that
  // shrinks ends in a short read below. A size of 0 proves nothing (files of /proc say 0
  // and hold bytes): such a file is read to its end.
  const int64_t size = st.st_size;
  const bool toEnd = size <= 0;
  const int64_t chunk = toEnd ? kChunkLimit : std::min(size, kChunkLimit);
  std::unique_ptr<uint8_t, FreeDeleter> buffer(
      static_cast<uint8_t*>(std::malloc(static_cast<size_t>(chunk))));
  if (!buffer) {
    VX_INSTALLER_LOG(3, kReadFile, "malloc failed for %ld bytes: %s", static_cast<long>(chunk),
                     std::strerror(errno));
    return false;
  }
  for (int64_t offset = 0; toEnd || offset < size;) {
    const auto want = static_cast<size_t>(toEnd ? chunk : std::min(chunk, size - offset));
    const ssize_t got = ReadRetryingInterrupts(fd.get(), buffer.get(), want);
    if (got < 0) {
      VX_INSTALLER_LOG(3, kReadFile, "read failed for %s : %s", path, std::strerror(errno));
      return false;
    }
    if (got == 0) {
      if (toEnd) break;
      VX_INSTALLER_LOG(3, kReadFile, "read failed for %s, got %lld bytes", path,
                       static_cast<long long>(got));
      return false;
    }
    if (!consumer(std::span<const uint8_t>(buffer.get(), static_cast<size_t>(got)))) return false;
    offset += got;
  }
  return true;
}

std::optional<std::string> VXCreateSHA256Digest(const FileURL& url) {
  std::unique_ptr<EVP_MD_CTX, DigestContextDeleter> ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1) {
    VX_INSTALLER_LOG(3, kDigest, "Failed to read %@ : %s", url, std::strerror(errno));
    return std::nullopt;
  }
  const bool read = _ReadFile(url.fileSystemRepresentation(), [&](std::span<const uint8_t> c) {
    return EVP_DigestUpdate(ctx.get(), c.data(), c.size()) == 1;
  });
  // Finishing also after a failed read leaves the context in a defined state to free.
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digestLength = 0;
  const bool finished = EVP_DigestFinal_ex(ctx.get(), digest, &digestLength) == 1;
  if (!read) {
    VX_INSTALLER_LOG(3, kDigest, "Failed to read %@ : %s", url, std::strerror(errno));
    return std::nullopt;
  }
  if (!finished || digestLength != 32) return std::nullopt;

  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  text.reserve(64);
  for (unsigned int i = 0; i < digestLength; ++i) {
    text.push_back(kHex[digest[i] >> 4]);
    text.push_back(kHex[digest[i] & 0x0f]);
  }
  return text;
}

}  // namespace vx
