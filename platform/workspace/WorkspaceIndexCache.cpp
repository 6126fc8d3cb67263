#include "platform/workspace/WorkspaceIndexCache.h"

#include <sys/stat.h>

#include <memory>
#include <string>
#include <unordered_map>

#include "filemanager/VXFileManager.h"
#include "platform/log/InstallerLog.h"
#include "platform/workspace/WorkspaceContainers.h"

namespace vx {
namespace {

constexpr const char* kFunction = "WorkspaceIndexCache";

bool Exists(const FileURL& url) {
  struct stat st {};
  return ::lstat(url.fileSystemRepresentation(), &st) == 0;
}

}  // namespace

WorkspaceIndexCache& WorkspaceIndexCache::forLayout(const WorkspaceLayout& layout) {
  // Never destroyed: a process sees few device roots, and each cache lives as long as it.
  static auto* const caches =
      new std::unordered_map<std::string, std::unique_ptr<WorkspaceIndexCache>>;
  std::unique_ptr<WorkspaceIndexCache>& cache = (*caches)[layout.deviceRoot()];
  if (!cache) cache.reset(new WorkspaceIndexCache(layout));
  return *cache;
}

bool WorkspaceIndexCache::refresh(WorkspaceLock& lock, bool changing, ErrorRef* error) {
  if (!valid_ || generation_ != lock.generation()) {
    valid_ = false;
    index_ = ScanWorkspace(layout_);
  }
  if (changing || index_.needsRecovery()) {
    if (!lock.bump(error)) {
      valid_ = false;
      return false;
    }
    RecoverWorkspace(index_);
  }
  generation_ = lock.generation();
  valid_ = true;
  return true;
}

const WorkspaceIndex& WorkspaceIndexCache::current() {
  const std::optional<WorkspaceGeneration> stamp = PeekWorkspaceGeneration(layout_);
  if (valid_ && stamp == generation_) return index_;
  if (!stamp) {
    // No writer has been here (the first one makes the stamp): what there is is read
    // without the lock, so that nothing is made just for looking.
    index_ = Exists(layout_.containersDirectory()) ? ScanWorkspace(layout_) : WorkspaceIndex{};
    generation_.reset();
    valid_ = true;
    return index_;
  }
  ErrorRef error;
  std::optional<WorkspaceLock> lock = WorkspaceLock::acquire(layout_, &error);
  if (!lock || !refresh(*lock, false, &error)) {
    // A workspace that cannot be locked (read-only, say) is still read, every time afresh.
    VX_INSTALLER_LOG(3, kFunction, "Reading the workspace at %@ without its lock: %@",
                     layout_.deviceRoot(), error);
    index_ = ScanWorkspace(layout_);
    valid_ = false;
  }
  return index_;
}

std::optional<WorkspaceIndexCache::Change> WorkspaceIndexCache::begin(ErrorRef* error) {
  std::optional<WorkspaceLock> lock = WorkspaceLock::acquire(layout_, error);
  if (!lock || !refresh(*lock, true, error)) return std::nullopt;
  return Change(this, std::move(*lock));
}

void WorkspaceIndexCache::removeRetired() {
  for (const FileURL& hidden : retired_) {
    ErrorRef error;
    // Another writer's recovery may have been quicker; what is gone is no failure.
    if (!VXFileManager::defaultManager().removeItemAtURL(hidden, &error) && Exists(hidden)) {
      VX_INSTALLER_LOG(3, kFunction, "Failed to remove retired container %@: %@", hidden, error);
    }
  }
  retired_.clear();
}

}  // namespace vx
