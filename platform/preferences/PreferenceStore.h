// platform/preferences: the device's preference store. Uses platform/system, platform/plist,
// platform/files and the shared types.
//
// Preferences: one property-list file per domain under <home>/Library/Preferences/
// ("<domain>.plist"). Writes are atomic; synchronising makes them durable.
#pragma once

#include <optional>
#include <string>

#include "support/types/PlistValue.h"

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

// The device's preferences directory: <device root>private/var/mobile/Library/Preferences.
std::string DefaultPreferencesDirectory();

// The same operations on the preferences kept in `directory`, for a configuration that
// serves another device root than the process's own. The directory is made on the first
// write.
std::optional<PlistValue> copyValue(const std::string& key, const std::string& domain,
                                    const std::string& directory);
bool setValue(const std::string& key, const std::optional<PlistValue>& value,
              const std::string& domain, const std::string& directory);
bool synchronize(const std::string& domain, const std::string& directory);
std::optional<std::string> copyText(const std::string& key, const std::string& domain,
                                    const std::string& directory);

}  // namespace vx::PreferenceStore
