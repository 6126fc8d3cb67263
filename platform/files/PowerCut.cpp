#include "platform/files/PowerCut.h"

#include "platform/files/PowerCutMetadata.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <vector>

namespace vx::powercut {
namespace {

struct Key {
  dev_t device = 0;
  ino_t inode = 0;
  auto operator<=>(const Key&) const = default;
};

Key KeyOf(const struct stat& st) { return {st.st_dev, st.st_ino}; }

// One change to the entries of one or two directories. A rename is a removal from its
// source directory and a creation in its destination, and each side is durable only once
// its own directory has been synced.
struct Operation {
  enum Kind { Create, Remove, Rename };
  explicit Operation(Kind kind) : kind(kind) {}
  Kind kind;
  Key from{}, to{};  // directories: `from` for Remove and Rename, `to` for Create and Rename
  std::string fromName, toName;
  Node node;  // what was made, removed or renamed
  bool fromDurable = false, toDurable = false;
};

struct TrackedFile {
  int fd = -1;
  off_t synced = 0;
};

struct Journal {
  std::mutex mutex;
  Loss loss = Loss::Everything;
  uint64_t seed = 0;
  std::string stash;
  uint64_t stashed = 0;
  std::map<Key, int> directories;  // held open (O_PATH) to act on them by identity at the cut
  std::map<Key, TrackedFile> files;
  std::vector<Operation> operations;
  // Removed directories made again at the cut: the new node stands for the old.
  std::map<Key, Key> revived;
};

std::atomic<bool> gRecording{false};

Journal& TheJournal() {
  static Journal* journal = new Journal;  // never destroyed: a cut may come at exit
  return *journal;
}

void Say(const std::string& line) {
  std::string text = "vx power cut: " + line + "\n";
  ssize_t ignored = ::write(STDERR_FILENO, text.data(), text.size());
  (void)ignored;
}

// A name as the journal holds it: its directory (by identity, and held open) and the name
// within it.
struct Place {
  Key directory;
  int fd = -1;
  std::string leaf;
};

// Where `name` lies. Intermediate components resolve as the call itself resolved them.
std::optional<Place> Locate(Journal& j, int dirfd, const char* name) {
  std::string path(name ? name : "");
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  const size_t slash = path.rfind('/');
  const std::string directory =
      slash == std::string::npos ? "." : path.substr(0, slash ? slash : 1);
  Place place;
  place.leaf = slash == std::string::npos ? path : path.substr(slash + 1);
  if (place.leaf.empty() || place.leaf == "." || place.leaf == "..") return std::nullopt;
  int fd = ::openat(dirfd, directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  struct stat st {};
  if (::fstat(fd, &st) != 0) {
    ::close(fd);
    return std::nullopt;
  }
  place.directory = KeyOf(st);
  auto [it, added] = j.directories.emplace(place.directory, fd);
  if (!added) ::close(fd);
  place.fd = it->second;
  return place;
}

std::string Stash(Journal& j, int dirfd, const std::string& leaf) {
  if (j.stash.empty()) return {};
  std::string kept = j.stash + "/" + std::to_string(++j.stashed);
  if (::linkat(dirfd, leaf.c_str(), AT_FDCWD, kept.c_str(), 0) != 0) {
    Say("cannot keep " + leaf + " (" + std::strerror(errno) + "); it will not come back");
    return {};
  }
  return kept;
}

void Track(Journal& j, int fd, off_t synced) {
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return;
  if (j.files.count(KeyOf(st))) return;
  // A descriptor of its own, not a duplicate: a duplicate shares the open file and with it
  // any lock taken on it, which would then outlive its holder's close and block the
  // process's next lock of the same file for ever.
  const std::string self = "/proc/self/fd/" + std::to_string(fd);
  const int kept = ::open(self.c_str(), O_PATH | O_CLOEXEC);
  if (kept >= 0) j.files.emplace(KeyOf(st), TrackedFile{kept, synced});
}

// What `leaf` in `dirfd` is, and, should it go, how to bring it back.
Node Look(Journal& j, int dirfd, const std::string& leaf, bool keep) {
  Node node;
  struct stat st {};
  if (::fstatat(dirfd, leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return node;
  node.exists = true;
  node.directory = S_ISDIR(st.st_mode);
  node.device = st.st_dev;
  node.inode = st.st_ino;
  node.mode = st.st_mode & 07777;
  node.owner = st.st_uid;
  node.group = st.st_gid;
  if (keep && !node.directory) node.stash = Stash(j, dirfd, leaf);
  return node;
}

Key KeyOf(const Node& node) { return {node.device, node.inode}; }

// ---- the cut ---------------------------------------------------------------------------

bool Is(const Journal& j, int dirfd, const std::string& leaf, const Key& node) {
  struct stat st {};
  if (::fstatat(dirfd, leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
  auto revived = j.revived.find(node);
  return KeyOf(st) == node || (revived != j.revived.end() && KeyOf(st) == revived->second);
}

bool Free(int dirfd, const std::string& leaf) {
  struct stat st {};
  return ::fstatat(dirfd, leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
}

void RemoveTree(int dirfd, const std::string& leaf) {
  if (::unlinkat(dirfd, leaf.c_str(), 0) == 0 || (errno != EISDIR && errno != EPERM)) return;
  int fd = ::openat(dirfd, leaf.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return;
  if (DIR* dir = ::fdopendir(fd)) {
    std::vector<std::string> names;
    while (struct dirent* entry = ::readdir(dir)) {
      if (std::strcmp(entry->d_name, ".") && std::strcmp(entry->d_name, "..")) {
        names.emplace_back(entry->d_name);
      }
    }
    for (const std::string& name : names) RemoveTree(::dirfd(dir), name);
    ::closedir(dir);
  } else {
    ::close(fd);
  }
  ::unlinkat(dirfd, leaf.c_str(), AT_REMOVEDIR);
}

// Says what part of the rollback failed, with the reason errno holds.
void SayFailure(const char* what, const std::string& name) {
  const int error = errno;
  Say(std::string(what) + " " + name + ": " + std::strerror(error));
}

void Bring(Journal& j, const Operation& op, int dirfd) {
  if (!Free(dirfd, op.fromName)) return;
  if (op.node.directory) {
    if (::mkdirat(dirfd, op.fromName.c_str(), op.node.mode) == 0) {
      // A directory brought back with another owner or mode is a cut the disk could not
      // have made: the outcome that follows would puzzle, so say why.
      if (::fchownat(dirfd, op.fromName.c_str(), op.node.owner, op.node.group,
                     AT_SYMLINK_NOFOLLOW) != 0) {
        SayFailure("could not give back the owner of", op.fromName);
      }
      if (::fchmodat(dirfd, op.fromName.c_str(), op.node.mode, 0) != 0) {
        SayFailure("could not give back the mode of", op.fromName);
      }
      // What was removed from it before it went comes back into the new directory, which
      // the undoing (newest first) reaches next.
      int made = ::openat(dirfd, op.fromName.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      struct stat st {};
      if (made >= 0 && ::fstat(made, &st) == 0) {
        j.revived[KeyOf(op.node)] = KeyOf(st);
        auto [it, added] = j.directories.emplace(KeyOf(op.node), made);
        if (!added) {
          ::close(it->second);
          it->second = made;
        }
      }
    }
  } else if (!op.node.stash.empty()) {
    if (::linkat(AT_FDCWD, op.node.stash.c_str(), dirfd, op.fromName.c_str(), 0) != 0) {
      SayFailure("could not bring back", op.fromName);
    }
  }
}

void Undo(Journal& j, const Operation& op) {
  auto fd = [&](const Key& key) {
    auto it = j.directories.find(key);
    return it == j.directories.end() ? -1 : it->second;
  };
  const int from = fd(op.from), to = fd(op.to);
  switch (op.kind) {
    case Operation::Create:
      if (!op.toDurable && Is(j, to, op.toName, KeyOf(op.node))) RemoveTree(to, op.toName);
      break;
    case Operation::Remove:
      if (!op.fromDurable) Bring(j, op, from);
      break;
    case Operation::Rename:
      if (op.fromDurable && op.toDurable) break;
      if (!op.fromDurable && !op.toDurable) {
        if (Is(j, to, op.toName, KeyOf(op.node)) && Free(from, op.fromName)) {
          ::renameat(to, op.toName.c_str(), from, op.fromName.c_str());
        }
      } else if (!op.toDurable) {
        if (Is(j, to, op.toName, KeyOf(op.node))) RemoveTree(to, op.toName);  // lost on the way
      }
      // With only its destination synced, a rename stands whole: a journal commits the
      // removal of the old name with the new one, and a directory has one name only.
      break;
  }
}

// The partial loss: in one directory with unsynced operations, those up to a random point
// reached the disk.
void KeepPartOfOneDirectory(Journal& j) {
  std::vector<Key> candidates;
  for (const Operation& op : j.operations) {
    if (op.kind != Operation::Create && !op.fromDurable) candidates.push_back(op.from);
    if (op.kind != Operation::Remove && !op.toDurable) candidates.push_back(op.to);
  }
  if (candidates.empty()) return;
  std::sort(candidates.begin(), candidates.end());
  candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
  std::mt19937_64 random(j.seed);
  const Key chosen = candidates[random() % candidates.size()];
  std::vector<size_t> pending;  // the chosen directory's unsynced operations, in order
  for (size_t i = 0; i < j.operations.size(); ++i) {
    const Operation& op = j.operations[i];
    if ((op.kind != Operation::Create && !op.fromDurable && op.from == chosen) ||
        (op.kind != Operation::Remove && !op.toDurable && op.to == chosen)) {
      pending.push_back(i);
    }
  }
  const size_t keep = random() % (pending.size() + 1);
  Say("keeping " + std::to_string(keep) + " of " + std::to_string(pending.size()) +
      " unsynced operations of one directory");
  if (keep == 0) return;
  // The disk wrote its queue in order: what came before a surviving operation survived
  // too, in every directory, and a rename survived whole.
  for (size_t i = 0; i <= pending[keep - 1]; ++i) {
    j.operations[i].fromDurable = j.operations[i].toDurable = true;
  }
}

std::string Describe(const Operation& op) {
  static const char* const kKinds[] = {"create", "remove", "rename"};
  auto side = [](const char* what, bool durable) {
    return std::string(what) + (durable ? " synced" : " unsynced");
  };
  std::string line = std::string(kKinds[op.kind]) + " ";
  if (op.kind != Operation::Create) line += op.fromName + " (" + side("source", op.fromDurable) + ")";
  if (op.kind == Operation::Rename) line += " to ";
  if (op.kind != Operation::Remove) line += op.toName + " (" + side("destination", op.toDurable) + ")";
  return line + ", inode " + std::to_string(op.node.inode);
}

void MarkDurable(Journal& j, const Key& directory) {
  for (Operation& op : j.operations) {
    if (op.kind != Operation::Create && op.from == directory) op.fromDurable = true;
    if (op.kind != Operation::Remove && op.to == directory) op.toDurable = true;
  }
}

}  // namespace

void Start(Loss loss, uint64_t seed, const std::string& stash) {
  Journal& j = TheJournal();
  std::lock_guard lock(j.mutex);
  j.loss = loss;
  j.seed = seed;
  j.stash = stash;
  if (j.stash.empty()) {
    const char* tmp = std::getenv("TMPDIR");
    std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/vx-power-cut-XXXXXX";
    if (::mkdtemp(templ.data())) j.stash = templ;
  } else {
    ::mkdir(j.stash.c_str(), 0700);
  }
  struct rlimit limit {};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
  gRecording = true;
}

void Stop() {
  Journal& j = TheJournal();
  std::lock_guard lock(j.mutex);
  gRecording = false;
  for (auto& [key, fd] : j.directories) ::close(fd);
  for (auto& [key, file] : j.files) ::close(file.fd);
  j.directories.clear();
  j.files.clear();
  j.operations.clear();
  metadata::Forget();
}

bool Recording() { return gRecording.load(std::memory_order_relaxed); }

void Cut() {
  Journal& j = TheJournal();
  j.mutex.lock();  // held until the end: nothing may change the tree behind the rollback
  if (j.loss == Loss::AllButPartOfOneDirectory) KeepPartOfOneDirectory(j);
  // VX_FAULT_TRACE lists the journal, newest first, for a cut whose outcome puzzles.
  const char* traceVariable = std::getenv("VX_FAULT_TRACE");
  const bool trace = traceVariable && *traceVariable;
  size_t undone = 0;
  for (auto op = j.operations.rbegin(); op != j.operations.rend(); ++op) {
    undone += !(op->fromDurable || op->kind == Operation::Create) ||
              !(op->toDurable || op->kind == Operation::Remove);
    if (trace) Say(Describe(*op));
    Undo(j, *op);
  }
  size_t cut = 0;
  for (auto& [key, file] : j.files) {
    struct stat st {};
    if (::fstat(file.fd, &st) != 0 || st.st_size <= file.synced) continue;
    const std::string self = "/proc/self/fd/" + std::to_string(file.fd);
    int writable = ::open(self.c_str(), O_WRONLY | O_CLOEXEC);
    if (trace) {
      Say("file " + std::to_string(key.inode) + ": " + std::to_string(st.st_size) + " bytes cut to " +
          std::to_string(file.synced));
    }
    if (writable >= 0 && ::ftruncate(writable, file.synced) == 0) ++cut;
    if (writable >= 0) ::close(writable);
  }
  const size_t restored = metadata::Restore(trace);
  Say("undid " + std::to_string(undone) + " unsynced directory operations, cut " +
      std::to_string(cut) + " files to their synced length and put back the metadata of " +
      std::to_string(restored) + " nodes");
  ::kill(::getpid(), SIGKILL);
  ::_exit(137);
}

Pending BeforeRemove(int dirfd, const char* name) {
  Pending p;
  if (!Recording()) return p;
  Journal& j = TheJournal();
  std::lock_guard lock(j.mutex);
  if (const std::optional<Place> place = Locate(j, dirfd, name)) {
    p.node = Look(j, place->fd, place->leaf, true);
    p.active = p.node.exists;
  }
  return p;
}

void AfterRemove(int dirfd, const char* name, const Pending& p) {
  if (!p.active) return;
  Journal& j = TheJournal();
  std::lock_guard lock(j.mutex);
  const std::optional<Place> place = Locate(j, dirfd, name);
  if (!place) return;
  Operation op(Operation::Remove);
  op.from = place->directory;
  op.fromName = place->leaf;
  op.node = p.node;
  j.operations.push_back(std::move(op));
}

Pending BeforeRename(int fromDirfd, const char* from, int toDirfd, const char* to) {
  Pending p;
  if (!Recording()) return p;
  Journal& j = TheJournal();
  std::lock_guard lock(j.mutex);
  const std::optional<Place> source = Locate(j, fromDirfd, from);
  if (!source) return p;
  p.node = Look(j, source->fd, source->leaf, false);
  const std::optional<Place> destination = Locate(j, toDirfd, to);
  if (!p.node.exists || !destination) return Pending{};
  p.replaced = Look(j, destination->fd, destination->leaf, true);
  if (p.replaced.exists && KeyOf(p.replaced) == KeyOf(p.node)) {
    // Renaming a node onto another name of itself changes nothing.
    Abandon(p);
    return Pending{};
  }
  p.active = true;
  return p;
}

void AfterRename(int fromDirfd, const char* from, int toDirfd, const char* to, const Pending& p) {
  if (!p.active) return;
  Journal& j = TheJournal();
  std::lock_guard lock(j.mutex);
  const std::optional<Place> source = Locate(j, fromDirfd, from);
  const std::optional<Place> destination = Locate(j, toDirfd, to);
  if (!source || !destination) return;
  Operation op(Operation::Rename);
  op.from = source->directory;
  op.fromName = source->leaf;
  op.to = destination->directory;
  op.toName = destination->leaf;
  if (p.replaced.exists) {
    Operation gone(Operation::Remove);
    gone.from = op.to;
    gone.fromName = op.toName;
    gone.node = p.replaced;
    j.operations.push_back(std::move(gone));
  }
  op.node = p.node;
  j.operations.push_back(std::move(op));
}

void Abandon(const Pending& p) {
  for (const Node* node : {&p.node, &p.replaced}) {
    if (!node->stash.empty()) ::unlink(node->stash.c_str());
  }
}

Pending BeforeOpen(int dirfd, const char* name) {
  Pending p;
  if (!Recording()) return p;
  p.active = true;
  struct stat st {};
  p.node.exists = ::fstatat(dirfd, name, &st, 0) == 0;
  if (p.node.exists) p.size = st.st_size;
  return p;
}

void AfterOpen(int dirfd, const char* name, int fd, const Pending& p) {
  if (!p.active) return;
  if (!p.node.exists) {
    AfterCreate(dirfd, name);
    BeforeData(fd);
    return;
  }
  Journal& j = TheJournal();
  std::lock_guard lock(j.mutex);
  Track(j, fd, p.size);
}

void AfterCreate(int dirfd, const char* name, bool newNode) {
  if (!Recording()) return;
  Journal& j = TheJournal();
  std::lock_guard lock(j.mutex);
  const std::optional<Place> place = Locate(j, dirfd, name);
  if (!place) return;
  Operation op(Operation::Create);
  op.to = place->directory;
  op.toName = place->leaf;
  op.node = Look(j, place->fd, place->leaf, false);
  if (!op.node.exists) return;
  // A file made now had nothing durable in it.
  if (newNode && !j.files.count(KeyOf(op.node))) {
    int kept = ::openat(place->fd, place->leaf.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
    struct stat st {};
    if (kept >= 0 && (::fstat(kept, &st) != 0 || !S_ISREG(st.st_mode))) {
      ::close(kept);
      kept = -1;
    }
    if (kept >= 0) j.files.emplace(KeyOf(op.node), TrackedFile{kept, 0});
  }
  j.operations.push_back(std::move(op));
}

void BeforeData(int fd) {
  if (!Recording()) return;
  Journal& j = TheJournal();
  std::lock_guard lock(j.mutex);
  struct stat st {};
  if (::fstat(fd, &st) == 0) Track(j, fd, st.st_size);
}

void BeforeMetadata(int fd) {
  if (Recording()) metadata::Remember(fd);
}

void BeforeMetadataAt(int dirfd, const char* name, bool follow) {
  if (!Recording()) return;
  const int fd = ::openat(dirfd, name, O_PATH | O_CLOEXEC | (follow ? 0 : O_NOFOLLOW));
  if (fd < 0) return;
  metadata::Remember(fd);
  ::close(fd);
}

void AfterSyncFileSystem(int fd) {
  if (!Recording()) return;
  Journal& j = TheJournal();
  std::lock_guard lock(j.mutex);
  struct stat fileSystem {};
  if (::fstat(fd, &fileSystem) != 0) return;
  // The journal follows the device's own tree; a sync of another file system leaves it as
  // it is.
  for (Operation& op : j.operations) {
    if (op.from.device == fileSystem.st_dev) op.fromDurable = true;
    if (op.to.device == fileSystem.st_dev) op.toDurable = true;
  }
  for (auto& [key, file] : j.files) {
    struct stat st {};
    if (key.device == fileSystem.st_dev && ::fstat(file.fd, &st) == 0) file.synced = st.st_size;
  }
  metadata::AllSynced(fileSystem.st_dev);
}

void AfterSync(int fd) {
  if (!Recording()) return;
  Journal& j = TheJournal();
  std::lock_guard lock(j.mutex);
  struct stat st {};
  if (::fstat(fd, &st) != 0) return;
  metadata::Synced(st);
  if (S_ISDIR(st.st_mode)) {
    MarkDurable(j, KeyOf(st));
  } else if (S_ISREG(st.st_mode)) {
    Track(j, fd, st.st_size);
    j.files[KeyOf(st)].synced = st.st_size;
  }
}

}  // namespace vx::powercut
