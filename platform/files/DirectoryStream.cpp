#include "platform/files/DirectoryStream.h"

#include <dirent.h>
#include <unistd.h>

#include <cerrno>

namespace vx {
namespace {

// Large enough that a directory of a few hundred entries is read in one call, small enough
// that a walk holding a stream per level stays modest.
constexpr size_t kBufferSize = 32768;

}  // namespace

bool DirectoryStream::Next(DirentRecord* entry) {
  if (error_ || !fd_) {
    errno = error_ ? error_ : EBADF;
    return false;
  }
  for (;;) {
    if (next_ >= end_) {
      // Only ever written by the kernel before it is read: no need to clear it.
      if (!buffer_) buffer_ = std::make_unique_for_overwrite<unsigned char[]>(kBufferSize);
      const ssize_t n = ::getdents64(fd_.get(), buffer_.get(), kBufferSize);
      if (n < 0) {
        if (errno == EINTR) continue;
        error_ = errno;
        return false;
      }
      if (n == 0) {
        errno = 0;
        return false;
      }
      next_ = 0;
      end_ = static_cast<size_t>(n) < kBufferSize ? static_cast<size_t>(n) : kBufferSize;
    }
    DirentReader reader(buffer_.get() + next_, end_ - next_);
    if (!reader.Next(entry)) {
      // A record that makes no sense cannot be stepped over: the rest of this read is lost,
      // and with it any trust in where the next read would start.
      next_ = end_;
      error_ = EIO;
      errno = EIO;
      return false;
    }
    next_ += reader.consumed();
    if (entry->name != "." && entry->name != "..") return true;
  }
}

bool DirectoryStream::Rewind() {
  if (!fd_) {
    errno = EBADF;
    return false;
  }
  next_ = end_ = 0;
  error_ = 0;
  return ::lseek(fd_.get(), 0, SEEK_SET) == 0;
}

void DirectoryStream::reset() {
  fd_.reset();
  buffer_.reset();
  next_ = end_ = 0;
  error_ = 0;
}

int DirectoryStream::release() {
  buffer_.reset();
  next_ = end_ = 0;
  error_ = 0;
  return fd_.release();
}

}  // namespace vx
