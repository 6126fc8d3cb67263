// A snapshot of the mount table, as the BSD call of the same name gives it: one entry per
// mounted file system, in table order. On Linux it is read from /proc/self/mounts in one go,
// which never waits on a busy file system (the equivalent of the call's no-wait mode).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace vx {

struct MountEntry {
  std::string mountedFrom;  // the device or source, such as /dev/loop0p1
  std::string mountedOn;    // the mount point, a path of the host
};

// Replaces `entries` with the table's entries and returns their number; 0 with errno set
// when the table cannot be read or holds nothing (ENODATA). The kernel's octal escapes
// (\040 for a blank, ...) are decoded. Unlike the BSD record the texts are not cut at
// 1024 bytes: Linux paths may be longer, and a cut path would match nothing.
size_t getmntinfo(std::vector<MountEntry>* entries);

// Where the table is read from, "/proc/self/mounts" unless changed (tests give a file).
void SetMountTablePath(std::string path);
std::string MountTablePath();

// Parses text in the format of /proc/self/mounts; lines with fewer than two fields are
// skipped.
std::vector<MountEntry> ParseMountTable(const std::string& text);

}  // namespace vx
