#include "platform/files/ReadBounded.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace vx {

std::optional<std::vector<uint8_t>> ReadBounded(int fd, size_t sizeHint, size_t limit,
                                                int* error) {
  const auto fail = [&](int e) -> std::optional<std::vector<uint8_t>> {
    if (error) *error = e;
    return std::nullopt;
  };
  if (sizeHint > limit) return fail(EFBIG);
  // One byte past the hint lets the usual file, which has not grown, end in a single read.
  std::vector<uint8_t> bytes(sizeHint + 1);
  size_t have = 0;
  for (;;) {
    if (have == bytes.size()) {
      if (bytes.size() > limit) return fail(EFBIG);
      bytes.resize(std::min(limit + 1, bytes.size() + 65536));
    }
    const ssize_t n = ::read(fd, bytes.data() + have, bytes.size() - have);
    if (n < 0) {
      if (errno == EINTR) continue;
      return fail(errno);
    }
    if (n == 0) break;
    have += static_cast<size_t>(n);
  }
  if (have > limit) return fail(EFBIG);
  bytes.resize(have);
  return bytes;
}

}  // namespace vx
