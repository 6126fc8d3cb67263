#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "platform/bundle/BundleHandle.h"
#include "platform/image/IconImage.h"
#include "platform/plist/PlistFile.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using Bytes = std::vector<uint8_t>;

IconImage Solid(uint32_t width, uint32_t height, uint8_t r, uint8_t g, uint8_t b, uint8_t a = 255) {
  IconImage image{width, height, {}};
  for (size_t i = 0; i < size_t{width} * height; ++i) {
    image.rgba.insert(image.rgba.end(), {r, g, b, a});
  }
  return image;
}

std::string Png(const IconImage& image) {
  Bytes bytes;
  EXPECT_TRUE(EncodePNG(image, &bytes));
  return {bytes.begin(), bytes.end()};
}

Bytes Pixel(const IconImage& image, uint32_t x, uint32_t y) {
  auto p = image.rgba.begin() + (size_t{y} * image.width + x) * 4;
  return {p, p + 4};
}

std::optional<IconImage> IconOf(const std::string& app, const PlistDictionary& info) {
  test::MakeDirs(app);
  EXPECT_TRUE(WritePropertyListFile(app + "/Info.plist", PlistValue(info)));
  auto handle = BundleHandle::open(FileURL::fileURLWithPath(app, true));
  return handle ? IconRenderer::homeScreenIcon(*handle) : std::nullopt;
}

TEST(IconTest, HomeScreenIconIsTheLargestNamedOneOrGenerated) {
  test::TempDir dir;
  test::WriteFile(dir / "A.app/Icon.png", Png(Solid(60, 60, 255, 0, 0)));
  test::WriteFile(dir / "A.app/Icon@2x.png", Png(Solid(180, 180, 0, 0, 255)));
  test::WriteFile(dir / "A.app/Other.png", Png(Solid(90, 90, 0, 255, 0)));
  PlistDictionary primary{{"KBBundleIconFiles", PlistArray{PlistValue("Icon")}}};
  PlistDictionary icons{{"KBBundlePrimaryIcon", PlistValue(primary)}};
  auto icon = IconOf(dir / "A.app", {{"KBBundleIcons", PlistValue(icons)},
                                     {"KBBundleIconFile", PlistValue("Other.png")}});
  ASSERT_TRUE(icon);
  EXPECT_EQ(std::pair(icon->width, icon->height), std::pair(120u, 120u));
  EXPECT_EQ(Pixel(*icon, 60, 60), (Bytes{0, 0, 255, 255}));

  // A named icon that does not decode is a failure, never a generated icon.
  const std::string good = Png(Solid(64, 64, 1, 2, 3));
  const std::string bad[] = {good.substr(0, good.size() / 2),
                             Png(Solid(kMaxDecodedDimension + 1, 1, 1, 2, 3)),  // too wide
                             "\x89PNG\r\n\x1a\n", "not png"};
  for (const std::string& bytes : bad) {
    const std::string app = dir / ("Bad" + std::to_string(bytes.size()) + ".app");
    test::WriteFile(app + "/Icon.png", bytes);
    EXPECT_FALSE(IconOf(app, {{"KBBundleIconFile", PlistValue("Icon")}})) << bytes.size();
    EXPECT_FALSE(DecodePNG(Bytes(bytes.begin(), bytes.end()))) << bytes.size();
  }

  // Without icons one is generated, the same for every bundle of one identifier.
  auto one = IconOf(dir / "One.app", {{"KBBundleIdentifier", PlistValue("com.example.mail")}});
  auto again = IconOf(dir / "Again.app", {{"KBBundleIdentifier", PlistValue("com.example.mail")},
                                          {"KBBundleDisplayName", PlistValue("one")}});
  auto other = IconOf(dir / "Other.app", {{"KBBundleIdentifier", PlistValue("com.example.maps")}});
  ASSERT_TRUE(one && again && other);
  EXPECT_EQ(one->rgba, again->rgba);
  EXPECT_NE(Pixel(*one, 2, 2), Pixel(*other, 2, 2));
  // The "O" of "One": its left stroke is white, its hollow keeps the background.
  EXPECT_EQ(Pixel(*one, 31, 60), (Bytes{255, 255, 255, 255}));
  EXPECT_EQ(Pixel(*one, 60, 60), Pixel(*one, 2, 60));
}

