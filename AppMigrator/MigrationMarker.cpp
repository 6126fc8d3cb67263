// The migration marker: a container's record, written into the container before anything in
// it is touched, so that a run cut off half-way can still tell what the container was after
// its bundle has left for the staging directory.
#include "AppMigrator/VXAppMigrator.h"
#include "platform/log/MigrationLog.h"
#include "platform/plist/PlistFile.h"

namespace vx {
namespace {

constexpr const char* kLoadOperation = "-[VXAppMigrator _loadAndValidateMigrationMarkerAtURL:]";

bool HasText(const ContainerInfo& info, const char* key) {
  auto it = info.find(key);
  return it != info.end() && it->second.isString();
}

}  // namespace

bool VXAppMigrator::_writeMigrationMarker(const ContainerInfo& info) {
  auto container = info.find(kContainerPathKey);
  if (container == info.end() || !container->second.isString()) return false;
  const FileURL marker = FileURL::fileURLWithPath(*container->second.string(), true)
                             .URLByAppendingPathComponent(kMigrationMarkerName);
  // A resumed attempt writes back the record it read, replacing the file whole.
  return WritePropertyListFile(marker.path(), PlistValue(info), PlistFormat::XML);
}

std::optional<ContainerInfo> VXAppMigrator::_loadAndValidateMigrationMarkerAtURL(
    const FileURL& marker) {
  std::optional<PlistDictionary> record = ReadPropertyListDictionary(marker.path());
  if (!record) {
    VX_MIGRATION_LOG(3, kLoadOperation,
                     "VXAppMigrator: Failed to load migration marker file from %@", marker);
    return std::nullopt;
  }
  // Only the types are checked: the record is trusted as the container's own description,
  // and the paths in it may name what has already moved.
  if (!HasText(*record, kBundlePathKey)) {
    VX_MIGRATION_LOG(3, kLoadOperation,
                     "VXAppMigrator: Failed to get bundle path from migration marker file %@",
                     marker.path());
    return std::nullopt;
  }
  if (!HasText(*record, kContainerTypeKey)) {
    VX_MIGRATION_LOG(3, kLoadOperation,
                     "VXAppMigrator: Failed to get container type from migration marker file %@",
                     marker.path());
    return std::nullopt;
  }
  if (!HasText(*record, kContainerPathKey)) {
    VX_MIGRATION_LOG(3, kLoadOperation,
                     "VXAppMigrator: Failed to get container path from migration marker file %@",
                     marker.path());
    return std::nullopt;
  }
  if (!HasText(*record, kBundleIdentifierKey)) {
    VX_MIGRATION_LOG(
        3, kLoadOperation,
        "VXAppMigrator: Failed to get container bundle ID from migration marker file %@",
        marker.path());
    return std::nullopt;
  }
  if (auto second = record->find(kSecondBundlePathKey);
      second != record->end() && !second->second.isString()) {
    VX_MIGRATION_LOG(3, kLoadOperation, "VXAppMigrator: Second bundle path was not a string: %@",
                     second->second);
    return std::nullopt;
  }
  return record;
}

}  // namespace vx
