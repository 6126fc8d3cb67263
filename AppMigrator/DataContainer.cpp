// The application's user data, moved from its old container into the data container the
// platform assigned, and the check that nothing was left behind before the old container
// goes.
#include <algorithm>
#include <array>

#include "AppMigrator/ItemCensus.h"
#include "AppMigrator/VXAppMigrator.h"
#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
#include "platform/files/Beneath.h"
#include "platform/installer/RecoveryArea.h"
#include "platform/log/MigrationLog.h"
#include "platform/workspace/WorkspaceLayout.h"

namespace vx {
namespace {

constexpr const char* kMoveOperation =
    "-[VXAppMigrator _migrateDataContainerForIdentifier:fromURL:toURL:]";
constexpr const char* kCheckOperation = "-[VXAppMigrator _containerHasMissedItems:withIdentifier:]";

}  // namespace

// The moves are not synced one by one. The data container was made durable before anything
// moves into it, and nothing syncs the old container after the moves: a power cut then undoes
// a move whole or keeps it whole, and the run resumed from the marker moves again what came
// back. A sync here would only matter if the old container's side of a move could become
// durable alone.
bool VXAppMigrator::_migrateDataContainerForIdentifier(const std::string& identifier,
                                                       const FileURL& from, const FileURL& to) {
  const VXFileManager& fileManager = VXFileManager::defaultManager();
  if (!_setAsideReservedItemsInContainer(from, identifier)) return false;
  // Items are counted before they move, for the run's report only, and only when the host
  // asked: the count walks every file of the item, where the move is one rename.
  ContainerReport* report = _currentReport();
  const UniqueFd counted = report && _countDataItems
                               ? OpenDirectoryNoFollow(from.fileSystemRepresentation())
                               : UniqueFd();
  for (const std::string& name : VXGlobalConfiguration::sharedInstance().appUserDataItemNames()) {
    const FileURL source = from.URLByAppendingPathComponent(name);
    const FileURL destination = to.URLByAppendingPathComponent(name);
    // An item already moved by a cut-off attempt is gone from the source; its destination
    // must then be left alone, since it now holds the user's data.
    if (!fileManager.itemExistsAtURL(source)) continue;
    // The new container's own item is normally a fresh, empty default that the user's data
    // replaces; one that holds bytes (a second old container of the same application) is
    // kept in the recovery area instead.
    if (!_setAsideItemAtURL(destination, identifier, kRecoveryCourseGaveWay)) return false;
    const ItemCensus census = counted ? CensusOfItemAt(counted.get(), name) : ItemCensus{};
    ErrorRef error;
    if (!fileManager.moveItemIfExistsAtURL(source, destination, &error)) {
      VX_MIGRATION_LOG(3, kMoveOperation,
                       "VXAppMigrator: Failed to move %@ to %@ migrating for %@ : %@", source,
                       destination, identifier, error);
      return false;
    }
    if (report) {
      ++report->dataItems;
      report->dataFiles += census.files;
      report->dataBytes += census.bytes;
    }
  }
  return true;
}

// An application could write its old container, its old group containers and its items:
// an item there named like the workspace's own files (a container record above all) would
// relabel, or make unreadable, the container it moved into. It goes to the recovery area.
bool VXAppMigrator::_setAsideReservedItemsInContainer(const FileURL& container,
                                                      const std::string& identifier) {
  ErrorRef error;
  const auto entries =
      VXFileManager::defaultManager().urlsForItemsInDirectoryAtURL(container, false, &error);
  if (!entries) return true;  // nothing can be moved out of it either
  bool allAside = true;
  for (const FileURL& entry : *entries) {
    if (IsWorkspaceReservedName(entry.lastPathComponent()) &&
        !_setAsideItemAtURL(entry, identifier, kRecoveryCourseReservedName)) {
      allAside = false;
    }
  }
  return allAside;
}

bool VXAppMigrator::_containerHasMissedItems(const FileURL& container,
                                             const std::string& identifier,
                                             const std::string& placeholderBundle) {
  ErrorRef error;
  const auto entries =
      VXFileManager::defaultManager().urlsForItemsInDirectoryAtURL(container, false, &error);
  if (!entries) {
    // What cannot be seen cannot be shown to be empty; the container stays.
    VX_MIGRATION_LOG(3, kCheckOperation,
                     "VXAppMigrator: Failed to enumerate container %@ for %@ : %@",
                     container.path(), identifier, error);
    return true;
  }
  std::vector<FileURL> missed;
  for (const FileURL& entry : *entries) {
    const std::string name = entry.lastPathComponent();
    if (!ContainerBookkeepingNames().count(name) && name != placeholderBundle)
      missed.push_back(entry);
  }
  if (missed.empty()) return false;
  VX_MIGRATION_LOG(3, kCheckOperation, "VXAppMigrator: Found missed items in %@ for %@: %@",
                   container.path(), identifier, missed);
  return true;
}

}  // namespace vx
