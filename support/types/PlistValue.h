// A property-list value: the data every file of the old and new layout is made of.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "support/types/FileURL.h"

namespace vx {

class PlistValue;
using PlistArray = std::vector<PlistValue>;
using PlistDictionary = std::map<std::string, PlistValue, std::less<>>;
using PlistData = std::vector<uint8_t>;

// A point in time, seconds since 1970-01-01 UTC.
struct PlistDate {
  double secondsSince1970 = 0;
  friend bool operator==(const PlistDate&, const PlistDate&) = default;
};

class PlistValue {
 public:
  // `URL` is not a property-list type on disk; it lets in-memory records (bundle maps,
  // error user info) carry a location, and is written as its path text.
  enum class Kind { String, Integer, Real, Boolean, Data, Date, Array, Dictionary, URL };

  PlistValue() : value_(std::string()) {}
  PlistValue(const char* text) : value_(std::string(text)) {}
  PlistValue(std::string text) : value_(std::move(text)) {}
  PlistValue(std::string_view text) : value_(std::string(text)) {}
  PlistValue(bool b) : value_(b) {}
  PlistValue(int v) : value_(int64_t{v}) {}
  PlistValue(long v) : value_(int64_t{v}) {}
  PlistValue(long long v) : value_(int64_t{v}) {}
  PlistValue(unsigned v) : value_(int64_t{v}) {}
  PlistValue(unsigned long v) : value_(static_cast<int64_t>(v)) {}
  PlistValue(unsigned long long v) : value_(static_cast<int64_t>(v)) {}
  PlistValue(double v) : value_(v) {}
  PlistValue(PlistData data) : value_(std::move(data)) {}
  PlistValue(PlistDate date) : value_(date) {}
  PlistValue(PlistArray array) : value_(Box<PlistArray>(std::move(array))) {}
  PlistValue(PlistDictionary dict) : value_(Box<PlistDictionary>(std::move(dict))) {}
  PlistValue(FileURL url) : value_(std::move(url)) {}

  Kind kind() const { return static_cast<Kind>(value_.index()); }
  bool isString() const { return kind() == Kind::String; }
  bool isInteger() const { return kind() == Kind::Integer; }
  bool isReal() const { return kind() == Kind::Real; }
  bool isBoolean() const { return kind() == Kind::Boolean; }
  // An integer or a real. A boolean is not a number here: a setting that must be a count
  // should not take `true` for 1. Callers that accept a boolean as a number say so.
  bool isNumber() const { return isInteger() || isReal(); }
  bool isData() const { return kind() == Kind::Data; }
  bool isDate() const { return kind() == Kind::Date; }
  bool isArray() const { return kind() == Kind::Array; }
  bool isDictionary() const { return kind() == Kind::Dictionary; }
  bool isURL() const { return kind() == Kind::URL; }

  // Typed reads: nullptr when the value is of another kind.
  const std::string* string() const { return std::get_if<std::string>(&value_); }
  const PlistData* data() const { return std::get_if<PlistData>(&value_); }
  const FileURL* url() const { return std::get_if<FileURL>(&value_); }
  const PlistDate* date() const { return std::get_if<PlistDate>(&value_); }
  const PlistArray* array() const;
  const PlistDictionary* dictionary() const;
  PlistArray* mutableArray();
  PlistDictionary* mutableDictionary();
  // The value of a number as the named type (booleans are 0 or 1; reals are cut toward
  // zero); nullopt for anything that is not a number.
  std::optional<int64_t> int64Value() const;
  std::optional<double> doubleValue() const;
  // Only a stored boolean answers; a number 1 or a text "YES" is not a boolean.
  std::optional<bool> boolean() const;

  // Dictionary conveniences: nullptr when this is no dictionary or the key is missing.
  const PlistValue* find(std::string_view key) const;
  const std::string* stringForKey(std::string_view key) const;
  const PlistDictionary* dictionaryForKey(std::string_view key) const;

  friend bool operator==(const PlistValue& a, const PlistValue& b);

 private:
  // Deep-copying box, so that the recursive types can live inside the variant.
  template <typename T>
  class Box {
   public:
    explicit Box(T v) : p_(std::make_unique<T>(std::move(v))) {}
    Box(const Box& o) : p_(std::make_unique<T>(*o.p_)) {}
    Box(Box&&) noexcept = default;
    Box& operator=(const Box& o) {
      p_ = std::make_unique<T>(*o.p_);
      return *this;
    }
    Box& operator=(Box&&) noexcept = default;
    T& operator*() const { return *p_; }

   private:
    std::unique_ptr<T> p_;
  };

  std::variant<std::string, int64_t, double, bool, PlistData, PlistDate, Box<PlistArray>,
               Box<PlistDictionary>, FileURL>
      value_;
};

// The printed form used by "%@", in the old-style property-list notation that reads well
// in a log line: {Key = value; ...}, (a, b), <0a0b>, quoted text where needed.
std::string Describe(const PlistValue& value);
std::string Describe(const PlistDictionary& dict);
std::string Describe(const PlistArray& array);

}  // namespace vx
