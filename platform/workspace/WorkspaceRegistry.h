// The workspace's index, rebuilt from the containers on disk at every use: nothing is
// cached, so a second process (or the next run after a crash) sees what the disk holds.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/workspace/WorkspaceLayout.h"
#include "support/types/FileURL.h"

namespace vx {

struct IndexedContainer {
  FileURL url;
  ContainerRecord record;
};

struct WorkspaceIndex {
  // The installed bundle container of each identifier: the complete one with the highest
  // install sequence.
  std::map<std::string, IndexedContainer> bundles;
  // Complete bundle containers that a later installation replaced; they only wait to be
  // retired.
  std::vector<FileURL> superseded;
  // Data (and VPN plug-in data) containers by identifier; group containers by group.
  std::map<std::string, IndexedContainer> dataContainers;
  std::map<std::string, FileURL> groupContainers;
  // Assemblies and retired containers that nobody works on any more.
  std::vector<FileURL> abandoned;

  const IndexedContainer* bundle(const std::string& identifier) const;
  const IndexedContainer* dataContainer(const std::string& identifier) const;
  std::optional<FileURL> groupContainer(const std::string& group) const;
};

WorkspaceIndex ScanWorkspace(const WorkspaceLayout& layout);

// The location of a bundle container's installed bundle.
FileURL InstalledBundleURL(const IndexedContainer& container);

}  // namespace vx
