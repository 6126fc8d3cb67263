// App-group containers: the contents of each old group container move into the group
// container that the new installation was given. A group shared by several applications
// moves once, with the first of them; its entry then leaves the map.
#include "AppMigrator/VXAppMigrator.h"
#include "filemanager/VXFileManager.h"
#include "platform/log/MigrationLog.h"
#include "platform/system/DeviceRoot.h"
#include "platform/workspace/AppWorkspace.h"

namespace vx {
namespace {

constexpr const char* kOperation = "-[VXAppMigrator _migrateGroupContainersForIdentifier:]";
constexpr const char* kGroupOperation =
    "__54-[VXAppMigrator _migrateGroupContainersForIdentifier:]_block_invoke";
constexpr const char* kMoveOperation =
    "-[VXAppMigrator _moveAllItemsInGroupContainerURL:toGroupContainerURL:]";
constexpr const char* kContainerKey = "Container";

}  // namespace

bool VXAppMigrator::_migrateGroupContainersForIdentifier(const std::string& identifier) {
  if (!_groupContainerMap || _groupContainerMap->empty()) return true;

  std::optional<BundleProxy> proxy = AppWorkspace::defaultWorkspace().bundleProxyForIdentifier(
      identifier);
  if (!proxy) {
    VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to get bundle proxy for %@",
                     identifier);
    return false;
  }
  if (!proxy->groupContainerURLs) {
    VX_MIGRATION_LOG(3, kOperation,
                     "VXAppMigrator: Failed to get group container URLs for installed %@",
                     identifier);
    return false;
  }
  if (proxy->groupContainerURLs->empty()) {
    VX_MIGRATION_LOG(5, kOperation, "VXAppMigrator: No group containers to migrate for %@",
                     identifier);
    return true;
  }

  const VXFileManager& fileManager = VXFileManager::defaultManager();
  // The new installation decides which groups the application belongs to; a group the old
  // map knows but the installation does not list stays where it is.
  for (const auto& [group, destination] : *proxy->groupContainerURLs) {
    auto entry = _groupContainerMap->find(group);
    if (entry == _groupContainerMap->end() || !entry->second.isDictionary()) {
      VX_MIGRATION_LOG(5, kGroupOperation,
                       "VXAppMigrator: No group container entry to migrate for %@[%@]",
                       identifier, group);
      continue;
    }
    const std::string* devicePath = entry->second.stringForKey(kContainerKey);
    if (!devicePath) {
      VX_MIGRATION_LOG(5, kGroupOperation,
                       "VXAppMigrator: Failed to get path to group container for %@[%@]",
                       identifier, group);
      continue;
    }
    // The install map records the path as the device sees it.
    const FileURL source = ResolveDevicePath(*devicePath, true);
    if (!fileManager.itemExistsAtURL(source)) {
      VX_MIGRATION_LOG(3, kGroupOperation, "VXAppMigrator: Missing source group container at %@",
                       source.path());
      continue;
    }
    VX_MIGRATION_LOG(5, kGroupOperation, "VXAppMigrator: Migrating group container %@ at %@ to %@",
                     group, source, destination);
    size_t unmoved = 0;
    if (!_moveAllItemsInGroupContainerURL(source, destination, &unmoved)) continue;
    if (unmoved > 0) {
      // Removing the old container now would delete what is still in it; keeping it and its
      // entry lets a later run move the rest.
      VX_MIGRATION_LOG(
          3, kGroupOperation,
          "VXAppMigrator: Not removing old group container at %@ because %lu items could not be "
          "moved",
          source.path(), static_cast<unsigned long>(unmoved));
      continue;
    }
    _groupContainerMap->erase(entry);
    ErrorRef error;
    if (!fileManager.removeItemAtURL(source, &error)) {
      VX_MIGRATION_LOG(3, kGroupOperation,
                       "VXAppMigrator: Failed to remove old group container at %@ : %@",
                       source.path(), error);
    }
  }
  return true;
}

bool VXAppMigrator::_moveAllItemsInGroupContainerURL(const FileURL& source,
                                                     const FileURL& destination,
                                                     size_t* unmovedCount) {
  const VXFileManager& fileManager = VXFileManager::defaultManager();
  ErrorRef error;
  const auto entries = fileManager.urlsForItemsInDirectoryAtURL(source, false, &error);
  if (!entries) {
    VX_MIGRATION_LOG(3, kMoveOperation,
                     "VXAppMigrator: Failed to get all urls in source group container %@ : %@",
                     source.path(), error);
    return false;
  }
  size_t unmoved = 0;
  for (const FileURL& entry : *entries) {
    const FileURL target = destination.URLByAppendingPathComponent(entry.lastPathComponent());
    // What the new container already holds under the same name gives way to the old data.
    fileManager.removeItemAtURL(target, nullptr);
    ErrorRef moveError;
    if (!fileManager.moveItemIfExistsAtURL(entry, target, &moveError)) {
      VX_MIGRATION_LOG(3, kMoveOperation, "VXAppMigrator: Failed to move item %@ to %@ : %@",
                       entry.path(), target.path(), moveError);
      ++unmoved;
    }
  }
  if (unmovedCount) *unmovedCount = unmoved;
  return true;
}

}  // namespace vx
