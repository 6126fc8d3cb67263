// Reading a directory's entries straight from getdents64, through a descriptor the stream
// owns. A C library stream costs two fstat calls and two fcntl calls before its first entry;
// the walks open one stream per directory of trees with many small directories, so those
// calls came to a large share of their work. The listing comes from whatever file system
// serves the directory, so every record is checked (DirentReader) before its name is used.
#pragma once

#include <cstddef>
#include <memory>

#include "platform/files/DirentRecords.h"
#include "platform/files/UniqueFd.h"

namespace vx {

class DirectoryStream {
 public:
  DirectoryStream() = default;
  // Takes `directory` over; an invalid descriptor makes a stream that is not open.
  explicit DirectoryStream(UniqueFd directory) : fd_(std::move(directory)) {}
  DirectoryStream(DirectoryStream&&) noexcept = default;
  DirectoryStream& operator=(DirectoryStream&&) noexcept = default;

  int fd() const { return fd_.get(); }
  explicit operator bool() const { return fd_.valid(); }

  // The next entry, "." and ".." left out. Its name lies in the stream's buffer, NUL-ended,
  // and stays valid until the next call on the stream. False at the end with errno 0, or on
  // failure with errno set (EIO for a listing that does not make sense); a failure is kept,
  // and every later call reports it again until Rewind.
  bool Next(DirentRecord* entry);

  // Reads again from the first entry. False with errno.
  bool Rewind();

  // Closes the descriptor and gives the buffer back.
  void reset();
  // Gives the descriptor back to the caller, positioned wherever reading left it.
  int release();

 private:
  UniqueFd fd_;
  std::unique_ptr<unsigned char[]> buffer_;  // allocated at the first read
  size_t next_ = 0;                          // first byte not yet handed out
  size_t end_ = 0;                           // bytes of the buffer that hold records
  int error_ = 0;
};

}  // namespace vx
