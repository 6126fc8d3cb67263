#include "platform/system/SystemVersion.h"

#include <cctype>
#include <string_view>

#include "platform/files/AtomicFile.h"
#include "platform/system/DeviceRoot.h"

namespace vx {
namespace {

bool IsKey(std::string_view key) {
  if (key.empty() || std::isdigit(static_cast<unsigned char>(key.front()))) return false;
  for (char c : key) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_') return false;
  }
  return true;
}

// The file is meant to be sourced by a shell, so a value follows the shell's quoting:
// backslash escapes only $ ` " \ inside double quotes, single quotes are literal, and the
// pieces of a value may be quoted differently ("a"'b'c). Nothing when a quote is left open.
std::optional<std::string> Unquote(std::string_view raw) {
  constexpr size_t npos = std::string_view::npos;
  std::string value;
  size_t i = 0;
  while (i < raw.size()) {
    const char c = raw[i++];
    if (c == '\'') {
      const size_t close = raw.find('\'', i);
      if (close == npos) return std::nullopt;
      value.append(raw.substr(i, close - i));
      i = close + 1;
    } else if (c == '"') {
      for (;;) {
        if (i >= raw.size()) return std::nullopt;
        const char d = raw[i++];
        if (d == '"') break;
        const bool escapes = i < raw.size() && std::string_view("$`\"\\").find(raw[i]) != npos;
        if (d == '\\' && escapes) {
          value.push_back(raw[i++]);
        } else {
          value.push_back(d);
        }
      }
    } else if (c == '\\') {
      if (i < raw.size()) value.push_back(raw[i++]);
    } else if (std::isspace(static_cast<unsigned char>(c))) {
      break;  // an unquoted blank ends the word; what follows is not part of the value
    } else {
      value.push_back(c);
    }
  }
  return value;
}

std::string_view TrimLeft(std::string_view s) {
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
  return s;
}

PlistDictionary ParseOsRelease(std::string_view text) {
  PlistDictionary record;
  while (!text.empty()) {
    const size_t newline = text.find('\n');
    std::string_view line = TrimLeft(text.substr(0, newline));
    text.remove_prefix(newline == std::string_view::npos ? text.size() : newline + 1);
    if (line.empty() || line.front() == '#') continue;
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos || !IsKey(line.substr(0, equals))) continue;
    if (auto value = Unquote(line.substr(equals + 1))) {
      record.insert_or_assign(std::string(line.substr(0, equals)), PlistValue(std::move(*value)));
    }
  }
  return record;
}

}  // namespace

std::optional<PlistDictionary> SystemVersionRecord() {
  auto bytes = ReadFileContents(DeviceRoot() + "etc/os-release", nullptr);
  if (!bytes) return std::nullopt;
  return ParseOsRelease(
      std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()));
}

std::optional<std::string> SystemBuildVersion(const PlistDictionary& record) {
  for (const char* key : {"BUILD_ID", "VERSION_ID"}) {
    auto it = record.find(key);
    if (it != record.end() && it->second.string()) return *it->second.string();
  }
  return std::nullopt;
}

}  // namespace vx
