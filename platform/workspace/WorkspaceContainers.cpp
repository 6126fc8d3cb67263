#include "platform/workspace/WorkspaceContainers.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
#include "platform/files/Beneath.h"
#include "platform/files/Sys.h"
#include "platform/log/InstallerLog.h"
#include "support/errors/ErrorMakers.h"

namespace vx {
namespace {

constexpr mode_t kContainerMode = 0755;
constexpr const char* kRecoverFunction = "RecoverWorkspace";

const VXFileManager& Files() { return VXFileManager::defaultManager(); }

constexpr std::initializer_list<const char*> kDataDefaults = {"Documents", "Library", "tmp"};

// `existingToo`: an item already there, whatever it is, is no failure.
bool MakeDirectories(const FileURL& container, std::initializer_list<const char*> names,
                     bool existingToo, ErrorRef* error) {
  for (const char* name : names) {
    const FileURL item = container.URLByAppendingPathComponent(name, true);
    if (existingToo) {
      // The container is its application's: what stands at the name is left as it is.
      if (sys::Mkdir(item.fileSystemRepresentation(), kContainerMode) != 0 && errno != EEXIST) {
        SetError(error, PosixError("MakeDirectories", __LINE__, errno, "Failed to make %s: %s",
                                   item.path(), std::strerror(errno)));
        return false;
      }
    } else if (!Files().createDirectoryAtURL(item, false, kContainerMode, error)) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::optional<FileURL> CommitAssembly(const FileURL& assembly, const std::vector<int>& written,
                                      ErrorRef* error) {
  const FileURL parent = assembly.URLByDeletingLastPathComponent();
  const FileURL destination = parent.URLByAppendingPathComponent(NewContainerUUID(), true);
  UniqueFd directory = OpenDirectoryNoFollow(assembly.fileSystemRepresentation());
  if (!directory) {
    SetError(error, PosixError("CommitAssembly", __LINE__, errno, "Failed to open %s: %s",
                               assembly.path(), std::strerror(errno)));
    return std::nullopt;
  }
  if (!Files().moveItemAtURL(assembly, destination, error)) return std::nullopt;
  // The three syncs a container needs before anything may rely on it (data moved into it, a
  // package given up for it): the bytes of the files written into it (its record above all:
  // without it the directory is nobody's; a placeholder's own files too), the entries in it,
  // and its name in its class directory. They come after the rename, so that on a journaling file system the first
  // commits everything and the others find nothing left to do. Should one fail, the
  // container is in place all the same; only its survival of a power cut is in doubt.
  for (int fd : written) {
    if (fd >= 0 && sys::Fsync(fd) != 0) {
      VX_INSTALLER_LOG(3, "CommitAssembly", "A file in %@ may not be durable yet: %s", destination,
                       std::strerror(errno));
    }
  }
  ErrorRef syncError;
  if (sys::Fsync(directory.get()) != 0 || !SyncDirectory(parent, &syncError)) {
    VX_INSTALLER_LOG(3, "CommitAssembly", "Container %@ may not be durable yet: %@", destination,
                     syncError);
  }
  return destination;
}

bool MarkInstalledBundle(const FileURL& bundle, const ContainerRecord& record, ErrorRef* error) {
  if (record.installType && !Files().setInstallType(*record.installType, bundle, error)) {
    return false;
  }
  return record.bundleType != "Placeholder" || Files().markBundleAsPlaceholder(bundle, error);
}

bool FinishBundleAssembly(const FileURL& assembly, const ContainerRecord& record, ErrorRef* error) {
  const FileURL bundle = assembly.URLByAppendingPathComponent(record.bundleName, true);
  UniqueFd directory = OpenDirectoryNoFollow(assembly.fileSystemRepresentation());
  if (!directory) {
    SetError(error, PosixError("FinishBundleAssembly", __LINE__, errno, "Failed to open %s: %s",
                               assembly.path(), std::strerror(errno)));
    return false;
  }
  // The package came from a tree its application could write: nothing in it is followed
  // through a link, and the bundle must be a real directory.
  if (UniqueFd package =
          OpenBeneath(directory.get(), kPackageDirectoryName, O_RDONLY | O_DIRECTORY)) {
    const char* name = record.bundleName.c_str();
    struct stat st {};
    if (::fstatat(directory.get(), name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      UniqueFd payload = OpenBeneath(package.get(), "Payload", O_RDONLY | O_DIRECTORY);
      UniqueFd staged = payload
                            ? OpenBeneath(payload.get(), record.bundleName, O_RDONLY | O_DIRECTORY)
                            : UniqueFd();
      if (!staged || sys::Renameat(payload.get(), name, directory.get(), name) != 0) {
        SetError(error, PosixError("FinishBundleAssembly", __LINE__, errno,
                                   "Failed to take %s out of its package: %s", bundle.path(),
                                   std::strerror(errno)));
        return false;
      }
    }
    for (const std::string& item :
         VXGlobalConfiguration::sharedInstance().appBundleMetadataItemNames()) {
      if (::fstatat(package.get(), item.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
          sys::Renameat(package.get(), item.c_str(), directory.get(), item.c_str()) != 0) {
        SetError(error, PosixError("FinishBundleAssembly", __LINE__, errno,
                                   "Failed to move %s into %s: %s", item, assembly.path(),
                                   std::strerror(errno)));
        return false;
      }
    }
  } else if (errno != ENOENT) {
    SetError(error, PosixError("FinishBundleAssembly", __LINE__, errno,
                               "Failed to open the package in %s: %s", assembly.path(),
                               std::strerror(errno)));
    return false;
  }
  return MarkInstalledBundle(bundle, record, error);
}

void RemovePackageLeftovers(const FileURL& container) {
  const FileURL package = container.URLByAppendingPathComponent(kPackageDirectoryName, true);
  struct stat st {};
  if (::lstat(package.fileSystemRepresentation(), &st) != 0) return;
  ErrorRef error;
  if (!Files().removeItemAtURL(package, &error)) {
    VX_INSTALLER_LOG(3, "RemovePackageLeftovers", "Failed to remove %@: %@", package, error);
  }
}

std::optional<FileURL> HidePackageLeftovers(const FileURL& container) {
  const FileURL package = container.URLByAppendingPathComponent(kPackageDirectoryName, true);
  struct stat st {};
  if (::lstat(package.fileSystemRepresentation(), &st) != 0) return std::nullopt;
  FileURL hidden =
      container.URLByDeletingLastPathComponent().URLByAppendingPathComponent(NewRetiredName(), true);
  if (sys::Rename(package.fileSystemRepresentation(), hidden.fileSystemRepresentation()) == 0) {
    return hidden;
  }
  RemovePackageLeftovers(container);
  return std::nullopt;
}

std::optional<FileURL> CreateContainer(const WorkspaceLayout& layout, const ContainerRecord& record,
                                       const ContainerFiller& fill, ErrorRef* error) {
  const FileURL parent = layout.directoryForClass(record.containerClass);
  if (!MakeDurableDirectory(parent, kContainerMode, error)) return std::nullopt;

  const FileURL assembly = parent.URLByAppendingPathComponent(NewAssemblyName(), true);
  if (!Files().createDirectoryAtURL(assembly, false, kContainerMode, error)) return std::nullopt;
  std::optional<FileURL> made;
  if (!fill || fill(assembly, error)) {
    if (UniqueFd written = WorkspaceLayout::writeRecordIntoAssembly(assembly, record, error)) {
      made = CommitAssembly(assembly, {written.get()}, error);
    }
  }
  if (!made) Files().removeItemAtURL(assembly, nullptr);
  return made;
}

std::optional<FileURL> HideContainer(const FileURL& container, ErrorRef* error) {
  const FileURL parent = container.URLByDeletingLastPathComponent();
  FileURL retired = parent.URLByAppendingPathComponent(NewRetiredName(), true);
  if (!Files().moveItemAtURL(container, retired, error)) return std::nullopt;
  return retired;
}

bool RetireContainer(const FileURL& container, ErrorRef* error) {
  const std::optional<FileURL> retired = HideContainer(container, error);
  return retired && Files().removeItemAtURL(*retired, error);
}

std::optional<FileURL> EnsureDataContainer(const WorkspaceLayout& layout, WorkspaceIndex& index,
                                           const std::string& identifier,
                                           ContainerClass containerClass, DataDefaults defaults,
                                           ErrorRef* error) {
  if (const IndexedContainer* existing = index.dataContainer(identifier)) {
    if (defaults == DataDefaults::Made && !MakeDirectories(existing->url, kDataDefaults, true, error)) {
      return std::nullopt;
    }
    return existing->url;
  }
  ContainerRecord record;
  record.containerClass = containerClass;
  record.identifier = identifier;
  ContainerFiller fill;
  if (defaults == DataDefaults::Made) {
    fill = [](const FileURL& assembly, ErrorRef* e) {
      return MakeDirectories(assembly, kDataDefaults, false, e);
    };
  }
  auto made = CreateContainer(layout, record, fill, error);
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

void RecoverWorkspace(WorkspaceIndex& index) {
  // A prepared assembly holds a bundle its package no longer has: only going forward keeps it.
  for (const IndexedContainer& prepared : index.prepared) {
    ErrorRef error;
    std::optional<FileURL> placed;
    if (FinishBundleAssembly(prepared.url, prepared.record, &error)) {
      placed = CommitAssembly(prepared.url, {}, &error);
    }
    if (placed) {
      RemovePackageLeftovers(*placed);
      index.addBundle(IndexedContainer{*placed, prepared.record});
    } else {
      VX_INSTALLER_LOG(3, kRecoverFunction, "Failed to finish the installation in %@: %@",
                       prepared.url, error);
    }
  }
  for (const FileURL& old : index.superseded) {
    ErrorRef error;
    if (!RetireContainer(old, &error)) {
      VX_INSTALLER_LOG(3, kRecoverFunction, "Failed to retire replaced bundle container %@: %@",
                       old, error);
    }
  }
  for (const FileURL& leftover : index.abandoned) {
    ErrorRef error;
    if (!Files().removeItemAtURL(leftover, &error)) {
      VX_INSTALLER_LOG(3, kRecoverFunction, "Failed to remove abandoned %@: %@", leftover, error);
    }
  }
  index.prepared.clear();
  index.superseded.clear();
  index.abandoned.clear();
}

}  // namespace vx
