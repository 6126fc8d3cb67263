#include "platform/files/PowerCutMetadata.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace vx::powercut::metadata {
namespace {

// Attributes come back whole or not at all; a node holding more than this is not one the
// migration writes, and is left as it is.
constexpr size_t kMaxAttributeBytes = 64 * 1024;

struct Saved {
  int fd = -1;  // O_PATH
  mode_t mode = 0;
  uid_t owner = 0;
  gid_t group = 0;
  bool attributesKnown = false;  // a link's, or a list too large to keep, are not
  std::vector<std::pair<std::string, std::string>> attributes;
};

struct Journal {
  std::mutex mutex;
  std::map<std::pair<dev_t, ino_t>, Saved> nodes;
};

Journal& TheJournal() {
  static Journal* journal = new Journal;  // never destroyed: a cut may come at exit
  return *journal;
}

std::pair<dev_t, ino_t> KeyOf(const struct stat& st) { return {st.st_dev, st.st_ino}; }

std::string SelfPath(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

// The user attributes of the node behind `self`, read through /proc (an O_PATH descriptor
// takes no attribute call of its own).
bool ReadAttributes(const std::string& self, std::vector<std::pair<std::string, std::string>>* out) {
  std::vector<char> list(kMaxAttributeBytes);
  const char* names = list.data();
  const ssize_t length = ::listxattr(self.c_str(), list.data(), list.size());
  if (length < 0) return false;
  size_t total = 0;
  for (ssize_t at = 0; at < length; at += static_cast<ssize_t>(std::strlen(names + at)) + 1) {
    const std::string name(names + at);
    if (name.rfind("user.", 0) != 0) continue;
    std::string value(kMaxAttributeBytes, '\0');
    const ssize_t size = ::getxattr(self.c_str(), name.c_str(), value.data(), value.size());
    if (size < 0) return false;
    total += name.size() + static_cast<size_t>(size);
    if (total > kMaxAttributeBytes) return false;
    value.resize(static_cast<size_t>(size));
    out->emplace_back(name, std::move(value));
  }
  return true;
}

// Returns 0, or the errno of an owner that could not be given back (the rest is still tried).
int PutBack(const Saved& saved) {
  const std::string self = SelfPath(saved.fd);
  const int ownerError =
      ::fchownat(saved.fd, "", saved.owner, saved.group, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW) == 0
          ? 0
          : errno;
  if (!saved.attributesKnown) return ownerError;  // a link: its mode is no one's
  ::chmod(self.c_str(), saved.mode);
  std::vector<char> list(kMaxAttributeBytes);
  const char* names = list.data();
  const ssize_t length = ::listxattr(self.c_str(), list.data(), list.size());
  for (ssize_t at = 0; at < length; at += static_cast<ssize_t>(std::strlen(names + at)) + 1) {
    if (std::string(names + at).rfind("user.", 0) == 0) ::removexattr(self.c_str(), names + at);
  }
  for (const auto& [name, value] : saved.attributes) {
    ::setxattr(self.c_str(), name.c_str(), value.data(), value.size(), 0);
  }
  return ownerError;
}

}  // namespace

void Remember(int fd) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) return;
  Journal& j = TheJournal();
  std::lock_guard lock(j.mutex);
  if (j.nodes.count(KeyOf(st))) return;
  Saved saved;
  saved.fd = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (saved.fd < 0) return;
  saved.mode = st.st_mode & 07777;
  saved.owner = st.st_uid;
  saved.group = st.st_gid;
  if (!S_ISLNK(st.st_mode)) {
    saved.attributesKnown = ReadAttributes(SelfPath(saved.fd), &saved.attributes);
  }
  j.nodes.emplace(KeyOf(st), std::move(saved));
}

void Synced(const struct stat& node) {
  Journal& j = TheJournal();
  std::lock_guard lock(j.mutex);
  auto it = j.nodes.find(KeyOf(node));
  if (it == j.nodes.end()) return;
  ::close(it->second.fd);
  j.nodes.erase(it);
}

void AllSynced(dev_t device) {
  Journal& j = TheJournal();
  std::lock_guard lock(j.mutex);
  for (auto it = j.nodes.begin(); it != j.nodes.end();) {
    if (it->first.first != device) {
      ++it;
      continue;
    }
    ::close(it->second.fd);
    it = j.nodes.erase(it);
  }
}

size_t Restore(bool trace) {
  Journal& j = TheJournal();
  j.mutex.lock();  // held until the process ends
  for (const auto& [key, saved] : j.nodes) {
    if (trace) {
      const std::string line = "vx power cut: metadata of inode " + std::to_string(key.second) +
                               " back to what was synced\n";
      ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
      (void)ignored;
    }
    // A node left with an owner the disk never held would make the cut's outcome puzzle.
    if (const int error = PutBack(saved); error != 0) {
      const std::string line = "vx power cut: could not give back the owner of inode " +
                               std::to_string(key.second) + ": " + std::strerror(error) + "\n";
      ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
      (void)ignored;
    }
  }
  return j.nodes.size();
}

void Forget() {
  Journal& j = TheJournal();
  std::lock_guard lock(j.mutex);
  for (auto& [key, saved] : j.nodes) ::close(saved.fd);
  j.nodes.clear();
}

}  // namespace vx::powercut::metadata