TEST(IconTest, IconsAreReadBeneathTheBundleAsOpenedAndNeverThroughALink) {
  test::TempDir dir;
  const PlistDictionary info{{"KBBundleIconFile", PlistValue("Icon.png")}};
  test::WriteFile(dir / "outside.png", Png(Solid(60, 60, 255, 0, 0)));
  test::MakeDirs(dir / "Linked.app");
  ASSERT_EQ(::symlink((dir / "outside.png").c_str(), (dir / "Linked.app/Icon.png").c_str()), 0);
  auto linked = IconOf(dir / "Linked.app", info);
  ASSERT_TRUE(linked) << "a link is no icon: one is generated instead";
  EXPECT_NE(Pixel(*linked, 60, 60), (Bytes{255, 0, 0, 255}));

  // A bundle moved away after it was opened, and another put in its place, changes nothing.
  test::WriteFile(dir / "Swapped.app/Icon.png", Png(Solid(60, 60, 0, 255, 0)));
  ASSERT_TRUE(WritePropertyListFile(dir / "Swapped.app/Info.plist", PlistValue(info)));
  auto handle = BundleHandle::open(FileURL::fileURLWithPath(dir / "Swapped.app", true));
  ASSERT_TRUE(handle);
  std::filesystem::rename(dir / "Swapped.app", dir / "Moved.app");
  test::WriteFile(dir / "Swapped.app/Icon.png", Png(Solid(60, 60, 255, 0, 0)));
  auto swapped = IconRenderer::homeScreenIcon(*handle);
  ASSERT_TRUE(swapped);
  EXPECT_EQ(Pixel(*swapped, 60, 60), (Bytes{0, 255, 0, 255}));
}

TEST(IconTest, CodecAndScaling) {
  Bytes buffer;
  EXPECT_FALSE(ImageEncoder::create(&buffer, "public.jpeg", 1));
  EXPECT_FALSE(ImageEncoder::create(&buffer, "public.png", 2));
  IconImage image = Solid(3, 2, 10, 20, 30, 40);
  image.rgba[0] = 200;
  auto encoder = ImageEncoder::create(&buffer, "public.png", 1);
  encoder->addImage(image);
  ASSERT_TRUE(encoder->finalize());
  EXPECT_EQ(DecodePNG(buffer).value_or(IconImage{}).rgba, image.rgba);

  // A palette with transparency comes out as RGBA like any other format.
  Bytes palette;
  for (const char* at = "89504e470d0a1a0a0000000d4948445200000002000000010803000000c3fc8fb8"
                        "00000006504c5445ff00000000ff6ca1fd8e0000000274524e53ff80080fb36a0000"
                        "000b49444154789c636060040000040002bf7a3f4a0000000049454e44ae426082";
       *at; at += 2) {
    palette.push_back(static_cast<uint8_t>(std::stoi(std::string(at, 2), nullptr, 16)));
  }
  EXPECT_EQ(DecodePNG(palette).value_or(IconImage{}).rgba, (Bytes{255, 0, 0, 255, 0, 0, 255, 128}));

  // Opaque white and fully transparent black, alternating: halving must give white at half
  // coverage, not grey, as colour is averaged premultiplied.
  IconImage stripes = Solid(4, 4, 255, 255, 255);
  for (size_t p = 1; p < 16; p += 2) std::fill_n(stripes.rgba.begin() + p * 4, 4, 0);
  EXPECT_EQ(Pixel(ScaleImage(stripes, 2, 2), 1, 1), (Bytes{255, 255, 255, 128}));
}

}  // namespace
}  // namespace vx
