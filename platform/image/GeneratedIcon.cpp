#include <algorithm>
#include <cctype>
#include <cmath>

#include "platform/image/IconImage.h"

namespace vx {
namespace {

// 5 by 7 glyphs, one byte a row, the leftmost pixel in bit 4.
constexpr uint8_t kLetters[26][7] = {
    {0x0E, 0x11, 0x11, 0x1F, 0x11, 0x11, 0x11}, {0x1E, 0x11, 0x11, 0x1E, 0x11, 0x11, 0x1E},
    {0x0E, 0x11, 0x10, 0x10, 0x10, 0x11, 0x0E}, {0x1C, 0x12, 0x11, 0x11, 0x11, 0x12, 0x1C},
    {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x1F}, {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x10},
    {0x0E, 0x11, 0x10, 0x17, 0x11, 0x11, 0x0F}, {0x11, 0x11, 0x11, 0x1F, 0x11, 0x11, 0x11},
    {0x0E, 0x04, 0x04, 0x04, 0x04, 0x04, 0x0E}, {0x07, 0x02, 0x02, 0x02, 0x02, 0x12, 0x0C},
    {0x11, 0x12, 0x14, 0x18, 0x14, 0x12, 0x11}, {0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x1F},
    {0x11, 0x1B, 0x15, 0x15, 0x11, 0x11, 0x11}, {0x11, 0x11, 0x19, 0x15, 0x13, 0x11, 0x11},
    {0x0E, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E}, {0x1E, 0x11, 0x11, 0x1E, 0x10, 0x10, 0x10},
    {0x0E, 0x11, 0x11, 0x11, 0x15, 0x12, 0x0D}, {0x1E, 0x11, 0x11, 0x1E, 0x14, 0x12, 0x11},
    {0x0F, 0x10, 0x10, 0x0E, 0x01, 0x01, 0x1E}, {0x1F, 0x04, 0x04, 0x04, 0x04, 0x04, 0x04},
    {0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E}, {0x11, 0x11, 0x11, 0x11, 0x11, 0x0A, 0x04},
    {0x11, 0x11, 0x11, 0x15, 0x15, 0x15, 0x0A}, {0x11, 0x11, 0x0A, 0x04, 0x0A, 0x11, 0x11},
    {0x11, 0x11, 0x11, 0x0A, 0x04, 0x04, 0x04}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x10, 0x1F},
};
constexpr uint8_t kDigits[10][7] = {
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C},
};
constexpr int kGlyphWidth = 5;
constexpr int kGlyphHeight = 7;

const uint8_t* GlyphFor(char c) {
  if (c >= 'A' && c <= 'Z') return kLetters[c - 'A'];
  if (c >= '0' && c <= '9') return kDigits[c - '0'];
  return nullptr;
}

char Initial(const std::string& text) {
  for (char c : text) {
    if (std::isalnum(static_cast<unsigned char>(c))) {
      return static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
  }
  return '\0';
}

// FNV-1a: unlike std::hash, the same in every build, so an app keeps its colour.
uint32_t StableHash(const std::string& text) {
  uint32_t hash = 2166136261u;
  for (unsigned char c : text) hash = (hash ^ c) * 16777619u;
  return hash;
}

struct Colour {
  float r, g, b;
};

// A fixed saturation and value keep every hue dark enough for a white initial.
Colour ColourFor(const std::string& identifier) {
  const float hue = static_cast<float>(StableHash(identifier) % 360) / 60.0f;
  const float value = 0.78f;
  const float chroma = value * 0.6f;
  const float x = chroma * (1.0f - std::fabs(std::fmod(hue, 2.0f) - 1.0f));
  const float m = value - chroma;
  const int sector = static_cast<int>(hue);
  const Colour table[6] = {{chroma, x, 0}, {x, chroma, 0}, {0, chroma, x},
                           {0, x, chroma}, {x, 0, chroma}, {chroma, 0, x}};
  const Colour c = table[sector % 6];
  return {c.r + m, c.g + m, c.b + m};
}

void Fill(IconImage& image, const Colour& colour) {
  for (uint32_t y = 0; y < image.height; ++y) {
    // A slight fall of light from the top gives the flat square some depth.
    const float shade = 1.08f - 0.16f * static_cast<float>(y) / static_cast<float>(image.height);
    const uint8_t rgb[3] = {
        static_cast<uint8_t>(std::lround(std::fmin(colour.r * shade, 1.0f) * 255)),
        static_cast<uint8_t>(std::lround(std::fmin(colour.g * shade, 1.0f) * 255)),
        static_cast<uint8_t>(std::lround(std::fmin(colour.b * shade, 1.0f) * 255))};
    for (uint32_t x = 0; x < image.width; ++x) {
      uint8_t* p = &image.rgba[(static_cast<size_t>(y) * image.width + x) * 4];
      p[0] = rgb[0];
      p[1] = rgb[1];
      p[2] = rgb[2];
      p[3] = 255;
    }
  }
}

void DrawGlyph(IconImage& image, const uint8_t* glyph) {
  // The glyph fills about half the icon's width, centred.
  const uint32_t cell = std::max<uint32_t>(1, image.width / (kGlyphWidth * 2));
  const uint32_t left = (image.width - cell * kGlyphWidth) / 2;
  const uint32_t top = (image.height - cell * kGlyphHeight) / 2;
  for (uint32_t y = 0; y < cell * kGlyphHeight && top + y < image.height; ++y) {
    const uint8_t row = glyph[y / cell];
    for (uint32_t x = 0; x < cell * kGlyphWidth && left + x < image.width; ++x) {
      if (!(row & (0x10 >> (x / cell)))) continue;
      uint8_t* p = &image.rgba[(static_cast<size_t>(top + y) * image.width + left + x) * 4];
      p[0] = p[1] = p[2] = 255;
    }
  }
}

}  // namespace

IconImage GenerateIcon(const std::string& identifier, const std::string& name, uint32_t size) {
  IconImage image;
  image.width = size;
  image.height = size;
  image.rgba.assign(static_cast<size_t>(size) * size * 4, 0);
  Fill(image, ColourFor(identifier));
  char initial = Initial(name);
  if (!initial) initial = Initial(identifier);
  if (const uint8_t* glyph = GlyphFor(initial); glyph && size >= kGlyphHeight) {
    DrawGlyph(image, glyph);
  }
  return image;
}

}  // namespace vx
