// Values as the host shows them to a person: sizes ("512 B", "3.2 KiB", "1.5 GiB"), an
// entry by its last name, a plug-in's log message without the plug-in's own prefix. Every
// name, identifier or message that holds a device's bytes passes EscapedText on its way out,
// or JsonText: JSON keeps standard escaping, all of it ASCII.
#pragma once

#include <cstdint>
#include <cstdio>
#include <iterator>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/log/EscapedText.h"

namespace vx::host {

inline std::string ByteCount(uint64_t bytes) {
  static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1024.0 && unit + 1 < std::size(kUnits)) {
    value /= 1024.0;
    ++unit;
  }
  char text[32];
  if (unit == 0) {
    std::snprintf(text, sizeof text, "%llu B", static_cast<unsigned long long>(bytes));
  } else {
    std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  }
  return text;
}

inline std::string LastPathComponent(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

inline std::string WithoutPluginPrefix(const std::string& message) {
  static const std::string kPrefix = "VXAppMigrator: ";
  return message.rfind(kPrefix, 0) == 0 ? message.substr(kPrefix.size()) : message;
}

// Bytes that are not UTF-8 (a name an application chose) become U+FFFD rather than stopping
// the writer; everything past ASCII is written as an escape, so no byte can steer a terminal.
inline std::string JsonText(const nlohmann::ordered_json& value) {
  return value.dump(2, ' ', true, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace vx::host
