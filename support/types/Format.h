// The message formatter of both logs and of the error makers. It understands the
// conversions the system's messages use: "%@" (an object's printed form), "%s" (a C text),
// "%d", "%u", "%ld", "%lu", "%llu", "%zd", "%zu", "%08X" and "%%". Arguments are typed
// values, so a wrong argument can never read the wrong memory.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

#include "support/types/FileURL.h"
#include "support/types/InstallerError.h"
#include "support/types/PlistValue.h"

namespace vx {

struct FormatArg {
  enum class Type { Signed, Unsigned, Text, Null };
  Type type = Type::Null;
  int64_t i = 0;
  uint64_t u = 0;
  std::string text;

  static FormatArg Signed(int64_t v) { return {Type::Signed, v, static_cast<uint64_t>(v), {}}; }
  static FormatArg Unsigned(uint64_t v) { return {Type::Unsigned, static_cast<int64_t>(v), v, {}}; }
  static FormatArg Text(std::string s) { return {Type::Text, 0, 0, std::move(s)}; }
  static FormatArg Null() { return {}; }
};

// Arguments print as the conversion asks; an absent object or text prints "(null)".
inline FormatArg MakeFormatArg(std::nullptr_t) { return FormatArg::Null(); }
inline FormatArg MakeFormatArg(const char* s) {
  return s ? FormatArg::Text(s) : FormatArg::Null();
}
inline FormatArg MakeFormatArg(char* s) { return MakeFormatArg(static_cast<const char*>(s)); }
inline FormatArg MakeFormatArg(const std::string& s) { return FormatArg::Text(s); }
inline FormatArg MakeFormatArg(std::string_view s) { return FormatArg::Text(std::string(s)); }
inline FormatArg MakeFormatArg(const FileURL& url) { return FormatArg::Text(Describe(url)); }
inline FormatArg MakeFormatArg(const InstallerError& e) { return FormatArg::Text(Describe(e)); }
// A text value prints as itself; any other value in its property-list notation.
inline FormatArg MakeFormatArg(const PlistValue& v) {
  return FormatArg::Text(v.string() ? *v.string() : Describe(v));
}
inline FormatArg MakeFormatArg(const PlistDictionary& d) { return FormatArg::Text(Describe(d)); }
inline FormatArg MakeFormatArg(const PlistArray& a) { return FormatArg::Text(Describe(a)); }
inline FormatArg MakeFormatArg(const std::vector<FileURL>& urls) {
  std::string out = "(";
  for (size_t i = 0; i < urls.size(); ++i) out += (i ? ", " : "") + Describe(urls[i]);
  return FormatArg::Text(out + ")");
}
inline FormatArg MakeFormatArg(bool b) { return FormatArg::Signed(b ? 1 : 0); }
template <typename T>
  requires std::is_integral_v<T>
FormatArg MakeFormatArg(T v) {
  if constexpr (std::is_signed_v<T>) {
    return FormatArg::Signed(static_cast<int64_t>(v));
  } else {
    return FormatArg::Unsigned(static_cast<uint64_t>(v));
  }
}
template <typename T>
FormatArg MakeFormatArg(const std::shared_ptr<T>& p) {
  return p ? MakeFormatArg(*p) : FormatArg::Null();
}
template <typename T>
FormatArg MakeFormatArg(const std::optional<T>& v) {
  return v ? MakeFormatArg(*v) : FormatArg::Null();
}
template <typename T>
FormatArg MakeFormatArg(const T* p)
  requires(!std::is_same_v<T, char>)
{
  return p ? MakeFormatArg(*p) : FormatArg::Null();
}

std::string FormatArgs(const char* format, std::span<const FormatArg> args);

template <typename... Args>
std::string Format(const char* format, const Args&... args) {
  const FormatArg list[] = {MakeFormatArg(args)..., FormatArg::Null()};
  return FormatArgs(format, std::span<const FormatArg>(list, sizeof...(Args)));
}

}  // namespace vx
