#include <gtest/gtest.h>

#include "platform/BundleHandle.h"
#include "platform/IconImage.h"
#include "platform/PlistFile.h"
#include "support/TempDir.h"

namespace vx {
namespace {

IconImage Solid(uint32_t width, uint32_t height, uint8_t r, uint8_t g, uint8_t b, uint8_t a = 255) {
  IconImage image{width, height, {}};
  for (size_t i = 0; i < size_t{width} * height; ++i) {
    image.rgba.insert(image.rgba.end(), {r, g, b, a});
  }
  return image;
}

std::vector<uint8_t> Png(const IconImage& image) {
  std::vector<uint8_t> bytes;
  EXPECT_TRUE(EncodePNG(image, &bytes));
  return bytes;
}

std::vector<uint8_t> FromHex(const std::string& hex) {
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

std::vector<uint8_t> Pixel(const IconImage& image, uint32_t x, uint32_t y) {
  auto p = image.rgba.begin() + (size_t{y} * image.width + x) * 4;
  return {p, p + 4};
}

void Write(const std::string& path, const std::vector<uint8_t>& bytes) {
  test::WriteFile(path, std::string(bytes.begin(), bytes.end()));
}

std::optional<IconImage> IconOf(const std::string& app, const PlistDictionary& info) {
  test::MakeDirs(app);
  EXPECT_TRUE(WritePropertyListFile(app + "/Info.plist", PlistValue(info)));
  auto handle = BundleHandle::open(FileURL::fileURLWithPath(app, true));
  return handle ? IconRenderer::homeScreenIcon(*handle) : std::nullopt;
}

TEST(IconTest, LargestNamedIconIsChosenAndScaled) {
  test::TempDir dir;
  Write(dir / "A.app/Icon.png", Png(Solid(60, 60, 255, 0, 0)));
  Write(dir / "A.app/Icon@2x.png", Png(Solid(180, 180, 0, 0, 255)));
  Write(dir / "A.app/Other.png", Png(Solid(90, 90, 0, 255, 0)));
  PlistDictionary primary{{"KBBundleIconFiles", PlistArray{PlistValue("Icon")}}};
  PlistDictionary icons{{"KBBundlePrimaryIcon", PlistValue(primary)}};
  auto icon = IconOf(dir / "A.app", {{"KBBundleIcons", PlistValue(icons)},
                                     {"KBBundleIconFile", PlistValue("Other.png")}});
  ASSERT_TRUE(icon);
  EXPECT_EQ(icon->width, 120u);
  EXPECT_EQ(icon->height, 120u);
  EXPECT_EQ(Pixel(*icon, 60, 60), (std::vector<uint8_t>{0, 0, 255, 255}));
}

TEST(IconTest, GeneratedIconIsDeterministicPerIdentifier) {
  test::TempDir dir;
  auto one = IconOf(dir / "One.app", {{"KBBundleIdentifier", PlistValue("com.example.mail")}});
  auto again = IconOf(dir / "Again.app", {{"KBBundleIdentifier", PlistValue("com.example.mail")},
                                          {"KBBundleDisplayName", PlistValue("one")}});
  auto other = IconOf(dir / "Other.app", {{"KBBundleIdentifier", PlistValue("com.example.maps")}});
  ASSERT_TRUE(one && again && other);
  EXPECT_EQ(one->rgba, again->rgba);
  EXPECT_NE(Pixel(*one, 2, 2), Pixel(*other, 2, 2));
  // The "O" of "One": its left stroke is white, its hollow keeps the background.
  EXPECT_EQ(Pixel(*one, 31, 60), (std::vector<uint8_t>{255, 255, 255, 255}));
  EXPECT_EQ(Pixel(*one, 60, 60), Pixel(*one, 2, 60));
}

TEST(IconTest, UndecodableNamedIconIsAFailure) {
  test::TempDir dir;
  std::vector<uint8_t> good = Png(Solid(64, 64, 1, 2, 3));
  std::vector<uint8_t> truncated(good.begin(), good.begin() + good.size() / 2);
  // A valid header (with its checksum) that claims a 100000-pixel-wide image.
  std::vector<uint8_t> huge = good;
  huge[17] = 0x01;
  huge[18] = 0x86;
  huge[19] = 0xA0;
  uint32_t crc = 0xFFFFFFFF;
  for (size_t i = 12; i < 29; ++i) {
    crc ^= huge[i];
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1)));
  }
  crc = ~crc;
  for (int k = 0; k < 4; ++k) huge[29 + k] = static_cast<uint8_t>(crc >> (24 - 8 * k));
  const std::vector<std::vector<uint8_t>> bad = {
      truncated, huge, FromHex("89504e470d0a1a0a"), {'n', 'o', 't', ' ', 'p', 'n', 'g'}};
  for (size_t i = 0; i < bad.size(); ++i) {
    const std::string app = dir / ("Bad" + std::to_string(i) + ".app");
    Write(app + "/Icon.png", bad[i]);
    EXPECT_FALSE(IconOf(app, {{"KBBundleIconFile", PlistValue("Icon")}})) << i;
    EXPECT_FALSE(DecodePNG(bad[i])) << i;
  }
}

TEST(IconTest, CodecRoundTripsAndExpandsEveryPixelFormat) {
  std::vector<uint8_t> buffer;
  EXPECT_FALSE(ImageEncoder::create(&buffer, "public.jpeg", 1));
  EXPECT_FALSE(ImageEncoder::create(&buffer, "public.png", 2));

  IconImage image = Solid(3, 2, 10, 20, 30, 40);
  image.rgba[0] = 200;
  auto encoder = ImageEncoder::create(&buffer, "public.png", 1);
  encoder->addImage(image);
  ASSERT_TRUE(encoder->finalize());
  auto decoded = DecodePNG(buffer);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->rgba, image.rgba);

  // A palette with transparency comes out as RGBA like any other format.
  auto palette = DecodePNG(FromHex(
      "89504e470d0a1a0a0000000d4948445200000002000000010803000000c3fc8fb800000006504c5445ff0000"
      "0000ff6ca1fd8e0000000274524e53ff80080fb36a0000000b49444154789c636060040000040002bf7a3f4a"
      "0000000049454e44ae426082"));
  ASSERT_TRUE(palette);
  EXPECT_EQ(palette->rgba, (std::vector<uint8_t>{255, 0, 0, 255, 0, 0, 255, 128}));
}

TEST(IconTest, ScalingAveragesPremultipliedColour) {
  // Opaque white and fully transparent black, alternating: halving must give white at
  // half coverage, not grey.
  IconImage checker = Solid(4, 4, 255, 255, 255);
  for (size_t p = 0; p < 16; ++p) {
    if ((p + p / 4) % 2) std::fill_n(checker.rgba.begin() + p * 4, 4, 0);
  }
  IconImage half = ScaleImage(checker, 2, 2);
  EXPECT_EQ(Pixel(half, 1, 1), (std::vector<uint8_t>{255, 255, 255, 128}));
}

}  // namespace
}  // namespace vx
