#include "host/vxfile/OutputBuffer.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace vx::vxfile {

OutputBuffer::OutputBuffer(int fd) : fd_(fd), buffer_(new char[kSize]) {}

void OutputBuffer::line(std::string_view text) {
  if (failed_) return;
  if (used_ + text.size() + 1 > kSize && !flush()) return;
  if (text.size() + 1 > kSize) {
    // A name longer than the whole buffer (a file system may serve one) goes out by itself.
    const char newline = '\n';
    failed_ = ::write(fd_, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
              ::write(fd_, &newline, 1) != 1;
    return;
  }
  std::memcpy(buffer_.get() + used_, text.data(), text.size());
  used_ += text.size();
  buffer_[used_++] = '\n';
}

bool OutputBuffer::flush() {
  size_t at = 0;
  while (!failed_ && at < used_) {
    const ssize_t n = ::write(fd_, buffer_.get() + at, used_ - at);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) failed_ = true;
    else at += static_cast<size_t>(n);
  }
  used_ = 0;
  return !failed_;
}

}  // namespace vx::vxfile
