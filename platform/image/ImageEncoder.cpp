#include "platform/image/IconImage.h"

namespace vx {

namespace {
constexpr const char* kPNGType = "public.png";
}

std::unique_ptr<ImageEncoder> ImageEncoder::create(std::vector<uint8_t>* buffer,
                                                   const std::string& typeIdentifier,
                                                   size_t count) {
  // A PNG file holds one image; other types have no encoder here.
  if (!buffer || typeIdentifier != kPNGType || count != 1) return nullptr;
  return std::unique_ptr<ImageEncoder>(new ImageEncoder(buffer, count));
}

void ImageEncoder::addImage(const IconImage& image) { images_.push_back(image); }

bool ImageEncoder::finalize() {
  if (images_.size() != count_) return false;
  return EncodePNG(images_.front(), buffer_);
}

}  // namespace vx
