#include "platform/workspace/WorkspaceContainers.h"

#include "filemanager/VXFileManager.h"
#include "platform/log/InstallerLog.h"

namespace vx {
namespace {

constexpr mode_t kContainerMode = 0755;
constexpr const char* kRecoverFunction = "RecoverWorkspace";

const VXFileManager& Files() { return VXFileManager::defaultManager(); }

bool MakeDirectories(const FileURL& container, std::initializer_list<const char*> names,
                     ErrorRef* error) {
  for (const char* name : names) {
    if (!Files().createDirectoryAtURL(container.URLByAppendingPathComponent(name, true), false,
                                      kContainerMode, error)) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::optional<FileURL> CreateContainer(const WorkspaceLayout& layout, const ContainerRecord& record,
                                       const ContainerFiller& fill, ErrorRef* error) {
  const FileURL parent = layout.directoryForClass(record.containerClass);
  if (!Files().createDirectoryAtURL(parent, true, kContainerMode, error)) return std::nullopt;

  const FileURL assembly = parent.URLByAppendingPathComponent(NewAssemblyName(), true);
  const FileURL destination = parent.URLByAppendingPathComponent(NewContainerUUID(), true);
  if (!Files().createDirectoryAtURL(assembly, false, kContainerMode, error)) return std::nullopt;
  const bool assembled = (!fill || fill(assembly, error)) &&
                         WorkspaceLayout::writeRecord(assembly, record, error) &&
                         Files().moveItemAtURL(assembly, destination, error);
  if (!assembled) {
    Files().removeItemAtURL(assembly, nullptr);
    return std::nullopt;
  }
  // The container is in place; should the directory sync fail it is still whole, only its
  // survival of a power cut is in doubt, which a later sync settles.
  ErrorRef syncError;
  if (!SyncDirectory(parent, &syncError)) {
    VX_INSTALLER_LOG(3, "CreateContainer", "Container %@ may not be durable yet: %@", destination,
                     syncError);
  }
  return destination;
}

bool RetireContainer(const FileURL& container, ErrorRef* error) {
  const FileURL parent = container.URLByDeletingLastPathComponent();
  const FileURL retired = parent.URLByAppendingPathComponent(NewRetiredName(), true);
  if (!Files().moveItemAtURL(container, retired, error)) return false;
  return Files().removeItemAtURL(retired, error);
}

std::optional<FileURL> EnsureDataContainer(const WorkspaceLayout& layout, WorkspaceIndex& index,
                                           const std::string& identifier,
                                           ContainerClass containerClass, ErrorRef* error) {
  if (const IndexedContainer* existing = index.dataContainer(identifier)) return existing->url;
  ContainerRecord record;
  record.containerClass = containerClass;
  record.identifier = identifier;
  auto made = CreateContainer(
      layout, record,
      [](const FileURL& assembly, ErrorRef* e) {
        return MakeDirectories(assembly, {"Documents", "Library", "tmp"}, e);
      },
      error);
  if (made) index.dataContainers.emplace(identifier, IndexedContainer{*made, record});
  return made;
}

std::optional<FileURL> EnsureGroupContainer(const WorkspaceLayout& layout, WorkspaceIndex& index,
                                            const std::string& group, ErrorRef* error) {
  if (auto existing = index.groupContainer(group)) return existing;
  ContainerRecord record;
  record.containerClass = ContainerClass::Group;
  record.identifier = group;
  auto made = CreateContainer(layout, record, nullptr, error);
  if (made) index.groupContainers.emplace(group, *made);
  return made;
}

void RecoverWorkspace(const WorkspaceIndex& index) {
  for (const FileURL& leftover : index.abandoned) {
    ErrorRef error;
    if (!Files().removeItemAtURL(leftover, &error)) {
      VX_INSTALLER_LOG(3, kRecoverFunction, "Failed to remove abandoned %@: %@", leftover, error);
    }
  }
  for (const FileURL& old : index.superseded) {
    ErrorRef error;
    if (!RetireContainer(old, &error)) {
      VX_INSTALLER_LOG(3, kRecoverFunction, "Failed to retire replaced bundle container %@: %@",
                       old, error);
    }
  }
}

}  // namespace vx
