// Whole-file reads and crash-safe whole-file writes.
#pragma once

#include <sys/types.h>

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

// Reads a regular file whole; nullopt with the errno in `error` on failure. A final link is
// followed (the caller's path is trusted; inside a tree that is not, open the file with
// OpenBeneath or OpenRegularFileAt instead); a FIFO, socket or device fails with EINVAL at
// once, a directory with EISDIR.
std::optional<std::vector<uint8_t>> ReadFileContents(const std::string& path, int* error);

}  // namespace vx
