// The SHA-256 digest of a file's content, and the chunked file reader beneath it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "support/types/FileURL.h"

namespace vx {

// 64 lowercase hexadecimal digits, or nothing when the file could not be read whole; the
// reason is written to the installer log.
std::optional<std::string> VXCreateSHA256Digest(const FileURL& url);

// Receives each chunk in file order; returns false to stop the read.
using FileChunkConsumer = std::function<bool(std::span<const uint8_t> chunk)>;

// Reads a regular file (anything else fails at once, without waiting) from start to end
// through one buffer of at most 65536 bytes. True when the whole file was read and the
// consumer accepted every chunk.
bool _ReadFile(const char* path, const FileChunkConsumer& consumer);

}  // namespace vx
