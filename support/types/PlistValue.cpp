#include "support/types/PlistValue.h"

#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>

namespace vx {

const PlistArray* PlistValue::array() const {
  auto* box = std::get_if<Box<PlistArray>>(&value_);
  return box ? &**box : nullptr;
}

const PlistDictionary* PlistValue::dictionary() const {
  auto* box = std::get_if<Box<PlistDictionary>>(&value_);
  return box ? &**box : nullptr;
}

PlistArray* PlistValue::mutableArray() {
  auto* box = std::get_if<Box<PlistArray>>(&value_);
  return box ? &**box : nullptr;
}

PlistDictionary* PlistValue::mutableDictionary() {
  auto* box = std::get_if<Box<PlistDictionary>>(&value_);
  return box ? &**box : nullptr;
}

std::optional<int64_t> PlistValue::int64Value() const {
  if (auto* i = std::get_if<int64_t>(&value_)) return *i;
  if (auto* b = std::get_if<bool>(&value_)) return *b ? 1 : 0;
  if (auto* d = std::get_if<double>(&value_)) {
    // Cut toward zero, and held to the 64-bit range: a huge value must not wrap or trap.
    if (std::isnan(*d)) return 0;
    if (*d >= 9223372036854775807.0) return INT64_MAX;
    if (*d <= -9223372036854775808.0) return INT64_MIN;
    return static_cast<int64_t>(std::trunc(*d));
  }
  return std::nullopt;
}

std::optional<double> PlistValue::doubleValue() const {
  if (auto* d = std::get_if<double>(&value_)) return *d;
  if (auto i = int64Value()) return static_cast<double>(*i);
  return std::nullopt;
}

std::optional<bool> PlistValue::boolean() const {
  if (auto* b = std::get_if<bool>(&value_)) return *b;
  return std::nullopt;
}

const PlistValue* PlistValue::find(std::string_view key) const {
  const PlistDictionary* dict = dictionary();
  if (!dict) return nullptr;
  auto it = dict->find(key);
  return it == dict->end() ? nullptr : &it->second;
}

const std::string* PlistValue::stringForKey(std::string_view key) const {
  const PlistValue* v = find(key);
  return v ? v->string() : nullptr;
}

const PlistDictionary* PlistValue::dictionaryForKey(std::string_view key) const {
  const PlistValue* v = find(key);
  return v ? v->dictionary() : nullptr;
}

bool operator==(const PlistValue& a, const PlistValue& b) {
  if (a.kind() != b.kind()) return false;
  switch (a.kind()) {
    case PlistValue::Kind::Array:
      return *a.array() == *b.array();
    case PlistValue::Kind::Dictionary:
      return *a.dictionary() == *b.dictionary();
    case PlistValue::Kind::String:
      return *a.string() == *b.string();
    case PlistValue::Kind::Integer:
    case PlistValue::Kind::Boolean:
      return a.int64Value() == b.int64Value();
    case PlistValue::Kind::Real:
      return a.doubleValue() == b.doubleValue();
    case PlistValue::Kind::Data:
      return *a.data() == *b.data();
    case PlistValue::Kind::Date:
      return *a.date() == *b.date();
    case PlistValue::Kind::URL:
      return *a.url() == *b.url();
  }
  return false;
}

namespace {

bool NeedsQuotes(const std::string& s) {
  if (s.empty()) return true;
  for (unsigned char c : s) {
    if (!(std::isalnum(c) || c == '.' || c == '_' || c == '-' || c == '/' || c == ':' || c == '$'))
      return true;
  }
  return false;
}

std::string QuoteIfNeeded(const std::string& s) {
  if (!NeedsQuotes(s)) return s;
  std::string out = "\"";
  for (char c : s) {
    if (c == '"' || c == '\\') out += '\\';
    if (c == '\n') {
      out += "\\n";
      continue;
    }
    out += c;
  }
  return out + "\"";
}

}  // namespace

std::string Describe(const PlistArray& array) {
  std::string out = "(";
  for (size_t i = 0; i < array.size(); ++i) {
    if (i) out += ", ";
    out += Describe(array[i]);
  }
  return out + ")";
}

std::string Describe(const PlistDictionary& dict) {
  std::string out = "{";
  bool first = true;
  for (const auto& [key, value] : dict) {
    out += first ? "" : " ";
    first = false;
    out += QuoteIfNeeded(key) + " = " + Describe(value) + ";";
  }
  return out + "}";
}

std::string Describe(const PlistValue& value) {
  switch (value.kind()) {
    case PlistValue::Kind::String:
      return QuoteIfNeeded(*value.string());
    case PlistValue::Kind::Integer:
      return std::to_string(*value.int64Value());
    case PlistValue::Kind::Boolean:
      return *value.boolean() ? "1" : "0";
    case PlistValue::Kind::Real: {
      char buf[64];
      std::snprintf(buf, sizeof buf, "%.17g", *value.doubleValue());
      return buf;
    }
    case PlistValue::Kind::Data: {
      static const char kHex[] = "0123456789abcdef";
      std::string out = "<";
      const PlistData& bytes = *value.data();
      for (size_t i = 0; i < bytes.size(); ++i) {
        if (i && i % 4 == 0) out += ' ';
        out += kHex[bytes[i] >> 4];
        out += kHex[bytes[i] & 15];
      }
      return out + ">";
    }
    case PlistValue::Kind::Date: {
      time_t t = static_cast<time_t>(std::floor(value.date()->secondsSince1970));
      struct tm tm {};
      gmtime_r(&t, &tm);
      char buf[64];
      std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S +0000", &tm);
      return buf;
    }
    case PlistValue::Kind::Array:
      return Describe(*value.array());
    case PlistValue::Kind::Dictionary:
      return Describe(*value.dictionary());
    case PlistValue::Kind::URL:
      return Describe(*value.url());
  }
  return {};
}

}  // namespace vx
