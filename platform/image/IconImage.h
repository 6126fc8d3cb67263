// platform/image: the device's image services: icon rendering, scaling and PNG encoding.
// Uses platform/bundle and platform/files.
//
// Icons: rendering a bundle's home-screen icon, and encoding images as PNG.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/types/PlistValue.h"

namespace vx {

class BundleHandle;

// An 8-bit RGBA image.
struct IconImage {
  uint32_t width = 0;
  uint32_t height = 0;
  std::vector<uint8_t> rgba;  // width * height * 4 bytes, rows top to bottom
};

// Home-screen icons are this many pixels wide and high.
inline constexpr uint32_t kHomeScreenIconSize = 120;
// Larger images are refused rather than decoded: no icon needs them, and a forged header
// must not make the decoder allocate gigabytes.
inline constexpr uint32_t kMaxDecodedDimension = 4096;

// The bundle's home-screen icon at 120 by 120: the largest PNG its information list names
// ("KBBundleIconFile", "KBBundleIconFiles" or "KBBundleIcons"), scaled; or, when it names
// none that exists, a generated one (the app's initial on a colour derived from its
// identifier). Nothing when the chosen icon cannot be decoded.
namespace IconRenderer {
std::optional<IconImage> homeScreenIcon(const BundleHandle& bundle);
}

// The icon files, relative to the bundle, that an information list names, as the renderer
// looks for them: each name with ".png" added when missing and its higher-resolution
// variants; names that would leave the bundle are ignored.
std::set<std::string> IconFileNames(const PlistDictionary* info);

// Resamples to `width` by `height`: area averaging where the image shrinks, bilinear where
// it grows, on premultiplied colour so that transparent pixels do not darken the edges.
IconImage ScaleImage(const IconImage& image, uint32_t width, uint32_t height);

// A square icon for a bundle that names none: the first letter or digit of `name` (of
// `identifier` when the name has none) on a colour derived from `identifier`, the same for
// the same identifier in every run.
IconImage GenerateIcon(const std::string& identifier, const std::string& name, uint32_t size);

// Encodes images into a growable byte buffer.
class ImageEncoder {
 public:
  // Nothing for a type other than "public.png" or a count other than 1.
  static std::unique_ptr<ImageEncoder> create(std::vector<uint8_t>* buffer,
                                              const std::string& typeIdentifier, size_t count);
  void addImage(const IconImage& image);
  // Appends the encoded images to the buffer; false, with the buffer untouched, when they
  // cannot be encoded or their number is not the one promised at creation.
  bool finalize();

 private:
  ImageEncoder(std::vector<uint8_t>* buffer, size_t count) : buffer_(buffer), count_(count) {}
  std::vector<uint8_t>* buffer_;
  size_t count_;
  std::vector<IconImage> images_;
};

// Decodes a PNG file's bytes into 8-bit RGBA, whatever its colour type and bit depth;
// nothing when they are no valid PNG or exceed kMaxDecodedDimension.
std::optional<IconImage> DecodePNG(const std::vector<uint8_t>& bytes);
// The dimensions a PNG file's header declares, without decoding the image.
std::optional<std::pair<uint32_t, uint32_t>> PNGDimensions(const std::vector<uint8_t>& bytes);
// Appends the PNG encoding of `image` to `out`; false when the image is malformed.
bool EncodePNG(const IconImage& image, std::vector<uint8_t>* out);

}  // namespace vx
