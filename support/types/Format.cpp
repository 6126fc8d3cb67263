#include "support/types/Format.h"

#include <cinttypes>
#include <cstdio>

namespace vx {
namespace {

std::string PrintInteger(const FormatArg& arg, const std::string& flags, char length,
                         char conversion) {
  char buf[64];
  const bool isSigned = conversion == 'd' || conversion == 'i';
  const std::string conversionText = "%" + flags +
                           (isSigned            ? PRId64
                            : conversion == 'x' ? PRIx64
                            : conversion == 'X' ? PRIX64
                                                : PRIu64);
  // The width of the conversion decides how a value is cut, as a C formatter would.
  if (isSigned) {
    int64_t v = arg.type == FormatArg::Type::Unsigned ? static_cast<int64_t>(arg.u) : arg.i;
    if (length == 0) v = static_cast<int32_t>(v);
    std::snprintf(buf, sizeof buf, conversionText.c_str(), v);
  } else {
    uint64_t v = arg.type == FormatArg::Type::Signed ? static_cast<uint64_t>(arg.i) : arg.u;
    if (length == 0) v = static_cast<uint32_t>(v);
    std::snprintf(buf, sizeof buf, conversionText.c_str(), v);
  }
  return buf;
}

}  // namespace

std::string FormatArgs(const char* format, std::span<const FormatArg> args) {
  std::string out;
  size_t next = 0;
  const char* p = format ? format : "";
  while (*p) {
    if (*p != '%') {
      out += *p++;
      continue;
    }
    const char* start = p++;
    if (*p == '%') {
      out += '%';
      ++p;
      continue;
    }
    std::string flags;
    while (*p == '0' || *p == '-' || *p == '+' || *p == ' ' || *p == '#') flags += *p++;
    while (*p >= '0' && *p <= '9') flags += *p++;
    char length = 0;
    while (*p == 'l' || *p == 'z' || *p == 'h' || *p == 'q' || *p == 'j' || *p == 't') {
      length = *p++;
    }
    const char conversion = *p;
    if (!conversion) {
      out.append(start);
      break;
    }
    ++p;
    const FormatArg none;
    const FormatArg& arg = next < args.size() ? args[next] : none;
    ++next;
    switch (conversion) {
      case '@':
      case 's':
        out += arg.type == FormatArg::Type::Null ? "(null)"
               : arg.type == FormatArg::Type::Text ? arg.text
               : arg.type == FormatArg::Type::Signed ? std::to_string(arg.i)
                                                     : std::to_string(arg.u);
        break;
      case 'd':
      case 'i':
      case 'u':
      case 'x':
      case 'X':
        if (arg.type == FormatArg::Type::Text || arg.type == FormatArg::Type::Null) {
          out += arg.type == FormatArg::Type::Text ? arg.text : "(null)";
        } else {
          out += PrintInteger(arg, flags, length, conversion);
        }
        break;
      default:
        // An unknown conversion is printed as written, so a message is never lost.
        out.append(start, p);
        break;
    }
  }
  return out;
}

}  // namespace vx
