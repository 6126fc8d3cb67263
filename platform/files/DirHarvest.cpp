#include "platform/files/DirHarvest.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cerrno>
#include <cstring>

#include "platform/files/DirentRecords.h"

namespace vx {
namespace {

// getdents64 output per kernel call; entries that do not fit the caller's buffer wait in it.
constexpr size_t kEntriesSize = 32768;

// Appends fields to a record under construction, whose size was checked beforehand.
class RecordWriter {
 public:
  explicit RecordWriter(unsigned char* out) : out_(out) {}
  template <typename T>
  void put(const T& value) {
    std::memcpy(out_ + size_, &value, sizeof value);
    size_ += sizeof value;
  }
  size_t reserve(size_t bytes) {
    size_t at = size_;
    size_ += bytes;
    return at;
  }
  void putAt(size_t at, const void* bytes, size_t length) { std::memcpy(out_ + at, bytes, length); }
  size_t size() const { return size_; }

 private:
  unsigned char* out_;
  size_t size_ = 0;
};

uint32_t ObjectTypeOf(uint16_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG: return kHarvestRegular;
    case S_IFDIR: return kHarvestDirectory;
    case S_IFBLK: return kHarvestBlockDevice;
    case S_IFCHR: return kHarvestCharDevice;
    case S_IFLNK: return kHarvestSymlink;
    case S_IFSOCK: return kHarvestSocket;
    case S_IFIFO: return kHarvestFifo;
    default: return kHarvestNone;
  }
}

// Asks statx only for what the request needs: every field costs the file system work.
unsigned StatxMask(const HarvestRequest& request) {
  unsigned mask = 0;
  if ((request.common & kHarvestCommonObjectType) || request.directory || request.file)
    mask |= STATX_TYPE;
  if (request.common & kHarvestCommonFileID) mask |= STATX_INO;
  if (request.file & kHarvestFileLinkCount) mask |= STATX_NLINK;
  if (request.file & kHarvestFileAllocatedSize) mask |= STATX_BLOCKS;
  return mask;
}

// The attributes that a record of this entry carries.
HarvestAttributes ReturnedAttributes(const struct statx& stx, int statError,
                                     const HarvestRequest& request) {
  HarvestAttributes returned;
  returned.common = request.common & kHarvestCommonName;
  if (request.common & kHarvestCommonReturned) returned.common |= kHarvestCommonReturned;
  if (statError) {
    // A record in error keeps its name, so the caller can still say which entry failed.
    returned.common |= request.common & kHarvestCommonError;
    return returned;
  }
  auto has = [&](unsigned bit) { return (stx.stx_mask & bit) == bit; };
  if ((request.common & kHarvestCommonObjectType) && has(STATX_TYPE))
    returned.common |= kHarvestCommonObjectType;
  if ((request.common & kHarvestCommonFileID) && has(STATX_INO))
    returned.common |= kHarvestCommonFileID;
  if (has(STATX_TYPE) && !S_ISDIR(stx.stx_mode)) {
    if ((request.file & kHarvestFileLinkCount) && has(STATX_NLINK))
      returned.file |= kHarvestFileLinkCount;
    if ((request.file & kHarvestFileAllocatedSize) && has(STATX_BLOCKS))
      returned.file |= kHarvestFileAllocatedSize;
  }
  return returned;
}

// The bytes of a record with these attributes and a name of `nameLength` bytes, padded so
// that the next record starts 8-byte aligned.
size_t RecordLength(const HarvestAttributes& returned, size_t nameLength) {
  size_t length = sizeof(uint32_t);
  if (returned.common & kHarvestCommonReturned) length += sizeof(HarvestAttributes);
  if (returned.common & kHarvestCommonError) length += sizeof(uint32_t);
  if (returned.common & kHarvestCommonName) length += sizeof(HarvestNameRef) + nameLength + 1;
  if (returned.common & kHarvestCommonObjectType) length += sizeof(uint32_t);
  if (returned.common & kHarvestCommonFileID) length += sizeof(uint64_t);
  if (returned.file & kHarvestFileLinkCount) length += sizeof(uint32_t);
  if (returned.file & kHarvestFileAllocatedSize) length += sizeof(uint64_t);
  return (length + 7) & ~size_t{7};
}

}  // namespace

