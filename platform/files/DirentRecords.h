// Reading the records that getdents64 packs into a buffer. The kernel writes them, but what
// a name holds and how long it is come from whatever file system serves the directory (a
// FUSE server may hand out names far longer than NAME_MAX), so every length is checked
// against the buffer and the record before a byte is read, and a name has the length its
// record gives it, with no limit of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace vx {

struct DirentRecord {
  uint64_t inode = 0;
  unsigned char type = 0;  // DT_*
  std::string_view name;   // inside the buffer; the record holds a NUL right after it
};

class DirentReader {
 public:
  DirentReader(const unsigned char* data, size_t size) : data_(data), size_(size) {}

  // The next record, "." and ".." included; false at the end of the buffer or at a record
  // that does not make sense (then malformed() says so and nothing further is read).
  bool Next(DirentRecord* record);
  bool malformed() const { return malformed_; }
  // Bytes of the buffer taken by the records read so far.
  size_t consumed() const { return at_; }

 private:
  const unsigned char* data_;
  size_t size_;
  size_t at_ = 0;
  bool malformed_ = false;
};

}  // namespace vx
