// App-group containers: the contents of each old group container move into the group
// container that the new installation was given. A group shared by several applications
// moves once, with the first of them; its entry then leaves the map.
#include "AppMigrator/VXAppMigrator.h"
#include <map>

#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
#include "platform/installer/RecoveryArea.h"
#include "platform/log/MigrationLog.h"
#include "platform/plist/PlistFile.h"
#include "platform/system/DeviceRoot.h"
#include "platform/workspace/AppWorkspace.h"
#include "platform/workspace/WorkspaceLayout.h"

namespace vx {
namespace {

constexpr const char* kOperation = "-[VXAppMigrator _migrateGroupContainersForIdentifier:]";
constexpr const char* kGroupOperation =
    "__54-[VXAppMigrator _migrateGroupContainersForIdentifier:]_block_invoke";
constexpr const char* kMoveOperation =
    "-[VXAppMigrator _moveAllItemsInGroupContainerURL:toGroupContainerURL:]";
constexpr const char* kContainerKey = "Container";
constexpr const char* kGroupContainersKey = "GroupContainers";

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

  // The new installation decides which groups the application belongs to; a group the old
  // map knows but the installation does not list stays where it is.
  for (const auto& [group, destination] : *proxy->groupContainerURLs) {
    _migrateGroupContainer(group, destination, identifier);
  }
  return true;
}

void VXAppMigrator::_migrateGroupContainer(const std::string& group, const FileURL& destination,
                                           const std::string& identifier) {
  auto entry = _groupContainerMap->find(group);
  if (entry == _groupContainerMap->end() || !entry->second.isDictionary()) {
    VX_MIGRATION_LOG(5, kGroupOperation,
                     "VXAppMigrator: No group container entry to migrate for %@[%@]", identifier,
                     group);
    return;
  }
  const std::string* devicePath = entry->second.stringForKey(kContainerKey);
  if (!devicePath) {
    VX_MIGRATION_LOG(5, kGroupOperation,
                     "VXAppMigrator: Failed to get path to group container for %@[%@]",
                     identifier, group);
    return;
  }
  const VXFileManager& fileManager = VXFileManager::defaultManager();
  // The install map records the path as the device sees it.
  const FileURL source = ResolveDevicePath(*devicePath, true);
  if (!fileManager.itemExistsAtURL(source)) {
    // A leftover whose container has gone was finished by a run cut off before it could say so.
    if (entry->second.stringForKey(kGroupLeftoverOwnerKey)) {
      _groupContainerMap->erase(entry);
      return;
    }
    VX_MIGRATION_LOG(3, kGroupOperation, "VXAppMigrator: Missing source group container at %@",
                     source.path());
    return;
  }
  VX_MIGRATION_LOG(5, kGroupOperation, "VXAppMigrator: Migrating group container %@ at %@ to %@",
                   group, source, destination);
  size_t unmoved = 0;
  if (!_setAsideReservedItemsInContainer(source, identifier) ||
      !_moveAllItemsInGroupContainerURL(source, destination, &unmoved)) {
    return;
  }
  _keepGroupRecord(destination, group, identifier);
  if (unmoved > 0) {
    // Removing the old container now would delete what is still in it. Keeping it, and its
    // entry marked with the application that owns it now, lets a later run move the rest even
    // when no old container of that application is left to lead it there.
    VX_MIGRATION_LOG(
        3, kGroupOperation,
        "VXAppMigrator: Not removing old group container at %@ because %lu items could not be "
        "moved",
        source.path(), static_cast<unsigned long>(unmoved));
    PlistDictionary marked = *entry->second.dictionary();
    marked[kGroupLeftoverOwnerKey] = identifier;
    entry->second = PlistValue(std::move(marked));
    _saveGroupContainerMap();
    return;
  }
  _groupContainerMap->erase(entry);
  ErrorRef error;
  if (!fileManager.removeItemAtURL(source, &error)) {
    VX_MIGRATION_LOG(3, kGroupOperation,
                     "VXAppMigrator: Failed to remove old group container at %@ : %@",
                     source.path(), error);
  }
}

bool VXAppMigrator::_migrateLeftoverGroupContainers() {
  if (!_groupContainerMap) return true;
  std::map<std::string, std::string> leftovers;  // group to the application that owns it
  for (const auto& [group, entry] : *_groupContainerMap) {
    if (const std::string* owner = entry.stringForKey(kGroupLeftoverOwnerKey)) {
      leftovers[group] = *owner;
    }
  }
  AppWorkspace& workspace = AppWorkspace::defaultWorkspace();
  for (const auto& [group, owner] : leftovers) {
    std::optional<BundleProxy> proxy = workspace.bundleProxyForIdentifier(owner);
    if (!proxy || !proxy->groupContainerURLs) continue;
    auto destination = proxy->groupContainerURLs->find(group);
    if (destination != proxy->groupContainerURLs->end()) {
      _migrateGroupContainer(group, destination->second, owner);
    }
  }
  for (const auto& [group, owner] : leftovers) {
    if (_groupContainerMap->count(group)) return false;
  }
  return true;
}

// The record is the workspace's and is the last word on whose container this is: should one
// of the application's making stand there after the move, whatever the route, it goes to
// the recovery area and the real one is written again.
void VXAppMigrator::_keepGroupRecord(const FileURL& container, const std::string& group,
                                     const std::string& identifier) {
  if (_readOnly) return;
  const std::optional<ContainerRecord> record = WorkspaceLayout::readRecord(container);
  if (record && record->containerClass == ContainerClass::Group && record->identifier == group) {
    return;
  }
  const FileURL url = WorkspaceLayout::recordURL(container);
  ContainerRecord real;
  real.containerClass = ContainerClass::Group;
  real.identifier = group;
  ErrorRef error;
  if (!_setAsideItemAtURL(url, identifier, kRecoveryCourseReservedName) ||
      !WorkspaceLayout::writeRecord(container, real, &error)) {
    VX_MIGRATION_LOG(3, kGroupOperation, "VXAppMigrator: Failed to restore the record of %@ : %@",
                     container.path(), error);
  }
}

void VXAppMigrator::_saveGroupContainerMap() {
  const FileURL path = VXGlobalConfiguration::sharedInstance().oldInstallMapPath();
  PlistDictionary installMap = ReadPropertyListDictionary(path.path()).value_or(PlistDictionary{});
  installMap[kGroupContainersKey] = *_groupContainerMap;
  if (!WritePropertyListFile(path.path(), PlistValue(std::move(installMap)))) {
    VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to record group containers in %@",
                     path.path());
  }
}

// Unsynced moves, as for the data container: the new group container is durable before they
// start and nothing syncs the old one after them, so a power cut undoes or keeps each move
// whole (the power-cut sweeps of a migration with a shared group cut at every step).
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
    // What the new container already holds under the same name gives way to the old data;
    // if it holds bytes, it gives way into the recovery area.
    if (!_setAsideItemAtURL(target, std::string(), kRecoveryCourseGaveWay)) {
      ++unmoved;
      continue;
    }
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
