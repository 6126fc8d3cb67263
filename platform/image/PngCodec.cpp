#include <png.h>

#include <cstring>
#include <new>

#include "platform/image/IconImage.h"

// libpng reports errors by longjmp. Every function here that calls setjmp keeps nothing
// with a destructor in its own frame, so a jump out of libpng skips no cleanup; what needs
// freeing lives in the caller's frame.

namespace vx {
namespace {

constexpr size_t kSignatureSize = 8;

[[noreturn]] void OnPngError(png_structp png, png_const_charp) { png_longjmp(png, 1); }
void OnPngWarning(png_structp, png_const_charp) {}

struct MemoryReader {
  const uint8_t* data;
  size_t size;
  size_t offset;
};

void ReadFromMemory(png_structp png, png_bytep out, png_size_t length) {
  auto* reader = static_cast<MemoryReader*>(png_get_io_ptr(png));
  if (length > reader->size - reader->offset) png_error(png, "truncated");
  std::memcpy(out, reader->data + reader->offset, length);
  reader->offset += length;
}

void WriteToMemory(png_structp png, png_bytep data, png_size_t length) {
  auto* out = static_cast<std::vector<uint8_t>*>(png_get_io_ptr(png));
  bool grown = true;
  try {
    out->insert(out->end(), data, data + length);
  } catch (const std::bad_alloc&) {
    grown = false;
  }
  if (!grown) png_error(png, "out of memory");
}

void FlushMemory(png_structp) {}

// libpng's read and write structures with their info structure, released on every path
// (also after a longjmp out of libpng, since the owner lives outside the setjmp frame).
enum class PngDirection { Read, Write };

template <PngDirection kDirection>
class PngState {
 public:
  PngState() {
    png_ = kDirection == PngDirection::Read
               ? png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, OnPngError, OnPngWarning)
               : png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, OnPngError, OnPngWarning);
    if (png_) info_ = png_create_info_struct(png_);
  }
  ~PngState() {
    if constexpr (kDirection == PngDirection::Read) {
      png_destroy_read_struct(&png_, &info_, nullptr);
    } else {
      png_destroy_write_struct(&png_, &info_);
    }
  }
  PngState(const PngState&) = delete;
  PngState& operator=(const PngState&) = delete;
  png_structp png() const { return png_; }
  png_infop info() const { return info_; }
  explicit operator bool() const { return png_ && info_; }

 private:
  png_structp png_ = nullptr;
  png_infop info_ = nullptr;
};
using PngReadState = PngState<PngDirection::Read>;
using PngWriteState = PngState<PngDirection::Write>;

// Reads the header and asks libpng for 8-bit RGBA rows whatever the file holds.
bool ReadHeaderAsRGBA(png_structp png, png_infop info, png_uint_32* width, png_uint_32* height) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_read_info(png, info);
  const int colorType = png_get_color_type(png, info);
  png_set_expand(png);  // palette to RGB, small grays to 8 bits, transparency to alpha
  png_set_scale_16(png);
  png_set_gray_to_rgb(png);
  if (!(colorType & PNG_COLOR_MASK_ALPHA) && !png_get_valid(png, info, PNG_INFO_tRNS)) {
    png_set_add_alpha(png, 0xff, PNG_FILLER_AFTER);
  }
  png_set_interlace_handling(png);
  png_read_update_info(png, info);
  *width = png_get_image_width(png, info);
  *height = png_get_image_height(png, info);
  return png_get_bit_depth(png, info) == 8 && png_get_channels(png, info) == 4 &&
         png_get_rowbytes(png, info) == static_cast<size_t>(*width) * 4;
}

bool ReadRows(png_structp png, png_infop info, png_bytepp rows) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_read_image(png, rows);
  png_read_end(png, info);
  return true;
}

bool WriteRows(png_structp png, png_infop info, png_uint_32 width, png_uint_32 height,
               png_bytepp rows) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGBA, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  // Icons are small and written once per application of a migration: deflating them hard
  // would cost more time than the bytes it saves are worth.
  png_set_compression_level(png, 1);
  png_write_info(png, info);
  png_write_image(png, rows);
  png_write_end(png, info);
  return true;
}

template <typename Pixels>
std::vector<png_bytep> RowPointers(Pixels* pixels, uint32_t width, uint32_t height) {
  std::vector<png_bytep> rows(height);
  for (uint32_t y = 0; y < height; ++y) {
    rows[y] = const_cast<png_bytep>(pixels + static_cast<size_t>(y) * width * 4);
  }
  return rows;
}

uint32_t BigEndian32(const uint8_t* p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | uint32_t{p[3]};
}

}  // namespace

std::optional<std::pair<uint32_t, uint32_t>> PNGDimensions(const std::vector<uint8_t>& bytes) {
  // Signature, then the IHDR chunk: length 13, type, width, height.
  if (bytes.size() < 24 || png_sig_cmp(bytes.data(), 0, kSignatureSize) != 0 ||
      std::memcmp(bytes.data() + 12, "IHDR", 4) != 0) {
    return std::nullopt;
  }
  return std::make_pair(BigEndian32(bytes.data() + 16), BigEndian32(bytes.data() + 20));
}

std::optional<IconImage> DecodePNG(const std::vector<uint8_t>& bytes) {
  if (bytes.size() < kSignatureSize || png_sig_cmp(bytes.data(), 0, kSignatureSize) != 0) {
    return std::nullopt;
  }
  PngReadState state;
  if (!state) return std::nullopt;
  MemoryReader reader{bytes.data(), bytes.size(), 0};
  png_set_read_fn(state.png(), &reader, ReadFromMemory);
  png_set_user_limits(state.png(), kMaxDecodedDimension, kMaxDecodedDimension);

  png_uint_32 width = 0;
  png_uint_32 height = 0;
  if (!ReadHeaderAsRGBA(state.png(), state.info(), &width, &height)) return std::nullopt;
  if (width == 0 || height == 0 || width > kMaxDecodedDimension ||
      height > kMaxDecodedDimension) {
    return std::nullopt;
  }
  IconImage image;
  image.width = width;
  image.height = height;
  image.rgba.resize(static_cast<size_t>(width) * height * 4);
  std::vector<png_bytep> rows = RowPointers(image.rgba.data(), width, height);
  if (!ReadRows(state.png(), state.info(), rows.data())) return std::nullopt;
  return image;
}

bool EncodePNG(const IconImage& image, std::vector<uint8_t>* out) {
  if (!out || image.width == 0 || image.height == 0 ||
      image.width > PNG_USER_WIDTH_MAX || image.height > PNG_USER_HEIGHT_MAX ||
      image.rgba.size() != static_cast<size_t>(image.width) * image.height * 4) {
    return false;
  }
  PngWriteState state;
  if (!state) return false;
  std::vector<uint8_t> encoded;
  png_set_write_fn(state.png(), &encoded, WriteToMemory, FlushMemory);
  std::vector<png_bytep> rows = RowPointers(image.rgba.data(), image.width, image.height);
  if (!WriteRows(state.png(), state.info(), image.width, image.height, rows.data())) {
    return false;
  }
  out->insert(out->end(), encoded.begin(), encoded.end());
  return true;
}

}  // namespace vx
