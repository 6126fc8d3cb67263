// Making and retiring containers so that a crash at any point leaves each container either
// whole or absent: a container is assembled under a hidden name beside its final place,
// with its record, and one rename puts it in place.
#pragma once

#include <functional>
#include <initializer_list>
#include <optional>
#include <string>

#include "platform/workspace/WorkspaceLayout.h"
#include "platform/workspace/WorkspaceRegistry.h"
#include "support/types/FileURL.h"
#include "support/types/InstallerError.h"

namespace vx {

// Fills an assembly (everything but the record); false with an error to abandon it.
using ContainerFiller = std::function<bool(const FileURL& assembly, ErrorRef* error)>;

// Puts a finished assembly in place under a new name and makes it durable: the files
// written into it (`written`, open), its entries and its name. The location it now has; on
// failure the assembly stays where it was.
std::optional<FileURL> CommitAssembly(const FileURL& assembly, const std::vector<int>& written,
                                      ErrorRef* error);

// Marks an installed bundle the way its record says (install type, placeholder).
bool MarkInstalledBundle(const FileURL& bundle, const ContainerRecord& record, ErrorRef* error);

// A bundle assembly that holds its package (kPackageDirectoryName) or its bundle has passed
// the point of no return. This takes the bundle and the store metadata out of the package
// and marks the bundle; it can be repeated after a cut at any point.
bool FinishBundleAssembly(const FileURL& assembly, const ContainerRecord& record, ErrorRef* error);
// Removes what is left of the package in a committed container; a failure is only logged.
void RemovePackageLeftovers(const FileURL& container);
// Takes what is left of the package out of a committed container with one rename, beside
// the container under a hidden name, for a later removal; that location, or nothing when
// there was nothing to take (or it could only be removed at once).
std::optional<FileURL> HidePackageLeftovers(const FileURL& container);

// The new container's location once it is in place; on failure the assembly is removed.
std::optional<FileURL> CreateContainer(const WorkspaceLayout& layout, const ContainerRecord& record,
                                       const ContainerFiller& fill, ErrorRef* error);

// Takes a container out of every future scan with one rename; the hidden location it now
// has, which a later recovery removes if nobody else does.
std::optional<FileURL> HideContainer(const FileURL& container, ErrorRef* error);
// Hides a container, then removes it. A failed removal leaves a hidden leftover that a later
// recovery removes.
bool RetireContainer(const FileURL& container, ErrorRef* error);

// Whether a data container gets its default items, "Documents", "Library" and "tmp".
enum class DataDefaults {
  Made,      // made with a new container; made again where missing in an existing one
  Deferred,  // left out of a new container: its owner's items are about to move in
};

// The identifier's data container (of `containerClass`, Data or PluginData), made when there
// is none yet. Updates `index`.
std::optional<FileURL> EnsureDataContainer(const WorkspaceLayout& layout, WorkspaceIndex& index,
                                           const std::string& identifier,
                                           ContainerClass containerClass, DataDefaults defaults,
                                           ErrorRef* error);

// The group's container, made when there is none yet. Updates `index`.
std::optional<FileURL> EnsureGroupContainer(const WorkspaceLayout& layout, WorkspaceIndex& index,
                                            const std::string& group, ErrorRef* error);

// Finishes the installations that a dead process had prepared, retires superseded bundle
// containers and removes abandoned assemblies, keeping `index` in step and its leftover
// lists empty. What cannot be done is logged and left for the next scan.
void RecoverWorkspace(WorkspaceIndex& index);

}  // namespace vx
