#include "platform/files/DirectoryNodes.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "platform/files/Beneath.h"

namespace vx {
namespace {

// A directory far below the nearest one held is reached in strides: each one lookup in the
// kernel, short enough for any path limit, and each stride's end proven and held, so that
// the next directory nearby (a walk climbing back up) starts from there.
constexpr size_t kStrideNames = 64;
constexpr size_t kStrideBytes = 2048;

// A share of what the process may open: a walk may hold two tables (a copy's source and
// destination), its workers a few descriptors each, and its caller some of its own.
size_t DescriptorBudget() {
  struct rlimit limit {};
  size_t soft = 1024;
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
    soft = static_cast<size_t>(limit.rlim_cur);
  }
  return std::clamp<size_t>(soft > 64 ? (soft - 64) / 4 : 0, 8, 1024);
}

bool IsMet(const FileIdentity& met, const FileIdentity& found) {
  return met.ino == found.ino && (met.dev == 0 || met.dev == found.dev);
}

}  // namespace

DirectoryNodes::DirectoryNodes(UniqueFd root, FileIdentity identity)
    : budget_(DescriptorBudget()) {
  auto node = std::make_unique<DirectoryNode>();
  node->identity = identity;
  node->fd = std::make_shared<const UniqueFd>(std::move(root));
  root_ = node.get();
  nodes_.push_back(std::move(node));
}

DirectoryNode* DirectoryNodes::Add(DirectoryNode* parent, std::string name, FileIdentity identity,
                                   UniqueFd fd) {
  auto node = std::make_unique<DirectoryNode>();
  node->parent = parent;
  node->name = std::move(name);
  node->identity = identity;
  node->depth = parent->depth + 1;
  std::lock_guard lock(mutex_);
  nodes_.push_back(std::move(node));
  DirectoryNode* added = nodes_.back().get();
  if (fd) HoldLocked(added, std::make_shared<const UniqueFd>(std::move(fd)));
  return added;
}

void DirectoryNodes::HoldLocked(DirectoryNode* node, SharedFd fd) {
  if (node == root_) return;
  if (!node->fd) ++held_;
  node->fd = std::move(fd);
  node->heldSince = ++clock_;
  heldOrder_.emplace_back(node, clock_);
  while (!heldOrder_.empty()) {
    auto [oldest, since] = heldOrder_.front();
    const bool current = oldest->fd && oldest->heldSince == since;
    if (current && held_ <= budget_) break;
    heldOrder_.pop_front();
    if (current) {
      oldest->fd.reset();
      --held_;
    }
  }
}

void DirectoryNodes::Forget(DirectoryNode* node) {
  std::lock_guard lock(mutex_);
  if (node == root_ || !node->fd) return;
  node->fd.reset();
  --held_;
}

SharedFd DirectoryNodes::Open(DirectoryNode* node) {
  std::vector<DirectoryNode*> below;  // from `node` up to the nearest held ancestor, deepest first
  SharedFd base;
  {
    std::lock_guard lock(mutex_);
    for (DirectoryNode* n = node; !base; n = n->parent) {
      if (n->fd) {
        base = n->fd;
      } else {
        below.push_back(n);
      }
    }
  }
  while (!below.empty()) {
    std::string relative;
    size_t count = 0;
    while (count < below.size() && count < kStrideNames) {
      const std::string& name = below[below.size() - 1 - count]->name;
      if (count > 0 && relative.size() + 1 + name.size() > kStrideBytes) break;
      if (count > 0) relative += '/';
      relative += name;
      ++count;
    }
    DirectoryNode* reached = below[below.size() - count];
    UniqueFd fd = count == 1 ? OpenDirectoryAt(base->get(), relative.c_str())
                             : OpenBeneath(base->get(), relative, O_RDONLY | O_DIRECTORY);
    FileIdentity identity;
    if (!fd || !IdentityOf(fd.get(), &identity)) return nullptr;
    if (!IsMet(reached->identity, identity)) {
      errno = ESTALE;
      return nullptr;
    }
    base = std::make_shared<const UniqueFd>(std::move(fd));
    below.resize(below.size() - count);
    std::lock_guard lock(mutex_);
    HoldLocked(reached, base);
  }
  return base;
}

SharedFd DirectoryNodes::OpenParent(DirectoryNode* node) {
  DirectoryNode* parent = node->parent;
  SharedFd own;
  {
    std::lock_guard lock(mutex_);
    if (parent->fd) return parent->fd;
    own = node->fd;
  }
  if (own) {
    UniqueFd fd(::openat(own->get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    FileIdentity identity;
    // Moved elsewhere meanwhile: its ".." is not the parent that was met; go by the names.
    if (fd && IdentityOf(fd.get(), &identity) && IsMet(parent->identity, identity)) {
      auto shared = std::make_shared<const UniqueFd>(std::move(fd));
      std::lock_guard lock(mutex_);
      HoldLocked(parent, shared);
      return shared;
    }
  }
  return Open(parent);
}

std::string DirectoryNodes::PathOf(const DirectoryNode* node, const std::string& base) {
  std::vector<const std::string*> names;  // deepest first
  size_t length = base.size();
  for (const DirectoryNode* n = node; n && n->parent; n = n->parent) {
    names.push_back(&n->name);
    length += n->name.size() + 1;
  }
  std::string path;
  path.reserve(length);
  path = base;
  for (size_t i = names.size(); i-- > 0;) {
    if (path.empty() || path.back() != '/') path += '/';
    path += *names[i];
  }
  return path;
}

}  // namespace vx
