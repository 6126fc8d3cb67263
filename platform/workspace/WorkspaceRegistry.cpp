#include "platform/workspace/WorkspaceRegistry.h"

#include <dirent.h>
#include <fcntl.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "platform/files/UniqueFd.h"
#include "platform/log/InstallerLog.h"

namespace vx {
namespace {

bool IsRealDirectory(const FileURL& url) {
  struct stat st {};
  return ::lstat(url.fileSystemRepresentation(), &st) == 0 && S_ISDIR(st.st_mode);
}

void ScanClass(const WorkspaceLayout& layout, ContainerClass containerClass,
               WorkspaceIndex& index) {
  const FileURL directory = layout.directoryForClass(containerClass);
  for (const std::string& name : SortedEntryNames(directory)) {
    const FileURL url = directory.URLByAppendingPathComponent(name, true);
    if (IsHiddenContainerName(name)) {
      if (!IsAbandonedHiddenName(name)) continue;
      if (containerClass == ContainerClass::Bundle && IsAssemblyName(name)) {
        if (auto record = WorkspaceLayout::readRecord(url);
            record && record->containerClass == containerClass &&
            (IsRealDirectory(InstalledBundleURL(IndexedContainer{url, *record})) ||
             IsRealDirectory(url.URLByAppendingPathComponent(kPackageDirectoryName, true)))) {
          index.prepared.push_back(IndexedContainer{url, std::move(*record)});
          continue;
        }
      }
      index.abandoned.push_back(url);
      continue;
    }
    // Without its record a directory is no container of ours: a container's record is the
    // last thing written before it is renamed into place. One whose record cannot be read
    // (its application may have replaced it) is left out, and said so, never the whole scan.
    int error = 0;
    auto record = WorkspaceLayout::readRecord(url, &error);
    if (!record && error != ENOENT) {
      VX_INSTALLER_LOG(3, "ScanWorkspace", "Skipping container %@: its record cannot be read: %s",
                       url, std::strerror(error));
    }
    if (!record || record->containerClass != containerClass) continue;

    switch (containerClass) {
      case ContainerClass::Bundle:
        index.addBundle(IndexedContainer{url, std::move(*record)});
        break;
      case ContainerClass::Data:
      case ContainerClass::PluginData:
        // Data is never dropped or merged: should two ever exist, the first by name wins
        // and the other stays untouched on disk.
        index.dataContainers.try_emplace(record->identifier, IndexedContainer{url, *record});
        break;
      case ContainerClass::Group:
        index.groupContainers.try_emplace(record->identifier, url);
        break;
    }
  }
}

}  // namespace

void WorkspaceIndex::addBundle(IndexedContainer container) {
  const std::string identifier = container.record.identifier;
  auto [it, inserted] = bundles.try_emplace(identifier, container);
  if (inserted) return;
  if (it->second.record.installSequence < container.record.installSequence) {
    superseded.push_back(it->second.url);
    it->second = std::move(container);
  } else {
    superseded.push_back(container.url);
  }
}

const IndexedContainer* WorkspaceIndex::bundle(const std::string& identifier) const {
  auto it = bundles.find(identifier);
  return it == bundles.end() ? nullptr : &it->second;
}

const IndexedContainer* WorkspaceIndex::dataContainer(const std::string& identifier) const {
  auto it = dataContainers.find(identifier);
  return it == dataContainers.end() ? nullptr : &it->second;
}

std::optional<FileURL> WorkspaceIndex::groupContainer(const std::string& group) const {
  auto it = groupContainers.find(group);
  if (it == groupContainers.end()) return std::nullopt;
  return it->second;
}

WorkspaceIndex ScanWorkspace(const WorkspaceLayout& layout) {
  WorkspaceIndex index;
  for (ContainerClass c : {ContainerClass::Bundle, ContainerClass::Data, ContainerClass::PluginData,
                           ContainerClass::Group}) {
    ScanClass(layout, c, index);
  }
  return index;
}

FileURL InstalledBundleURL(const IndexedContainer& container) {
  return container.url.URLByAppendingPathComponent(container.record.bundleName, true);
}

}  // namespace vx
