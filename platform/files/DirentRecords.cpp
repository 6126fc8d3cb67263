#include "platform/files/DirentRecords.h"

#include <cstring>

namespace vx {
namespace {

// struct linux_dirent64: u64 d_ino, s64 d_off, u16 d_reclen, u8 d_type, char d_name[].
constexpr size_t kReclenOffset = 16;
constexpr size_t kTypeOffset = 18;
constexpr size_t kNameOffset = 19;

}  // namespace

bool DirentReader::Next(DirentRecord* record) {
  if (malformed_ || at_ >= size_) return false;
  const size_t left = size_ - at_;
  const unsigned char* raw = data_ + at_;
  uint16_t reclen = 0;
  if (left < kNameOffset + 1) {
    malformed_ = true;
    return false;
  }
  std::memcpy(&reclen, raw + kReclenOffset, sizeof reclen);
  // A record holds at least a name of one byte and its NUL, and lies inside the buffer.
  if (reclen < kNameOffset + 2 || reclen > left) {
    malformed_ = true;
    return false;
  }
  const char* name = reinterpret_cast<const char*>(raw + kNameOffset);
  const void* nul = std::memchr(name, '\0', reclen - kNameOffset);
  if (!nul || nul == name) {
    malformed_ = true;
    return false;
  }
  std::memcpy(&record->inode, raw, sizeof record->inode);
  record->type = raw[kTypeOffset];
  record->name = std::string_view(name, static_cast<size_t>(static_cast<const char*>(nul) - name));
  at_ += reclen;
  return true;
}

}  // namespace vx
