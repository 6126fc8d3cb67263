#include <algorithm>
#include <cmath>

#include "platform/image/IconImage.h"

namespace vx {
namespace {

struct Tap {
  uint32_t source;
  float weight;
};

// For each destination index, the source indices it draws from and their weights (summing
// to 1): the covered span when shrinking, the two nearest centres when growing.
std::vector<std::vector<Tap>> Taps(uint32_t sourceSize, uint32_t destinationSize) {
  std::vector<std::vector<Tap>> taps(destinationSize);
  const double scale = static_cast<double>(sourceSize) / destinationSize;
  for (uint32_t o = 0; o < destinationSize; ++o) {
    if (scale >= 1.0) {
      const double start = o * scale;
      const double end = start + scale;
      for (auto i = static_cast<uint32_t>(start); i < sourceSize && i < end; ++i) {
        double covered = std::min<double>(end, i + 1) - std::max<double>(start, i);
        if (covered > 0) taps[o].push_back({i, static_cast<float>(covered / scale)});
      }
    } else {
      const double centre = std::clamp((o + 0.5) * scale - 0.5, 0.0, sourceSize - 1.0);
      const auto i0 = static_cast<uint32_t>(centre);
      const uint32_t i1 = std::min(i0 + 1, sourceSize - 1);
      const auto f = static_cast<float>(centre - i0);
      taps[o].push_back({i0, 1.0f - f});
      taps[o].push_back({i1, f});
    }
  }
  return taps;
}

}  // namespace

IconImage ScaleImage(const IconImage& image, uint32_t width, uint32_t height) {
  IconImage out;
  out.width = width;
  out.height = height;
  out.rgba.assign(static_cast<size_t>(width) * height * 4, 0);
  if (image.width == 0 || image.height == 0 || width == 0 || height == 0 ||
      image.rgba.size() != static_cast<size_t>(image.width) * image.height * 4) {
    return out;
  }

  std::vector<float> premultiplied(image.rgba.size());
  for (size_t p = 0; p < image.rgba.size(); p += 4) {
    const float alpha = image.rgba[p + 3] / 255.0f;
    for (int c = 0; c < 3; ++c) premultiplied[p + c] = image.rgba[p + c] * alpha;
    premultiplied[p + 3] = image.rgba[p + 3];
  }

  // Rows first, then columns: two one-dimensional passes.
  const auto columnTaps = Taps(image.width, width);
  std::vector<float> wide(static_cast<size_t>(width) * image.height * 4, 0.0f);
  for (uint32_t y = 0; y < image.height; ++y) {
    for (uint32_t x = 0; x < width; ++x) {
      float* d = &wide[(static_cast<size_t>(y) * width + x) * 4];
      for (const Tap& tap : columnTaps[x]) {
        const float* s = &premultiplied[(static_cast<size_t>(y) * image.width + tap.source) * 4];
        for (int c = 0; c < 4; ++c) d[c] += s[c] * tap.weight;
      }
    }
  }

  const auto rowTaps = Taps(image.height, height);
  for (uint32_t y = 0; y < height; ++y) {
    for (uint32_t x = 0; x < width; ++x) {
      float sum[4] = {0, 0, 0, 0};
      for (const Tap& tap : rowTaps[y]) {
        const float* s = &wide[(static_cast<size_t>(tap.source) * width + x) * 4];
        for (int c = 0; c < 4; ++c) sum[c] += s[c] * tap.weight;
      }
      uint8_t* d = &out.rgba[(static_cast<size_t>(y) * width + x) * 4];
      const float alpha = std::clamp(sum[3], 0.0f, 255.0f);
      d[3] = static_cast<uint8_t>(std::lround(alpha));
      for (int c = 0; c < 3; ++c) {
        const float colour = alpha > 0 ? sum[c] * 255.0f / alpha : 0.0f;
        d[c] = static_cast<uint8_t>(std::lround(std::clamp(colour, 0.0f, 255.0f)));
      }
    }
  }
  return out;
}

}  // namespace vx
