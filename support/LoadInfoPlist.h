// Reading a bundle's information dictionary, whole or only the entries a caller names.
#pragma once

#include <optional>
#include <set>
#include <string>

#include "support/types/FileURL.h"
#include "support/types/PlistValue.h"

namespace vx {

// A fresh dictionary the caller owns, or nothing on any failure (logged, never an error).
// With `keys`, at most the entries named there; without, the whole dictionary less the
// platform's "KBBundleInfoPlistURL" entry. Every bundle read of the process is serialised
// by one lock, taken after any lock the caller holds.
std::optional<PlistDictionary> VXLoadInfoPlist(const FileURL& bundleURL,
                                               const std::set<std::string>* keys);

}  // namespace vx
