#include "support/Utilities.h"

#include <algorithm>

#include "support/types/Format.h"

namespace vx {
namespace {

bool PlistValueIsOfKind(const PlistValue& value, ValueKind kind) {
  switch (kind) {
    case ValueKind::String:
      return value.isString();
    case ValueKind::Number:
      return value.isNumber() || value.isBoolean();  // the tolerant kinds count truth values
    case ValueKind::Array:
      return value.isArray();
    case ValueKind::Dictionary:
      return value.isDictionary();
    case ValueKind::Data:
      return value.isData();
    case ValueKind::Date:
      return value.isDate();
    case ValueKind::URL:
      return value.isURL();
    case ValueKind::Set:
      return false;  // a set is never a property-list value
  }
  return false;
}

}  // namespace

ValueSet::ValueSet(const std::vector<PlistValue>& values) {
  for (const PlistValue& value : values) insert(value);
}

bool ValueSet::insert(PlistValue value) {
  if (contains(value)) return false;
  members_.push_back(std::move(value));
  return true;
}

bool ValueSet::contains(const PlistValue& value) const {
  return std::find(members_.begin(), members_.end(), value) != members_.end();
}

std::string Describe(const ValueSet& set) {
  std::string out = "{(";
  for (size_t i = 0; i < set.members().size(); ++i) {
    if (i) out += ", ";
    out += Describe(set.members()[i]);
  }
  return out + ")}";
}

bool VXValueIsOfKind(const AnyValue& value, ValueKind kind) {
  if (std::holds_alternative<ValueSet>(value)) return kind == ValueKind::Set;
  return PlistValueIsOfKind(std::get<PlistValue>(value), kind);
}

std::optional<std::string> VXStringifyObject(const std::optional<AnyValue>& value) {
  if (!value) return std::nullopt;
  if (const auto* set = std::get_if<ValueSet>(&*value)) return Describe(*set);
  const PlistValue& plain = std::get<PlistValue>(*value);
  if (const std::string* text = plain.string()) return *text;
  return Format("%@", plain);
}

bool VXArrayContainsOnlyClass(const PlistArray& array, ValueKind kind) {
  return std::all_of(array.begin(), array.end(), [kind](const PlistValue& element) {
    return PlistValueIsOfKind(element, kind);
  });
}

bool VXBooleanValue(const std::optional<AnyValue>& value, bool defaultValue) {
  if (!value) return defaultValue;
  const auto* plain = std::get_if<PlistValue>(&*value);
  if (!plain || !(plain->isNumber() || plain->isBoolean())) return defaultValue;
  if (plain->isReal()) return *plain->doubleValue() != 0.0;  // 0.5 is true, not cut to 0
  return *plain->int64Value() != 0;
}

std::optional<PlistArray> VXArrayifyThing(const std::optional<AnyValue>& value, ValueKind kind) {
  if (!value) return std::nullopt;
  if (const auto* set = std::get_if<ValueSet>(&*value)) {
    // An array of values cannot hold a set, so a set asked for as itself has no array form.
    if (kind == ValueKind::Set) return std::nullopt;
    if (!VXArrayContainsOnlyClass(set->members(), kind)) return std::nullopt;
    return set->members();
  }
  const PlistValue& plain = std::get<PlistValue>(*value);
  if (const PlistArray* array = plain.array()) {
    if (!VXArrayContainsOnlyClass(*array, kind)) return std::nullopt;
    return *array;
  }
  if (PlistValueIsOfKind(plain, kind)) return PlistArray{plain};
  return std::nullopt;
}

}  // namespace vx
