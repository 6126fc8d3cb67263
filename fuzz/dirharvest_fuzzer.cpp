// Directory records come from whatever file system serves the directory: a FUSE server can
// hand out any name of any length. The bytes are read as getdents64 output, and every record
// found is packed as dirharvest packs it, into a buffer of exactly the size it asks for.
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/files/DirHarvest.h"
#include "platform/files/DirentRecords.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A copy of its own size, so that a read past the end is caught.
  std::vector<unsigned char> bytes(data, data + size);
  vx::DirentReader reader(bytes.data(), bytes.size());
  vx::HarvestRequest request;
  request.common = vx::kHarvestCommonReturned | vx::kHarvestCommonError | vx::kHarvestCommonName |
                   vx::kHarvestCommonObjectType | vx::kHarvestCommonFileID;
  request.file = vx::kHarvestFileLinkCount | vx::kHarvestFileAllocatedSize;
  vx::DirentRecord record;
  while (reader.Next(&record)) {
    if (record.name.empty() || record.name.find('\0') != std::string_view::npos) std::abort();
    struct statx stx {};
    stx.stx_mask = STATX_TYPE | STATX_INO | STATX_NLINK | STATX_BLOCKS;
    stx.stx_mode = static_cast<uint16_t>(record.type) << 12;
    stx.stx_ino = record.inode;
    const size_t needed = vx::PackHarvestRecord(record.name, stx, 0, request, nullptr, 0);
    if (needed != 0) std::abort();  // nothing fits no room
    std::vector<unsigned char> out(4096 + record.name.size());
    const size_t length =
        vx::PackHarvestRecord(record.name, stx, 0, request, out.data(), out.size());
    if (length == 0 || length % 8 != 0) std::abort();
    std::vector<unsigned char> exact(length);
    if (vx::PackHarvestRecord(record.name, stx, 0, request, exact.data(), exact.size()) != length ||
        std::memcmp(exact.data(), out.data(), length) != 0) {
      std::abort();
    }
    if (vx::PackHarvestRecord(record.name, stx, 0, request, exact.data(), length - 1) != 0) {
      std::abort();
    }
  }
  if (reader.consumed() > bytes.size()) std::abort();
  return 0;
}
