// Property lists come from the device (install maps, markers, bundles' information lists):
// any bytes must parse or be refused, and what parses must write back and read the same. It
// writes back as XML, the encoding the system writes: the library's binary writer makes an
// unreadable file of a string that is not UTF-8, which a device's XML list may hold.
#include <cstdint>
#include <span>

#include "platform/plist/PlistFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto value = vx::ParsePropertyList(std::span<const uint8_t>(data, size));
  if (!value) return 0;
  auto bytes = vx::SerializePropertyList(*value, vx::PlistFormat::XML);
  auto again = vx::ParsePropertyList(bytes);
  if (!again) __builtin_trap();
  (void)vx::Describe(*again);
  return 0;
}
