// The directories a walk with several workers has met, each known by its parent, its name
// and its identity rather than by a path from the root: a tree may be far deeper than any
// path the kernel takes. Each directory is opened again relative to an ancestor whose
// descriptor is still held, and must prove to be the directory that was met (its (dev, ino)),
// so a directory swapped meanwhile, or a link put in its place, leads nowhere. Descriptors
// are kept for the directories opened last, as many as the process's descriptor limit
// allows; the oldest are closed first and the root's stays open throughout.
#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "platform/files/FileIdentity.h"
#include "platform/files/UniqueFd.h"

namespace vx {

// A descriptor shared by the workers that use it at once; closed with its last holder.
using SharedFd = std::shared_ptr<const UniqueFd>;

struct DirectoryNode {
  DirectoryNode* parent = nullptr;  // null for the root
  std::string name;                 // in the parent; empty for the root
  FileIdentity identity;
  size_t depth = 0;

 private:
  friend class DirectoryNodes;
  SharedFd fd;  // held while the budget allows; guarded by the table's lock
  size_t heldSince = 0;
};

class DirectoryNodes {
 public:
  // `root`: the open directory every node lies beneath, of identity `identity`.
  DirectoryNodes(UniqueFd root, FileIdentity identity);
  DirectoryNodes(const DirectoryNodes&) = delete;
  DirectoryNodes& operator=(const DirectoryNodes&) = delete;

  DirectoryNode* root() { return root_; }

  // A node for the directory `name` in `parent`, of identity `identity`; `fd`, when valid,
  // is its open descriptor, held as long as the budget allows. Safe from any worker. An
  // identity whose device is 0 (from a listing that gives the inode alone) is proven by the
  // inode alone.
  DirectoryNode* Add(DirectoryNode* parent, std::string name, FileIdentity identity,
                     UniqueFd fd = UniqueFd());

  // The node's directory, proven to be the one met; null with errno (ESTALE for another
  // directory in its place, ELOOP or ENOTDIR for something that is no directory any more).
  // Safe from any worker. The descriptor's reading position is shared with other holders.
  SharedFd Open(DirectoryNode* node);

  // The directory holding the node's, as Open gives it. When it is no longer held but the
  // node's own is, it is found through the node's ".." (and proven the same): a walk that
  // climbs back up a deep tree then pays one open per level, not a descent from afar.
  SharedFd OpenParent(DirectoryNode* node);

  // The node's directory is done with: its descriptor need not be held any more.
  void Forget(DirectoryNode* node);

  // `base` with the names from the root down to `node` appended, for messages only: it may
  // be longer than any path the kernel takes.
  static std::string PathOf(const DirectoryNode* node, const std::string& base);

 private:
  void HoldLocked(DirectoryNode* node, SharedFd fd);

  std::mutex mutex_;
  std::deque<std::unique_ptr<DirectoryNode>> nodes_;
  DirectoryNode* root_ = nullptr;
  size_t budget_;
  size_t held_ = 0;
  size_t clock_ = 0;
  std::deque<std::pair<DirectoryNode*, size_t>> heldOrder_;  // oldest first
};

}  // namespace vx
