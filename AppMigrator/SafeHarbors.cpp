// Safe harbors: data the old installer set aside for applications, handed over to the
// installer service's own register. The old map goes only once every harbor in it is
// registered, so that a refusal is retried, whole, by the next run.
#include "AppMigrator/VXAppMigrator.h"
#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
#include "platform/installer/InstallerService.h"
#include "platform/log/MigrationLog.h"
#include "platform/system/DeviceRoot.h"

namespace vx {
namespace {

constexpr const char* kOperation = "-[VXAppMigrator _migrateSafeHarbors]";
constexpr const char* kHarborMapFileName = "SafeHarbor.plist";
constexpr const char* kHarborPathKey = "HarborPathKey";
// The register's type for a data container's harbor.
constexpr int kDataContainerType = 2;

}  // namespace

bool VXAppMigrator::_migrateSafeHarbors() {
  if (!_harborMap) return true;

  // The map's keys are text by construction (a property-list dictionary has no other kind
  // of key), so only the entries need checking.
  bool success = true;
  for (const auto& [identifier, entry] : *_harborMap) {
    const PlistDictionary* harbor = entry.dictionary();
    if (!harbor) {
      VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to get harbor info for identifier %@",
                       identifier);
      continue;
    }
    const std::string* devicePath = entry.stringForKey(kHarborPathKey);
    if (!devicePath) {
      VX_MIGRATION_LOG(3, kOperation,
                       "VXAppMigrator: Failed to get harbor path from harbor entry for %@ : %@",
                       identifier, *harbor);
      continue;
    }
    // The map records the path as the device sees it; the harbor lies under the device root.
    const std::string path = ResolveDevicePath(*devicePath, true).path();
    VX_MIGRATION_LOG(5, kOperation, "VXAppMigrator: Migrating safe harbor for %@ at %@",
                     identifier, path);
    if (VelotrixRegisterSafeHarborForContainerType(path.c_str(), identifier.c_str(),
                                                   kDataContainerType, nullptr) == 0) {
      // The register gives no reason, so the message has none to show.
      VX_MIGRATION_LOG(3, kOperation,
                       "VXAppMigrator: Failed to migrate safe harbor for identifier %@ at %@ : %@",
                       identifier, path, nullptr);
      success = false;
    }
  }
  if (!success) return false;

  const FileURL mapFile = VXGlobalConfiguration::sharedInstance()
                              .dataDirectory()
                              .URLByAppendingPathComponent(kHarborMapFileName);
  VXFileManager::defaultManager().removeItemAtURL(mapFile, nullptr);
  return true;
}

}  // namespace vx
