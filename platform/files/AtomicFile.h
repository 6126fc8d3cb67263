// Whole-file reads and crash-safe whole-file writes.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vx {

// Writes `bytes` to a temporary file in the target's directory, fsyncs it, renames it over
// the target and fsyncs the directory: after a crash the target holds the old content or
// the new, never a part. On failure returns false with the errno in `error`; the temporary
// file is removed and the target is untouched.
bool WriteFileAtomically(const std::string& path, std::span<const uint8_t> bytes, int* error,
                         mode_t mode = 0644);

// What a whole-file read takes at most: the size a file states is only a hint, and a sparse
// file of a terabyte must fail the read rather than the reader.
inline constexpr size_t kMaxWholeFileSize = size_t{256} << 20;

// Reads a regular file whole; nullopt with the errno in `error` on failure (EFBIG past
// kMaxWholeFileSize). A final link is followed (the caller's path is trusted; inside a tree
// that is not, use ReadRegularFileAt); a FIFO, socket or device fails with EINVAL at once, a
// directory with EISDIR.
std::optional<std::vector<uint8_t>> ReadFileContents(const std::string& path, int* error);

// Reads the regular file `name` in `dirfd` (OpenRegularFileAt: no final link, no FIFO or
// device) whole, at most `limit` bytes (EFBIG beyond): the reader for every small file
// someone else may write, a container's record or a preference domain.
std::optional<std::vector<uint8_t>> ReadRegularFileAt(int dirfd, const char* name, size_t limit,
                                                      int* error = nullptr);

}  // namespace vx
