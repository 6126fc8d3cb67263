// Where the workspace keeps its containers under a device root, and the small record each
// container carries so that the workspace can be rebuilt by reading the disk alone.
//
//   <root>private/var/mobile/Containers/Bundles/<UUID>/     installed bundle + store metadata
//   <root>private/var/mobile/Containers/Data/<UUID>/        an application's data
//   <root>private/var/mobile/Containers/PluginData/<UUID>/  a VPN plug-in's data
//   <root>private/var/mobile/Containers/Groups/<UUID>/      an app group's shared data
//
// Every container holds ".com.tarsel.velotrix.container.plist". A directory whose name
// starts with "." is never a container: it is one being assembled or one being retired.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/files/UniqueFd.h"
#include "support/types/FileURL.h"
#include "support/types/InstallerError.h"
#include "support/types/PlistValue.h"

namespace vx {

enum class ContainerClass { Bundle, Data, PluginData, Group };

extern const char* const kContainerRecordFileName;  // ".com.tarsel.velotrix.container.plist"
// Inside a bundle assembly: the package, moved in whole, until its bundle is taken out.
extern const char* const kPackageDirectoryName;  // ".package"

struct ContainerRecord {
  ContainerClass containerClass = ContainerClass::Bundle;
  std::string identifier;
  // Bundle containers only.
  std::string bundleName;  // "<Name>.app" or "<Name>.vpnplugin"
  std::string bundleType;  // "User", "Placeholder" or "VPNPlugin"
  std::optional<std::string> bundleVersion;
  std::vector<std::string> appGroups;
  // The install type the bundle is marked with, so that an interrupted installation can be
  // finished the way it began.
  std::optional<uint64_t> installType;
  // Orders the bundle containers of one identifier: the highest is the installation.
  int64_t installSequence = 0;
  // The old container a migrated bundle came from ("MigrationOrigin" of its installation):
  // an installation from another old container may not replace it.
  std::optional<PlistDictionary> migrationOrigin;
};

PlistDictionary ContainerRecordDictionary(const ContainerRecord& record);
// Nothing when a required entry is missing or of the wrong type.
std::optional<ContainerRecord> ContainerRecordFromDictionary(const PlistDictionary& dict);

class WorkspaceLayout {
 public:
  // `deviceRoot` is "/" for the device itself.
  explicit WorkspaceLayout(const std::string& deviceRoot);

  const std::string& deviceRoot() const { return root_; }
  FileURL containersDirectory() const;
  FileURL directoryForClass(ContainerClass containerClass) const;

  static FileURL recordURL(const FileURL& container);
  // Nothing when the container has no readable record: the errno in `error` (ENOENT for none
  // at all, EFBIG for one too large, EINVAL for one that is no record, ELOOP for a link).
  static std::optional<ContainerRecord> readRecord(const FileURL& container, int* error = nullptr);
  // Durable once it returns true.
  static bool writeRecord(const FileURL& container, const ContainerRecord& record, ErrorRef* error);
  // Writes the record into an assembly nobody else looks into and hands back the open file,
  // not yet synced: the caller syncs it when its durability is due (an invalid handle and
  // an error on failure).
  static UniqueFd writeRecordIntoAssembly(const FileURL& assembly, const ContainerRecord& record,
                                          ErrorRef* error);

 private:
  std::string root_;  // ends with "/"
};

// A random (version 4) UUID in upper-case text.
std::string NewContainerUUID();

// Names the workspace keeps inside a container or beside containers (the record, the
// generation stamp, a bundle assembly's package): a data or group move never carries an item
// of that name into a container.
bool IsWorkspaceReservedName(const std::string& name);

// Names of the directories that are not containers. An assembly carries the id of the
// process that assembles it, so that only a dead process's leftovers are cleaned away.
std::string NewAssemblyName();
std::string NewRetiredName();
bool IsHiddenContainerName(const std::string& name);
bool IsAssemblyName(const std::string& name);
// True for a leftover nobody works on any more: a retired container, or an assembly whose
// process is gone (or is this one, which has no assembly open between installations).
bool IsAbandonedHiddenName(const std::string& name);

// The names in `directory` ("." and ".." left out; a symbolic link is not followed), in
// name order, so that every scan resolves a tie the same way. Empty when it cannot be read.
std::vector<std::string> SortedEntryNames(const FileURL& directory);

// Makes the entries renamed into `directory` durable (fsyncs the directory itself).
bool SyncDirectory(const FileURL& directory, ErrorRef* error);

// Creates `directory` and its missing ancestors, each synced into its parent: what is made
// durable in it later must not vanish with a directory that a power cut takes back.
bool MakeDurableDirectory(const FileURL& directory, mode_t mode, ErrorRef* error);

}  // namespace vx
