// The device registry's objects as a tree, read from sysfs at one moment. On Linux the
// disk-image controller is the loop driver: each loop device bound to a backing file is a
// disk-image drive, and the loop block device itself and its partitions are its media.
//
//   registry root
//   └─ KzPlovController            (present when the loop driver is)
//      └─ KzPlovHDDrive            (loopN with loop/backing_file)
//         └─ KzMedia "loopN"
//            ├─ KzMedia "loopNp1"
//            └─ KzMedia "loopNp2"
//
// Every class derives from "KzService". Siblings are in numeric order (loop2 before
// loop10), which is the registry order callers see.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "support/types/PlistValue.h"

namespace vx {

struct RegistryNode {
  std::vector<std::string> classes;  // the node's own class first, then its ancestors'
  PlistDictionary properties;
  std::vector<size_t> children;  // node indices, in registry order
};

struct RegistrySnapshot {
  std::vector<RegistryNode> nodes;  // nodes[0] is the root; indices are depth-first order

  bool conformsTo(size_t node, const std::string& className) const;
  // Depth first, `node` itself not included.
  std::vector<size_t> descendants(size_t node) const;
};

// `sysfsRoot` is "/sys" on a live system; tests give a tree of their own. A missing or
// unreadable tree gives a registry that holds only its root.
std::shared_ptr<const RegistrySnapshot> ScanSysfsRegistry(const std::string& sysfsRoot);

}  // namespace vx
