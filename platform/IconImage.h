// Icons: rendering a bundle's home-screen icon, and encoding images as PNG.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vx {

class BundleHandle;

// An 8-bit RGBA image.
struct IconImage {
  uint32_t width = 0;
  uint32_t height = 0;
  std::vector<uint8_t> rgba;  // width * height * 4 bytes, rows top to bottom
};

// The bundle's home-screen icon at 120 by 120: the largest PNG its information list names
// ("KBBundleIconFile", "KBBundleIconFiles" or "KBBundleIcons"), scaled; or, when it names
// none, a generated one (the app's initial on a colour derived from its identifier).
// Nothing when a named icon cannot be decoded.
namespace IconRenderer {
std::optional<IconImage> homeScreenIcon(const BundleHandle& bundle);
}

// Encodes images into a growable byte buffer.
class ImageEncoder {
 public:
  // Nothing for a type other than "public.png" or a count other than 1.
  static std::unique_ptr<ImageEncoder> create(std::vector<uint8_t>* buffer,
                                              const std::string& typeIdentifier, size_t count);
  void addImage(const IconImage& image);
  // Encodes what was added; false when the images cannot be encoded.
  bool finalize();

 private:
  explicit ImageEncoder(std::vector<uint8_t>* buffer) : buffer_(buffer) {}
  std::vector<uint8_t>* buffer_;
  std::vector<IconImage> images_;
};

// Decodes a PNG file's bytes; nothing when they are no valid PNG.
std::optional<IconImage> DecodePNG(const std::vector<uint8_t>& bytes);

}  // namespace vx
