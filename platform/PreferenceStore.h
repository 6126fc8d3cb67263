// Preferences: one property-list file per domain under <home>/Library/Preferences/
// ("<domain>.plist"). Writes are atomic; synchronising makes them durable.
#pragma once

#include <optional>
#include <string>

#include "support/PlistValue.h"

namespace vx::PreferenceStore {

// A copy of the value of `key` in `domain`, or nothing.
std::optional<PlistValue> copyValue(const std::string& key, const std::string& domain);
// Sets (or, with nullopt, removes) the value; false when the domain cannot be written.
bool setValue(const std::string& key, const std::optional<PlistValue>& value,
              const std::string& domain);
// Makes every value set so far durable before it returns.
bool synchronize(const std::string& domain);
// The text value of `key`, or nothing when there is none or it is no text.
std::optional<std::string> copyText(const std::string& key, const std::string& domain);

}  // namespace vx::PreferenceStore
