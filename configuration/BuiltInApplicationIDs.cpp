#include "configuration/VXGlobalConfiguration.h"

namespace vx {

// Three separately locked reads, so the union is not a snapshot of one instant; the
// disk-image part is read afresh on every call because images come and go.
IdentifierSet VXGlobalConfiguration::builtInApplicationBundleIDs() {
  IdentifierSet identifiers;
  for (const BundleMapRef& map : {systemAppBundleIDToInfoMap(), internalAppBundleIDToInfoMap()}) {
    if (!map) continue;
    for (const auto& entry : *map) identifiers.insert(entry.first);
  }
  for (const auto& entry : diskImageAppBundleIDToInfoMap()) identifiers.insert(entry.first);
  return identifiers;
}

}  // namespace vx
