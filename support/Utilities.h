// support: the shared layer's exported helper functions (digests, bundle information, resource
// assertions, transactional tasks, crash reports). Uses filemanager/, support/types and the
// platform services below the workspace.
//
// Tolerant conversions for values whose type is not known in advance: a value of the wrong
// kind is treated as absent instead of failing.
#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "support/types/PlistValue.h"

namespace vx {

// The kinds a value can be asked to be. A boolean is a number; a location (a URL value)
// is a kind of its own and belongs to none of the others.
enum class ValueKind { String, Number, Array, Dictionary, Set, Data, Date, URL };

// An unordered collection of distinct values. It keeps its members in insertion order,
// which is "the set's own order" wherever a set is turned into an array.
class ValueSet {
 public:
  ValueSet() = default;
  // Duplicates are dropped; the first occurrence keeps its place.
  explicit ValueSet(const std::vector<PlistValue>& values);

  // False when an equal member is already present.
  bool insert(PlistValue value);
  bool contains(const PlistValue& value) const;
  const std::vector<PlistValue>& members() const { return members_; }
  size_t size() const { return members_.size(); }
  bool empty() const { return members_.empty(); }

 private:
  std::vector<PlistValue> members_;
};

// What the conversions accept: a property-list value or a set of values. "None" is an
// empty optional.
using AnyValue = std::variant<PlistValue, ValueSet>;

bool VXValueIsOfKind(const AnyValue& value, ValueKind kind);

// "{(a, b)}": the printed form of a set, distinct from an array's "(a, b)".
std::string Describe(const ValueSet& set);

// A text is returned as it is; anything else as its printed form.
std::optional<std::string> VXStringifyObject(const std::optional<AnyValue>& value);

// True when every element is of `kind` (so also for an empty array).
bool VXArrayContainsOnlyClass(const PlistArray& array, ValueKind kind);

// The truth of a number (a boolean included); anything else, a text saying "YES" too,
// gives `defaultValue`.
bool VXBooleanValue(const std::optional<AnyValue>& value, bool defaultValue);

// An array of `kind` made from whatever was given: an array of that kind as it is, a
// single value of the kind wrapped, a set of that kind as its members. Anything else is
// none. An array is never wrapped, even when `kind` is the array kind; a set asked for as
// the set kind is none too, because an array cannot hold a set.
std::optional<PlistArray> VXArrayifyThing(const std::optional<AnyValue>& value, ValueKind kind);

}  // namespace vx
