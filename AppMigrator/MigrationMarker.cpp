// The migration marker: a container's record, written into the container before anything in
// it is touched, so that a run cut off half-way can still tell what the container was after
// its bundle has left for the staging directory.
//
// The marker lies in a directory its application could write, so on reading it is evidence,
// not instruction: it is believed only about the very directory it lies in. Its paths are
// device paths (as the device itself names its files), so that an image cut off under one
// device root resumes under another; the record handed on is rebuilt from the place the
// marker was actually found.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "AppMigrator/ContainerFiles.h"
#include "AppMigrator/VXAppMigrator.h"
#include "platform/files/Beneath.h"
#include "platform/log/MigrationLog.h"
#include "platform/plist/PlistFile.h"
#include "platform/system/DeviceRoot.h"

namespace vx {
namespace {

constexpr const char* kLoadOperation = "-[VXAppMigrator _loadAndValidateMigrationMarkerAtURL:]";
// A record of five short texts; anything near this size was not written by us.
constexpr size_t kMarkerSizeLimit = 1 << 20;
const char* const kPathKeys[] = {kContainerPathKey, kBundlePathKey, kSecondBundlePathKey};

bool HasText(const ContainerInfo& info, const char* key) {
  auto it = info.find(key);
  return it != info.end() && it->second.isString();
}

// The device paths a marker's "ContainerPath" may mean. Earlier versions recorded the
// location on the machine that ran them; such a text is still understood when it lies under
// the present device root (an image resumed where it was cut off), read as the device path
// it stands for. Either way it is believed only if it resolves to the directory the marker
// lies in: a text of an image that has moved since resolves to nothing here and fails.
std::vector<std::string> ContainerCandidates(const std::string& text) {
  std::vector<std::string> candidates{text};
  const std::string& root = DeviceRoot();
  if (root != "/" && text.compare(0, root.size(), root) == 0) {
    candidates.push_back("/" + text.substr(root.size()));
  }
  return candidates;
}

bool SameDirectory(const std::string& devicePath, const struct stat& here) {
  struct stat there {};
  const FileURL resolved = ResolveDevicePath(devicePath, true);
  return ::stat(resolved.fileSystemRepresentation(), &there) == 0 && S_ISDIR(there.st_mode) &&
         there.st_dev == here.st_dev && there.st_ino == here.st_ino;
}

// No component of `relative` beneath the container is a symbolic link, and every one but
// the last is a directory, as far as they exist: a bundle that has already moved on is no
// reason to distrust the record.
bool NoLinkOnTheWay(int containerFd, const std::string& relative) {
  const std::vector<std::string> components = PathComponents(relative);
  UniqueFd held;
  int at = containerFd;
  for (size_t i = 0; i < components.size(); ++i) {
    struct stat st {};
    if (::fstatat(at, components[i].c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      return errno == ENOENT;
    }
    if (S_ISLNK(st.st_mode)) return false;
    if (i + 1 == components.size()) break;
    if (!S_ISDIR(st.st_mode)) return false;
    UniqueFd next = OpenBeneath(at, components[i], O_RDONLY | O_DIRECTORY);
    if (!next) return false;
    held = std::move(next);
    at = held.get();
  }
  return true;
}

}  // namespace

std::optional<std::string> DevicePathOfLocation(const std::string& location) {
  const std::string& root = DeviceRoot();  // ends with "/"
  if (location.empty() || location.front() != '/') return std::nullopt;
  if (root == "/") return location;
  if (location + "/" == root) return std::string("/");
  if (location.compare(0, root.size(), root) != 0) return std::nullopt;
  return "/" + location.substr(root.size());
}

bool VXAppMigrator::_writeMigrationMarker(const ContainerInfo& info) {
  auto container = info.find(kContainerPathKey);
  if (container == info.end() || !container->second.isString()) return false;
  ContainerInfo record = info;
  for (const char* key : kPathKeys) {
    auto it = record.find(key);
    if (it == record.end() || !it->second.isString()) continue;
    std::optional<std::string> devicePath = DevicePathOfLocation(*it->second.string());
    if (!devicePath) return false;
    it->second = PlistValue(std::move(*devicePath));
  }
  const FileURL marker = FileURL::fileURLWithPath(*container->second.string(), true)
                             .URLByAppendingPathComponent(kMigrationMarkerName);
  // A resumed attempt writes back the record it read, replacing the file whole.
  return WritePropertyListFile(marker.path(), PlistValue(std::move(record)), PlistFormat::XML);
}

std::optional<ContainerInfo> VXAppMigrator::_loadAndValidateMigrationMarkerAtURL(
    const FileURL& marker) {
  return _loadAndValidateMigrationMarkerAtURL(marker, nullptr);
}

std::optional<ContainerInfo> VXAppMigrator::_loadAndValidateMigrationMarkerAtURL(
    const FileURL& marker, bool* misplaced) {
  if (misplaced) *misplaced = false;
  const FileURL containerURL = marker.URLByDeletingLastPathComponent();
  const UniqueFd container = OpenDirectoryNoFollow(containerURL.fileSystemRepresentation());
  std::optional<PlistDictionary> record;
  if (container) {
    int readError = 0;
    if (auto bytes = ReadRegularFileBeneath(container.get(), marker.lastPathComponent(),
                                            kMarkerSizeLimit, &readError)) {
      if (std::optional<PlistValue> value = ParsePropertyList(*bytes)) {
        if (PlistDictionary* dictionary = value->mutableDictionary()) {
          record = std::move(*dictionary);
        }
      }
    }
  }
  if (!record) {
    VX_MIGRATION_LOG(3, kLoadOperation,
                     "VXAppMigrator: Failed to load migration marker file from %@", marker);
    return std::nullopt;
  }
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

  // A planted marker could name another application's container, or any directory of the
  // device or of the machine: the record is taken only for the directory it lies in.
  const std::string containerText = *record->at(kContainerPathKey).string();
  struct stat here {};
  bool isHere = ::fstat(container.get(), &here) == 0;
  if (isHere) {
    isHere = false;
    for (const std::string& candidate : ContainerCandidates(containerText)) {
      if (SameDirectory(candidate, here)) isHere = true;
    }
  }
  if (!isHere) {
    VX_MIGRATION_LOG(3, kLoadOperation,
                     "VXAppMigrator: Migration marker file %@ names container %@, which is not "
                     "the container it lies in",
                     marker.path(), containerText);
    if (misplaced) *misplaced = true;
    return std::nullopt;
  }

  // The bundles must lie in that container, where the migration puts them, and be reached
  // without a link: the record's paths are rebuilt from the container as found.
  const std::string containerPath = containerURL.path();
  for (const char* key : {kBundlePathKey, kSecondBundlePathKey}) {
    auto it = record->find(key);
    if (it == record->end()) continue;
    const std::string bundleText = *it->second.string();
    std::optional<std::string> relative = BundleLocationInContainer(containerText, bundleText);
    if (!relative || !NoLinkOnTheWay(container.get(), *relative)) {
      VX_MIGRATION_LOG(3, kLoadOperation,
                       "VXAppMigrator: Migration marker file %@ names bundle %@, which does not "
                       "lie inside its container",
                       marker.path(), bundleText);
      if (misplaced) *misplaced = true;
      return std::nullopt;
    }
    it->second = PlistValue(containerPath + "/" + *relative);
  }
  (*record)[kContainerPathKey] = PlistValue(containerPath);
  return record;
}

}  // namespace vx
