#include "platform/plist/PlistFile.h"

#include <plist/plist.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>

#include "platform/files/AtomicFile.h"
#include "platform/plist/PlistBounds.h"

namespace vx {
namespace {

// Property-list dates count from 2001-01-01 UTC.
constexpr double kPlistEpochOffset = 978307200.0;

struct PlistFree {
  void operator()(plist_t node) const { plist_free(node); }
};
using PlistNode = std::unique_ptr<void, PlistFree>;

std::optional<PlistValue> FromNode(plist_t node, int depth) {
  if (!node || depth > 512) return std::nullopt;  // deep nesting is hostile, not data
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return PlistValue(b != 0);
    }
    case PLIST_UINT: {
      uint64_t v = 0;
      plist_get_uint_val(node, &v);
      return PlistValue(static_cast<long long>(v));
    }
    case PLIST_UID: {
      uint64_t v = 0;
      plist_get_uid_val(node, &v);
      return PlistValue(static_cast<long long>(v));
    }
    case PLIST_REAL: {
      double v = 0;
      plist_get_real_val(node, &v);
      return PlistValue(v);
    }
    case PLIST_STRING: {
      // Read by pointer: the copying getter aborts the process on a string that holds a NUL,
      // which a hostile XML file can make. Such a string ends at the NUL, as the binary
      // parser ends it (what the XML parser leaves after it is not the file's bytes).
      uint64_t length = 0;
      const char* s = plist_get_string_ptr(node, &length);
      return PlistValue(s ? std::string(s, ::strnlen(s, length)) : std::string());
    }
    case PLIST_DATA: {
      char* bytes = nullptr;
      uint64_t length = 0;
      plist_get_data_val(node, &bytes, &length);
      std::unique_ptr<char, decltype(&free)> owned(bytes, &free);
      auto* p = reinterpret_cast<const uint8_t*>(bytes);
      return PlistValue(PlistData(p, p + (bytes ? length : 0)));
    }
    case PLIST_DATE: {
      int32_t sec = 0, usec = 0;
      plist_get_date_val(node, &sec, &usec);
      return PlistValue(PlistDate{sec + usec / 1e6 + kPlistEpochOffset});
    }
    case PLIST_ARRAY: {
      PlistArray array;
      uint32_t n = plist_array_get_size(node);
      array.reserve(n);
      // By iterator: a parsed array is a list, and reaching an item by index walks it from
      // the start, which makes a wide array quadratic.
      plist_array_iter it = nullptr;
      plist_array_new_iter(node, &it);
      std::unique_ptr<void, decltype(&free)> ownedIter(it, &free);
      for (uint32_t i = 0; i < n; ++i) {
        plist_t child = nullptr;
        plist_array_next_item(node, it, &child);
        auto item = FromNode(child, depth + 1);
        if (!item) return std::nullopt;
        array.push_back(std::move(*item));
      }
      return PlistValue(std::move(array));
    }
    case PLIST_DICT: {
      PlistDictionary dict;
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      std::unique_ptr<void, decltype(&free)> ownedIter(it, &free);
      for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(node, it, &key, &value);
        std::unique_ptr<char, decltype(&free)> ownedKey(key, &free);
        if (!value) break;
        auto item = FromNode(value, depth + 1);
        if (!item) return std::nullopt;
        dict.insert_or_assign(std::string(key ? key : ""), std::move(*item));
      }
      return PlistValue(std::move(dict));
    }
    default:
      return std::nullopt;
  }
}

plist_t ToNode(const PlistValue& value) {
  switch (value.kind()) {
    case PlistValue::Kind::String:
      return plist_new_string(value.string()->c_str());
    case PlistValue::Kind::URL:
      return plist_new_string(value.url()->path().c_str());
    case PlistValue::Kind::Integer:
      // The node keeps 64 bits; negative values are written and read back signed.
      return plist_new_uint(static_cast<uint64_t>(*value.int64Value()));
    case PlistValue::Kind::Real:
      return plist_new_real(*value.doubleValue());
    case PlistValue::Kind::Boolean:
      return plist_new_bool(*value.boolean() ? 1 : 0);
    case PlistValue::Kind::Data: {
      const PlistData& d = *value.data();
      return plist_new_data(reinterpret_cast<const char*>(d.data()), d.size());
    }
    case PlistValue::Kind::Date: {
      double t = value.date()->secondsSince1970 - kPlistEpochOffset;
      double sec = std::floor(t);
      return plist_new_date(static_cast<int32_t>(sec), static_cast<int32_t>((t - sec) * 1e6));
    }
    case PlistValue::Kind::Array: {
      plist_t node = plist_new_array();
      for (const PlistValue& item : *value.array()) plist_array_append_item(node, ToNode(item));
      return node;
    }
    case PlistValue::Kind::Dictionary: {
      plist_t node = plist_new_dict();
      for (const auto& [key, item] : *value.dictionary()) {
        plist_dict_set_item(node, key.c_str(), ToNode(item));
      }
      return node;
    }
  }
  return plist_new_string("");
}

}  // namespace

std::optional<PlistValue> ParsePropertyList(std::span<const uint8_t> bytes, std::string* reason) {
  const auto refuse = [reason](const char* why) -> std::optional<PlistValue> {
    if (reason) *reason = why;
    return std::nullopt;
  };
  if (bytes.empty()) return refuse("empty");
  if (bytes.size() > std::numeric_limits<uint32_t>::max()) return refuse("too large");
  if (!CheckPropertyListBounds(bytes, reason)) return std::nullopt;
  plist_t raw = nullptr;
  plist_from_memory(reinterpret_cast<const char*>(bytes.data()),
                    static_cast<uint32_t>(bytes.size()), &raw);
  PlistNode node(raw);
  if (!node) return refuse("not a property list");
  std::optional<PlistValue> value = FromNode(node.get(), 0);
  if (!value) return refuse("a value of no known type");
  return value;
}

std::vector<uint8_t> SerializePropertyList(const PlistValue& value, PlistFormat format) {
  PlistNode node(ToNode(value));
  char* out = nullptr;
  uint32_t length = 0;
  if (format == PlistFormat::Binary) {
    plist_to_bin(node.get(), &out, &length);
  } else {
    plist_to_xml(node.get(), &out, &length);
  }
  std::vector<uint8_t> bytes(reinterpret_cast<uint8_t*>(out),
                             reinterpret_cast<uint8_t*>(out) + (out ? length : 0));
  if (format == PlistFormat::Binary) {
    plist_to_bin_free(out);
  } else {
    plist_to_xml_free(out);
  }
  return bytes;
}

std::optional<PlistValue> ReadPropertyListFile(const std::string& path) {
  auto bytes = ReadFileContents(path, nullptr);
  if (!bytes) return std::nullopt;
  return ParsePropertyList(*bytes);
}

std::optional<PlistDictionary> ReadPropertyListDictionary(const std::string& path) {
  auto value = ReadPropertyListFile(path);
  if (!value || !value->isDictionary()) return std::nullopt;
  return std::move(*value->mutableDictionary());
}

bool WritePropertyListFile(const std::string& path, const PlistValue& value, PlistFormat format,
                           int* error) {
  std::vector<uint8_t> bytes = SerializePropertyList(value, format);
  return WriteFileAtomically(path, bytes, error);
}

}  // namespace vx
