// Lines for standard output gathered into large writes: a listing of hundreds of thousands
// of names costs a few hundred system calls, not one per name.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

namespace vx::vxfile {

class OutputBuffer {
 public:
  explicit OutputBuffer(int fd);
  OutputBuffer(const OutputBuffer&) = delete;
  OutputBuffer& operator=(const OutputBuffer&) = delete;
  ~OutputBuffer() { flush(); }

  // `text`, escaped (EscapedText), and a newline. Once a write has failed, nothing more is
  // written.
  void line(std::string_view text);
  // Writes what is gathered; false when this or an earlier write failed.
  bool flush();

 private:
  void writeAll(const char* bytes, size_t size);

  static constexpr size_t kSize = 1 << 20;
  int fd_;
  std::unique_ptr<char[]> buffer_;
  size_t used_ = 0;
  bool failed_ = false;
};

}  // namespace vx::vxfile
