// The index of one device's workspace, scanned once per process and then kept in step with
// every change this process makes. It is trusted only while the generation stamp says that
// no other process has written since; otherwise the next use scans again. Callers hold
// DeviceWorkspace's process-wide mutex around every use.
#pragma once

#include <optional>
#include <vector>

#include "platform/workspace/WorkspaceLayout.h"
#include "platform/workspace/WorkspaceLock.h"
#include "platform/workspace/WorkspaceRegistry.h"
#include "support/types/InstallerError.h"

namespace vx {

class WorkspaceIndexCache {
 public:
  // The one cache of `layout`'s device root in this process, made on first use.
  static WorkspaceIndexCache& forLayout(const WorkspaceLayout& layout);

  // The index for a query: O(1) when nobody else has written since the last look. A scan
  // finishes what dead writers left half done.
  const WorkspaceIndex& current();

  // A change: holds the writers' lock from `begin` to its end, with the index as the disk
  // is now. A change that fails part-way says so, and the next use scans again.
  class Change {
   public:
    WorkspaceIndex& index() { return cache_->index_; }
    void failed() { cache_->valid_ = false; }
    // A hidden container (HideContainer) whose removal waits for removeRetired().
    void removeLater(FileURL hidden) { cache_->retired_.push_back(std::move(hidden)); }

   private:
    friend class WorkspaceIndexCache;
    Change(WorkspaceIndexCache* cache, WorkspaceLock lock)
        : cache_(cache), lock_(std::move(lock)) {}
    WorkspaceIndexCache* cache_;
    WorkspaceLock lock_;
  };
  std::optional<Change> begin(ErrorRef* error);

  // Removes the containers that changes left for later. A removal that fails is logged; the
  // leftover is hidden, and the next recovery removes it.
  void removeRetired();

 private:
  explicit WorkspaceIndexCache(const WorkspaceLayout& layout) : layout_(layout) {}
  // Under the lock: scans when the stamp moved, moves it on when anything must change.
  bool refresh(WorkspaceLock& lock, bool changing, ErrorRef* error);

  WorkspaceLayout layout_;
  WorkspaceIndex index_;
  std::optional<WorkspaceGeneration> generation_;
  bool valid_ = false;
  std::vector<FileURL> retired_;
};

}  // namespace vx
