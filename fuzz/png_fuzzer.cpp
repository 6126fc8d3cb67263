// Icons come from bundles a user installed: a hostile PNG must be refused, never crash.
#include <cstdint>
#include <vector>

#include "platform/image/IconImage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<uint8_t> bytes(data, data + size);
  if (auto image = vx::DecodePNG(bytes)) {
    if (image->rgba.size() != size_t{image->width} * image->height * 4) __builtin_trap();
    (void)vx::ScaleImage(*image, vx::kHomeScreenIconSize, vx::kHomeScreenIconSize);
  }
  return 0;
}
