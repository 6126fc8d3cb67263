#include "platform/log/EscapedText.h"

#include <cstdint>

namespace vx {
namespace {

void AppendHex(std::string& out, uint8_t byte) {
  static constexpr char kDigits[] = "0123456789abcdef";
  out += "\\x";
  out.push_back(kDigits[byte >> 4]);
  out.push_back(kDigits[byte & 0xF]);
}

// The length of the valid UTF-8 sequence of two or more bytes at the start of `text`, or 0.
// Overlong forms, surrogates and code points past U+10FFFF are not valid, and C1 controls
// (U+0080 to U+009F) are refused with them so that they are escaped.
size_t MultiByteLength(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
  const uint8_t lead = byte(0);
  size_t length = 0;
  uint32_t low = 0, high = 0;  // the range of the second byte, which rules out bad forms
  if (lead == 0xC2) {
    length = 2, low = 0xA0, high = 0xBF;  // 0x80 to 0x9F would be C1
  } else if (lead >= 0xC3 && lead <= 0xDF) {
    length = 2, low = 0x80, high = 0xBF;
  } else if (lead == 0xE0) {
    length = 3, low = 0xA0, high = 0xBF;
  } else if (lead == 0xED) {
    length = 3, low = 0x80, high = 0x9F;
  } else if (lead >= 0xE1 && lead <= 0xEF) {
    length = 3, low = 0x80, high = 0xBF;
  } else if (lead == 0xF0) {
    length = 4, low = 0x90, high = 0xBF;
  } else if (lead >= 0xF1 && lead <= 0xF3) {
    length = 4, low = 0x80, high = 0xBF;
  } else if (lead == 0xF4) {
    length = 4, low = 0x80, high = 0x8F;
  } else {
    return 0;
  }
  if (text.size() < length || byte(1) < low || byte(1) > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if (byte(i) < 0x80 || byte(i) > 0xBF) return 0;
  }
  return length;
}

// Valid characters that still steer what a reader sees: the bidirectional controls reorder
// the text around them, so "gpj.exe" can show as "exe.jpg" and a name can seem to end where
// it does not. U+061C, U+200E and U+200F, U+202A to U+202E, U+2066 to U+2069.
bool IsBidiControl(std::string_view text, size_t length) {
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
  if (length == 2) return byte(0) == 0xD8 && byte(1) == 0x9C;
  if (length != 3 || byte(0) != 0xE2) return false;
  if (byte(1) == 0x80) return byte(2) == 0x8E || byte(2) == 0x8F || (byte(2) >= 0xAA && byte(2) <= 0xAE);
  return byte(1) == 0x81 && byte(2) >= 0xA6 && byte(2) <= 0xA9;
}

// The length of the character at the start of `text` that may be shown as it is, or 0.
size_t ShownLength(std::string_view text) {
  const size_t length = MultiByteLength(text);
  return length && !IsBidiControl(text, length) ? length : 0;
}

}  // namespace

bool ShownUnchanged(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    const auto c = static_cast<uint8_t>(text[i]);
    if (c >= 0x20 && c < 0x7F && c != '\\') {
      ++i;
    } else if (const size_t length = c >= 0x80 ? ShownLength(text.substr(i)) : 0) {
      i += length;
    } else {
      return false;
    }
  }
  return true;
}

std::string EscapedText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const auto c = static_cast<uint8_t>(text[i]);
    if (c >= 0x20 && c < 0x7F) {
      if (c == '\\') out.push_back('\\');
      out.push_back(static_cast<char>(c));
      ++i;
    } else if (c == '\n') {
      out += "\\n", ++i;
    } else if (c == '\r') {
      out += "\\r", ++i;
    } else if (c == '\t') {
      out += "\\t", ++i;
    } else if (const size_t length = c >= 0x80 ? ShownLength(text.substr(i)) : 0) {
      out.append(text.substr(i, length));
      i += length;
    } else {
      AppendHex(out, c);
      ++i;
    }
  }
  return out;
}

}  // namespace vx
