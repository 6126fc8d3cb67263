// Nothing the user owned is deleted. Where a container, a bundle whose installation failed, or
// an item that must give way in a new container would be removed with user bytes still in
// it, it goes to the installer's recovery area instead, by rename; a person (or
// `vxmigrate recover`) can bring it back. Empty skeletons are removed as before.
#include "AppMigrator/VXAppMigrator.h"
#include "filemanager/VXFileManager.h"
#include "platform/installer/RecoveryArea.h"
#include "platform/log/MigrationLog.h"
#include "platform/system/DeviceRoot.h"

namespace vx {
namespace {

constexpr const char* kOperation = "-[VXAppMigrator _setAsideItemAtURL:identifier:course:]";

// Records name places as the device sees them, whatever directory holds its image now.
std::string DevicePathOf(const FileURL& url) {
  const std::string& root = DeviceRoot();  // ends with "/"
  const std::string& path = url.path();
  if (root != "/" && path.rfind(root, 0) == 0) return "/" + path.substr(root.size());
  return path;
}

}  // namespace

bool VXAppMigrator::_setAsideItemAtURL(const FileURL& item, const std::string& identifier,
                                       const char* course, bool* keptInRecovery) {
  if (keptInRecovery) *keptInRecovery = false;
  const VXFileManager& fileManager = VXFileManager::defaultManager();
  if (fileManager.itemDoesNotExistAtURL(item)) return true;
  const bool holdsUserBytes = ItemHoldsUserBytes(item, ContainerBookkeepingNames());
  if (_readOnly) {
    if (keptInRecovery) *keptInRecovery = holdsUserBytes;
    return true;
  }
  if (!holdsUserBytes) {
    ErrorRef error;
    if (!fileManager.removeItemAtURL(item, &error)) {
      VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to remove %@ : %@", item.path(),
                       error);
      return false;
    }
    return true;
  }
  ErrorRef error;
  const RecoveryRecord record{identifier, course, DevicePathOf(item)};
  std::optional<FileURL> kept = MoveToRecoveryArea(item, record, &error);
  if (!kept) {
    VX_MIGRATION_LOG(3, kOperation,
                     "VXAppMigrator: Failed to move %@ to the recovery area; it stays: %@",
                     item.path(), error);
    return false;
  }
  VX_MIGRATION_LOG(5, kOperation, "VXAppMigrator: Kept %@ of %@ in the recovery area at %@ (%s)",
                   item.path(), identifier.empty() ? std::string("an unknown application") : identifier,
                   kept->path(), course);
  if (keptInRecovery) *keptInRecovery = true;
  return true;
}

}  // namespace vx
