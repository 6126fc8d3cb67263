// What the plug-in reads from, and where it places things in, an old container. Its
// application could write anything there, a link or a FIFO under any name included, and
// could change it while we look, so a container is entered by descriptor, names are resolved
// beneath it without following links, and what is read must be a regular file of bounded
// size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/types/FileURL.h"
#include "support/types/PlistValue.h"

namespace vx {

inline constexpr const char* kStagingName = "Staging";
inline constexpr const char* kPayloadName = "Payload";
inline constexpr const char* kInfoPlistName = "Info.plist";
// Far more than any information list needs, small enough to refuse a planted giant.
inline constexpr size_t kInfoPlistSizeLimit = 8 << 20;

// The text of `bundle` relative to `container` when it names an entry directly in the
// container or in its "Staging/Payload"; nothing for any other place, ".." and "." included.
// Only the texts are compared: the caller resolves the result beneath the container.
std::optional<std::string> BundleLocationInContainer(std::string_view container,
                                                      std::string_view bundle);

// Reads the regular file at `relative` beneath the open directory `dirfd`, no link followed
// on the way or at the end, never waiting on a FIFO or device; at most `limit` bytes (EFBIG
// beyond). Nothing with the errno in `error` on failure; EINVAL for what is not a regular
// file.
std::optional<std::vector<uint8_t>> ReadRegularFileBeneath(int dirfd, std::string_view relative,
                                                           size_t limit, int* error);

// The information list of the bundle directory at `bundle` (the directory itself not a
// link), read as above; nothing when it is missing, unreadable or not a dictionary.
// `problem`, when given, says why there is nothing.
std::optional<PlistValue> ReadBundleInfo(const FileURL& bundle, std::string* problem = nullptr);
// The same for the bundle at `relative` beneath the open container `containerFd`, reached
// without a link anywhere on the way.
std::optional<PlistValue> ReadBundleInfoBeneath(int containerFd, const std::string& relative);

// The system's text for a failed read, naming what is not a regular file as such.
std::string DescribeReadFailure(int error);

}  // namespace vx
