// Reading a whole file whose size its writer controls: the size it states is only a hint,
// since the file may grow while it is read, so the bound holds for what is read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace vx {

// Reads `fd` from its position to its end. `sizeHint` (the size fstat gave) sizes the first
// read; more than `limit` bytes fail with EFBIG. Nothing, with the errno in `error` when it
// is given, on failure.
std::optional<std::vector<uint8_t>> ReadBounded(int fd, size_t sizeHint, size_t limit,
                                                int* error = nullptr);

}  // namespace vx
