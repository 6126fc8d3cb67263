// The record of the running system's version: the device's etc/os-release (under the
// device root) as a dictionary of its entries. Its build version is BUILD_ID, else
// VERSION_ID.
#pragma once

#include <optional>
#include <string>

#include "support/types/PlistValue.h"

namespace vx {

// Nothing when the device has no readable etc/os-release.
std::optional<PlistDictionary> SystemVersionRecord();
std::optional<std::string> SystemBuildVersion(const PlistDictionary& record);

}  // namespace vx
