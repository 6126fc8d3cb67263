// Attribute names on Linux. An unprivileged process may only keep attributes in the "user."
// namespace, so every attribute name of the system (for example
// "com.tarsel.velotrixd.placeholder") is stored as "user.<name>" on disk. A file system
// without user attributes (a tmpfs mounted without them) refuses with ENOTSUP/EOPNOTSUPP.
#pragma once

#include <string>
#include <string_view>

namespace vx {

inline std::string LinuxAttributeName(std::string_view name) {
  return "user." + std::string(name);
}

}  // namespace vx
