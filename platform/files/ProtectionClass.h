// Data-protection classes on Linux. The class of a file or directory is kept in its
// extended attribute "user.com.tarsel.velotrix.protection-class" as a 4-byte signed integer
// in native byte order. An item without the attribute reports class
// kDefaultProtectionClass (0): no class assigned, protected by its permissions alone.
#pragma once

namespace vx {

inline constexpr const char* kProtectionClassAttribute = "user.com.tarsel.velotrix.protection-class";
inline constexpr int kDefaultProtectionClass = 0;

// Returns the class, or -1 with errno.
int GetProtectionClass(int fd);
// Returns 0, or -1 with errno (EINVAL for a negative class).
int SetProtectionClass(int fd, int protectionClass);

}  // namespace vx
