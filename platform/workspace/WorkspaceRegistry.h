// The workspace's index, built by one scan of the containers on disk. The disk is the
// truth: the index is only a picture of it, which WorkspaceIndexCache keeps in step.
#pragma once

#include <optional>
#include <string>
#include <unordered_map>
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
  std::unordered_map<std::string, IndexedContainer> bundles;
  // Complete bundle containers that a later installation replaced; they only wait to be
  // retired.
  std::vector<FileURL> superseded;
  // Data (and VPN plug-in data) containers by identifier; group containers by group.
  std::unordered_map<std::string, IndexedContainer> dataContainers;
  std::unordered_map<std::string, FileURL> groupContainers;
  // Assemblies and retired containers that nobody works on any more.
  std::vector<FileURL> abandoned;
  // Bundle assemblies of a dead installation that already hold the package's bundle: the
  // package gave it up, so the installation can only go forward.
  std::vector<IndexedContainer> prepared;

  bool needsRecovery() const {
    return !superseded.empty() || !abandoned.empty() || !prepared.empty();
  }
  // Makes `container` the identifier's installation when its sequence is the highest; the
  // loser goes to `superseded`.
  void addBundle(IndexedContainer container);

  const IndexedContainer* bundle(const std::string& identifier) const;
  const IndexedContainer* dataContainer(const std::string& identifier) const;
  std::optional<FileURL> groupContainer(const std::string& group) const;
};

// Reads every container record (one file per container). Leftovers go to the lists that
// RecoverWorkspace works off.
WorkspaceIndex ScanWorkspace(const WorkspaceLayout& layout);

// The location of a bundle container's installed bundle.
FileURL InstalledBundleURL(const IndexedContainer& container);

}  // namespace vx
