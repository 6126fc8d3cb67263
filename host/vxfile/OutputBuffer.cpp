#include "host/vxfile/OutputBuffer.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/log/EscapedText.h"

namespace vx::vxfile {

OutputBuffer::OutputBuffer(int fd) : fd_(fd), buffer_(new char[kSize]) {}

void OutputBuffer::line(std::string_view text) {
  if (failed_) return;
  // Names come from the tree: one holding a line break or a terminal's control bytes would
  // forge lines or steer the terminal.
  if (!ShownUnchanged(text)) return line(EscapedText(text));
  if (used_ + text.size() + 1 > kSize && !flush()) return;
  if (text.size() + 1 > kSize) {
    // A name longer than the whole buffer (a file system may serve one) goes out by itself.
    writeAll(text.data(), text.size());
  } else {
    std::memcpy(buffer_.get() + used_, text.data(), text.size());
    used_ += text.size();
  }
  buffer_[used_++] = '\n';
}

bool OutputBuffer::flush() {
  writeAll(buffer_.get(), used_);
  used_ = 0;
  return !failed_;
}

void OutputBuffer::writeAll(const char* bytes, size_t size) {
  while (!failed_ && size > 0) {
    const ssize_t n = ::write(fd_, bytes, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      failed_ = true;
    } else {
      bytes += n;
      size -= static_cast<size_t>(n);
    }
  }
}

}  // namespace vx::vxfile
