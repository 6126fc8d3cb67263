// platform/plist: the device's property-list files. Uses platform/files and the shared types.
//
// Property-list files: read in either encoding (detected from the bytes), written as XML
// by default, always atomically.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "support/types/PlistValue.h"

namespace vx {

enum class PlistFormat { XML, Binary };

// Nothing when the bytes are not a property list, with why in `reason`; a list that nests
// deeper or holds more objects than CheckPropertyListBounds allows is refused unparsed.
std::optional<PlistValue> ParsePropertyList(std::span<const uint8_t> bytes,
                                            std::string* reason = nullptr);
std::vector<uint8_t> SerializePropertyList(const PlistValue& value,
                                           PlistFormat format = PlistFormat::XML);

// Nothing when the file is missing, unreadable, not a property list or (for the dictionary
// form) not a dictionary at its top level.
std::optional<PlistValue> ReadPropertyListFile(const std::string& path);
std::optional<PlistDictionary> ReadPropertyListDictionary(const std::string& path);

// Atomic: the file holds the old content or the new one, never a part. False with the
// errno in `error` on failure.
bool WritePropertyListFile(const std::string& path, const PlistValue& value,
                           PlistFormat format = PlistFormat::XML, int* error = nullptr);

}  // namespace vx
