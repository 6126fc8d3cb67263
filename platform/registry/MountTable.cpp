#include "platform/registry/MountTable.h"

#include <cerrno>
#include <mutex>
#include <sstream>

#include "platform/files/AtomicFile.h"

namespace vx {
namespace {

std::mutex gPathMutex;
std::string& Path() {
  static auto* path = new std::string("/proc/self/mounts");
  return *path;
}

bool IsOctal(char c) { return c >= '0' && c <= '7'; }

// The kernel writes blanks, tabs, newlines and backslashes of a field as \ooo.
std::string DecodeField(const std::string& field) {
  std::string out;
  out.reserve(field.size());
  for (size_t i = 0; i < field.size(); ++i) {
    const bool escape = field[i] == '\\' && i + 3 < field.size() && IsOctal(field[i + 1]) &&
                        IsOctal(field[i + 2]) && IsOctal(field[i + 3]);
    if (escape) {
      out.push_back(static_cast<char>(((field[i + 1] - '0') << 6) | ((field[i + 2] - '0') << 3) |
                                      (field[i + 3] - '0')));
      i += 3;
    } else {
      out.push_back(field[i]);
    }
  }
  return out;
}

}  // namespace

std::vector<MountEntry> ParseMountTable(const std::string& text) {
  std::vector<MountEntry> entries;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string from, on;
    if (!(fields >> from >> on)) continue;
    entries.push_back({DecodeField(from), DecodeField(on)});
  }
  return entries;
}

size_t getmntinfo(std::vector<MountEntry>* entries) {
  int error = 0;
  auto bytes = ReadFileContents(MountTablePath(), &error);
  if (!bytes) {
    errno = error;
    return 0;
  }
  std::vector<MountEntry> parsed = ParseMountTable(std::string(bytes->begin(), bytes->end()));
  if (parsed.empty()) {
    errno = ENODATA;
    return 0;
  }
  *entries = std::move(parsed);
  return entries->size();
}

void SetMountTablePath(std::string path) {
  std::lock_guard lock(gPathMutex);
  Path() = std::move(path);
}

std::string MountTablePath() {
  std::lock_guard lock(gPathMutex);
  return Path();
}

}  // namespace vx
