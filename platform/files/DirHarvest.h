// Bulk attribute listing of a directory: one call yields the name, type and sizes of many
// entries, packed as records into the caller's buffer, so that a measurement of a large tree
// needs no status call of its own per entry.
//
// Record layout, every field in host byte order and read with memcpy (records are 8-byte
// aligned, fields inside them are not):
//
//   uint32_t          length          bytes from the record's start to the next record
//   HarvestAttributes returned        only when the request asks for kHarvestCommonReturned
//   -- then, only for attributes that were both requested and returned, in this order --
//   uint32_t          error           kHarvestCommonError: errno of the entry's status call
//   HarvestNameRef    name            kHarvestCommonName
//   uint32_t          objectType      kHarvestCommonObjectType: a HarvestObjectType
//   uint64_t          fileID          kHarvestCommonFileID: the inode number
//   for a directory:
//   uint32_t          entryCount      kHarvestDirEntryCount (never returned on Linux)
//   for any other object:
//   uint32_t          linkCount       kHarvestFileLinkCount
//   uint64_t          allocatedSize   kHarvestFileAllocatedSize: stx_blocks * 512
//   -- the name's bytes, NUL included, wherever its reference points --
//
// A record whose entry could not be examined (it vanished, or the directory cannot be
// searched) carries its error and its name and nothing else. Linux cannot tell how many
// entries a directory holds without reading it, so the entry count is never returned and a
// measuring caller has to open every directory.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace vx {

// The requested and the returned attribute groups.
struct HarvestAttributes {
  uint32_t common = 0;
  uint32_t volume = 0;  // never returned; kept so the set has the usual five groups
  uint32_t directory = 0;
  uint32_t file = 0;
  uint32_t fork = 0;  // never returned
};
using HarvestRequest = HarvestAttributes;

inline constexpr uint32_t kHarvestCommonReturned = 1u << 0;
inline constexpr uint32_t kHarvestCommonError = 1u << 1;
inline constexpr uint32_t kHarvestCommonName = 1u << 2;
inline constexpr uint32_t kHarvestCommonObjectType = 1u << 3;
inline constexpr uint32_t kHarvestCommonFileID = 1u << 4;
inline constexpr uint32_t kHarvestDirEntryCount = 1u << 0;
inline constexpr uint32_t kHarvestFileLinkCount = 1u << 0;
inline constexpr uint32_t kHarvestFileAllocatedSize = 1u << 1;

// `offset` counts from the reference's own first byte; `length` includes the NUL.
struct HarvestNameRef {
  int32_t offset = 0;
  uint32_t length = 0;
};

enum HarvestObjectType : uint32_t {
  kHarvestNone = 0,
  kHarvestRegular = 1,
  kHarvestDirectory = 2,
  kHarvestBlockDevice = 3,
  kHarvestCharDevice = 4,
  kHarvestSymlink = 5,
  kHarvestSocket = 6,
  kHarvestFifo = 7,
};

// The reading position in one directory. getdents64 hands out more entries than may fit
// in the caller's buffer; the ones left over wait here for the next call. The descriptor is
// borrowed: it must stay open while the cursor is used, and the cursor must not be shared
// between descriptors.
class HarvestCursor {
 public:
  explicit HarvestCursor(int directoryFd);
  HarvestCursor(const HarvestCursor&) = delete;
  HarvestCursor& operator=(const HarvestCursor&) = delete;

 private:
  friend int dirharvest(HarvestCursor&, const HarvestRequest&, void*, size_t);
  int fd_;
  std::vector<unsigned char> entries_;  // raw getdents64 output
  size_t next_ = 0;                     // first entry not yet handed out
  size_t end_ = 0;                      // bytes of `entries_` that hold entries
  bool exhausted_ = false;
};

// Fills `buffer` with as many records as fit and returns their number; 0 when the
// directory is exhausted; -1 with errno when it cannot be read (EINVAL when a single
// record does not fit an empty buffer). "." and ".." are never listed.
int dirharvest(HarvestCursor& cursor, const HarvestRequest& request, void* buffer, size_t size);

// Packs the record of one entry, named `name` (any length) with the status `stx` or the
// failure `statError`, into `buffer`; returns its length, or 0 when it needs more than
// `room` bytes. What dirharvest does for each entry, open to tests and the fuzzer.
size_t PackHarvestRecord(std::string_view name, const struct statx& stx, int statError,
                         const HarvestRequest& request, void* buffer, size_t room);

}  // namespace vx
