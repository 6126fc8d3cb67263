// What the device offers a migration, asked without changing it: whether the old layout and
// the workspace share a file system (else every move is a copy), the room left there, user
// extended attributes, and whether the running user may write where the run writes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vx::host {

struct DeviceChecks {
  // The directories asked about: the nearest existing one at or above each location.
  std::string oldRoot;
  std::string workspace;
  bool sameFileSystem = false;
  uint64_t freeBytes = 0;  // for the running user, on the workspace's file system
  uint64_t freeInodes = 0;
  bool userExtendedAttributes = false;
  bool writable = false;
  std::vector<std::string> problems;  // readable reasons for each check that failed
};

DeviceChecks CheckDevice(const std::string& oldRoot, const std::string& workspace);

// Whether the device's home location (which holds the old layout and the current one) is
// there at all. A root without it, such as an ordinary machine's /, has nothing to migrate,
// and a run there would only make the device's directories where none belong. Anything but a
// plain absence counts as there, so that the run looks and reports.
bool HoldsDeviceLayout(const std::string& home);

}  // namespace vx::host