size_t PackHarvestRecord(std::string_view name, const struct statx& stx, int statError,
                         const HarvestRequest& request, void* buffer, size_t room) {
  const HarvestAttributes returned = ReturnedAttributes(stx, statError, request);
  const size_t length = RecordLength(returned, name.size());
  if (length > room || length > UINT32_MAX) return 0;

  auto* out = static_cast<unsigned char*>(buffer);
  RecordWriter record(out);
  const size_t lengthAt = record.reserve(sizeof(uint32_t));
  if (returned.common & kHarvestCommonReturned) record.put(returned);
  if (returned.common & kHarvestCommonError) record.put(static_cast<uint32_t>(statError));
  size_t nameRefAt = 0;
  if (returned.common & kHarvestCommonName) nameRefAt = record.reserve(sizeof(HarvestNameRef));
  if (returned.common & kHarvestCommonObjectType) record.put(ObjectTypeOf(stx.stx_mode));
  if (returned.common & kHarvestCommonFileID) record.put(static_cast<uint64_t>(stx.stx_ino));
  if (returned.file & kHarvestFileLinkCount) record.put(static_cast<uint32_t>(stx.stx_nlink));
  if (returned.file & kHarvestFileAllocatedSize)
    record.put(static_cast<uint64_t>(stx.stx_blocks) * 512);
  if (returned.common & kHarvestCommonName) {
    const size_t nameAt = record.reserve(name.size() + 1);
    record.putAt(nameAt, name.data(), name.size());
    out[nameAt + name.size()] = '\0';
    const HarvestNameRef ref{static_cast<int32_t>(nameAt - nameRefAt),
                             static_cast<uint32_t>(name.size() + 1)};
    record.putAt(nameRefAt, &ref, sizeof ref);
  }
  std::memset(out + record.size(), 0, length - record.size());
  const auto length32 = static_cast<uint32_t>(length);
  record.putAt(lengthAt, &length32, sizeof length32);
  return length;
}

HarvestCursor::HarvestCursor(int directoryFd) : fd_(directoryFd) {}

int dirharvest(HarvestCursor& cursor, const HarvestRequest& request, void* buffer, size_t size) {
  auto* out = static_cast<unsigned char*>(buffer);
  size_t used = 0;
  int count = 0;
  const unsigned mask = StatxMask(request);
  for (;;) {
    if (cursor.next_ >= cursor.end_) {
      if (cursor.exhausted_) break;
      if (cursor.entries_.empty()) cursor.entries_.resize(kEntriesSize);
      ssize_t n = ::getdents64(cursor.fd_, cursor.entries_.data(), cursor.entries_.size());
      if (n < 0) {
        // Hand out what is already packed; the failure shows again on the next call.
        if (count > 0) break;
        return -1;
      }
      if (n == 0) {
        cursor.exhausted_ = true;
        break;
      }
      cursor.next_ = 0;
      cursor.end_ = static_cast<size_t>(n);
    }

    DirentReader reader(cursor.entries_.data() + cursor.next_, cursor.end_ - cursor.next_);
    DirentRecord entry;
    if (!reader.Next(&entry)) {
      // Records that make no sense cannot be stepped over: the rest of this read is lost.
      cursor.next_ = cursor.end_;
      if (count > 0) break;
      errno = EIO;
      return -1;
    }
    if (entry.name == "." || entry.name == "..") {
      cursor.next_ += reader.consumed();
      continue;
    }
    struct statx stx {};
    int statError = 0;
    if (mask && ::statx(cursor.fd_, entry.name.data(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
                        mask, &stx) != 0) {
      statError = errno;
    }
    const size_t length =
        PackHarvestRecord(entry.name, stx, statError, request, out + used, size - used);
    if (length == 0) {
      if (count == 0) {
        errno = EINVAL;
        return -1;
      }
      break;  // the entry stays pending for the next call
    }
    used += length;
    ++count;
    cursor.next_ += reader.consumed();
  }
  return count;
}

}  // namespace vx
