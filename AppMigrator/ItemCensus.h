// How much an item of a container holds: its regular files and their sizes. The tree is one
// its application could write, so it is walked by descriptor, nothing in it is opened but
// directories, and no symbolic link is followed: a link, FIFO or device node counts as an
// entry and never as bytes.
#pragma once

#include <cstdint>
#include <string>

namespace vx {

struct ItemCensus {
  bool exists = false;
  uint64_t files = 0;   // regular files
  uint64_t bytes = 0;   // their sizes
  uint64_t others = 0;  // links, FIFOs, sockets, device nodes
  // False when a directory could not be read, or lay deeper than the walk goes.
  bool complete = true;
};

// The item `name` (one name) of the open directory `dirfd`.
ItemCensus CensusOfItemAt(int dirfd, const std::string& name);

// The item at `path`, whose directories the caller trusts; the last component is not
// followed.
ItemCensus CensusOfItemAtPath(const std::string& path);

}  // namespace vx
