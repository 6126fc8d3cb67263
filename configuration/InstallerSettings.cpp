// The installer's settings: switches read once from its preference domain, fixed item-name
// lists, the installation blacklist and two values that live in preferences only.
#include <cmath>
#include <limits>

#include "configuration/VXGlobalConfiguration.h"
#include "platform/log/InstallerLog.h"
#include "platform/preferences/PreferenceStore.h"

namespace vx {
namespace {

constexpr const char* kInstallerDomain = "com.tarsel.velotrix";
constexpr const char* kStoreDaemonDomain = "com.tarsel.lyrandstored";
constexpr const char* kUpdatedPluginContainersKey =
    "UpdatedPluginContainersWithParentIDWithSafeHarborFix";
constexpr const char* kInit = "-[VXGlobalConfiguration init]";

// The preferences of the device this configuration serves, not necessarily the process's.
std::string PreferencesDirectory(const FileURL& home) {
  return home.URLByAppendingPathComponent("Library/Preferences", true).path();
}

// A number as a signed 32-bit count; out-of-range values saturate rather than wrap, so a
// huge setting never turns into a negative one.
int32_t Int32Value(const PlistValue& number) {
  constexpr int64_t kMin = std::numeric_limits<int32_t>::min();
  constexpr int64_t kMax = std::numeric_limits<int32_t>::max();
  if (number.isReal()) {
    const double real = number.doubleValue().value_or(0);
    if (std::isnan(real)) return 0;
    const double cut = std::trunc(real);
    if (cut <= static_cast<double>(kMin)) return static_cast<int32_t>(kMin);
    if (cut >= static_cast<double>(kMax)) return static_cast<int32_t>(kMax);
    return static_cast<int32_t>(cut);
  }
  const int64_t whole = number.int64Value().value_or(0);
  return static_cast<int32_t>(whole < kMin ? kMin : whole > kMax ? kMax : whole);
}

}  // namespace

void VXGlobalConfiguration::_readInstallerSettings() {
  const std::string directory = PreferencesDirectory(_homePath);
  auto read = [&](const char* key) {
    return PreferenceStore::copyValue(key, kInstallerDomain, directory);
  };
  // Only a stored boolean switches a default off or on: a number or a text is a mistake in
  // the preferences, and a mistake must leave the safe default in place.
  auto isBoolean = [](const std::optional<PlistValue>& value, bool which) {
    return value && value->boolean() == which;
  };

  _lowerInstallPriority = true;
  if (isBoolean(read("LowerInstallPriority"), false)) {
    _lowerInstallPriority = false;
    VX_INSTALLER_LOG(5, kInit,
                     "Not running installation at background priority because of a set default");
  }

  _skipDeviceFamilyCheck = isBoolean(read("SkipDeviceFamilyCheck"), true);
  if (_skipDeviceFamilyCheck) {
    VX_INSTALLER_LOG(5, kInit, "Skipping device family check because of a set default");
  }

  _skipThinningCheck = isBoolean(read("SkipThinningCheck"), true);
  if (_skipThinningCheck) {
    VX_INSTALLER_LOG(5, kInit, "Skipping device thinning check because of a set default");
  }

  _nSimultaneousInstallations = 4;
  const std::optional<PlistValue> simultaneous = read("SimultaneousInstallsNumber");
  if (simultaneous && simultaneous->isNumber()) {
    // Taken as set, zero and negative included: this is a developer's override, not input.
    _nSimultaneousInstallations = Int32Value(*simultaneous);
    VX_INSTALLER_LOG(5, kInit, "Setting simultaneous installations allowed to %ld",
                     static_cast<long>(_nSimultaneousInstallations));
  }
}

std::vector<std::string> VXGlobalConfiguration::appBundleMetadataItemNames() const {
  return {"Manifest.plist", "LyrandArtwork", "LyrandMetadata.plist", "GeoJSON"};
}

std::vector<std::string> VXGlobalConfiguration::appUserDataItemNames() const {
  return {"Documents", "Library", "tmp", "Marvish"};
}

IdentifierSetRef VXGlobalConfiguration::installationBlacklist() const {
  static const IdentifierSetRef blacklist =
      std::make_shared<const IdentifierSet>(IdentifierSet{"com.tarsel.Orvik6Updater"});
  return blacklist;
}

bool VXGlobalConfiguration::haveUpdatedPluginContainersWithParentID() const {
  // Read every time: another process of the installer family may have set it since.
  const std::optional<PlistValue> value = PreferenceStore::copyValue(
      kUpdatedPluginContainersKey, kInstallerDomain, PreferencesDirectory(_homePath));
  return value && value->boolean() != false;
}

void VXGlobalConfiguration::setHaveUpdatedPluginContainersWithParentID(bool value) const {
  const std::string directory = PreferencesDirectory(_homePath);
  PreferenceStore::setValue(kUpdatedPluginContainersKey, PlistValue(value), kInstallerDomain,
                            directory);
  PreferenceStore::synchronize(kInstallerDomain, directory);
}

std::optional<std::string> VXGlobalConfiguration::alternateThinningModelIdentifier() const {
  return PreferenceStore::copyText("ThinnedAppVariantID", kStoreDaemonDomain,
                                   PreferencesDirectory(_homePath));
}

}  // namespace vx
