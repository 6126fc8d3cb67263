// Measuring a tree: allocated bytes of everything below a root, hard links counted once.
#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "filemanager/StringAdditions.h"
#include "filemanager/VXFileManager.h"
#include "platform/files/Beneath.h"
#include "platform/files/DirHarvest.h"
#include "platform/files/DirectoryNodes.h"
#include "platform/files/UniqueFd.h"
#include "platform/files/WorkQueue.h"
#include "platform/log/InstallerLog.h"

namespace vx {
namespace {

constexpr const char* kDiskUsage = "-[VXFileManager diskUsageForURL:]";
constexpr size_t kBatchSize = 32768;

// One record of a harvest, as far as it was returned; what was not returned reads as 0.
struct HarvestedEntry {
  uint32_t error = 0;
  const char* name = nullptr;  // NUL-terminated inside the batch buffer
  size_t nameLength = 0;       // without the NUL
  uint32_t objectType = 0;
  uint64_t fileID = 0;
  bool entryCountReturned = false;
  uint32_t entryCount = 0;
  uint32_t linkCount = 0;
  uint64_t allocatedSize = 0;
};

// Reads the fields of one record in the order the harvest packs them.
class RecordReader {
 public:
  RecordReader(const unsigned char* record, size_t length)
      : record_(record), length_(length), at_(sizeof(uint32_t)) {}

  template <typename T>
  T take() {
    T value{};
    if (at_ + sizeof value <= length_) std::memcpy(&value, record_ + at_, sizeof value);
    at_ += sizeof value;
    return value;
  }

  // A reference whose bytes are not inside the record, or not NUL-terminated, is no name.
  const char* takeName(size_t* nameLength) {
    const size_t refAt = at_;
    const auto ref = take<HarvestNameRef>();
    const int64_t start = static_cast<int64_t>(refAt) + ref.offset;
    if (ref.length == 0 || start < 0 || static_cast<uint64_t>(start) + ref.length > length_)
      return nullptr;
    const char* name = reinterpret_cast<const char*>(record_ + start);
    if (name[ref.length - 1] != '\0') return nullptr;
    *nameLength = ref.length - 1;
    return name;
  }

 private:
  const unsigned char* record_;
  size_t length_;
  size_t at_;
};

HarvestedEntry Decode(const unsigned char* record, size_t length) {
  HarvestedEntry entry;
  RecordReader reader(record, length);
  const auto returned = reader.take<HarvestAttributes>();
  if (returned.common & kHarvestCommonError) {
    entry.error = reader.take<uint32_t>();
    if (entry.error != 0) return entry;
  }
  if (returned.common & kHarvestCommonName) entry.name = reader.takeName(&entry.nameLength);
  if (returned.common & kHarvestCommonObjectType) entry.objectType = reader.take<uint32_t>();
  if (returned.common & kHarvestCommonFileID) entry.fileID = reader.take<uint64_t>();
  if (returned.directory & kHarvestDirEntryCount) {
    entry.entryCountReturned = true;
    entry.entryCount = reader.take<uint32_t>();
  }
  if (returned.file & kHarvestFileLinkCount) entry.linkCount = reader.take<uint32_t>();
  if (returned.file & kHarvestFileAllocatedSize) entry.allocatedSize = reader.take<uint64_t>();
  return entry;
}

// A name that is empty, "." or ".." or holds a slash would make the walk loop or leave
// the tree, so no child path is made from it.
bool IsPlainName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

// A directory's path for messages, made only when one is written: the path of a deep
// directory is long, and most directories never need one.
class MessagePath {
 public:
  MessagePath(const DirectoryNode* node, const std::string& base) : node_(node), base_(base) {}
  const std::string& path() const {
    if (path_.empty()) path_ = DirectoryNodes::PathOf(node_, base_);
    return path_;
  }

 private:
  const DirectoryNode* node_;
  const std::string& base_;
  mutable std::string path_;
};

// Batch buffers for the workers: one each, reused from directory to directory.
class BatchPool {
 public:
  std::vector<unsigned char> take() {
    std::lock_guard lock(mutex_);
    if (free_.empty()) return std::vector<unsigned char>(kBatchSize);
    std::vector<unsigned char> batch = std::move(free_.back());
    free_.pop_back();
    return batch;
  }
  void give(std::vector<unsigned char> batch) {
    std::lock_guard lock(mutex_);
    free_.push_back(std::move(batch));
  }

 private:
  std::mutex mutex_;
  std::vector<std::vector<unsigned char>> free_;
};

class Measurement {
 public:
  uint64_t run(const FileURL& root, unsigned workers) {
    if (root.path().empty()) {
      VX_INSTALLER_LOG(3, kDiskUsage, "Failed to get path to url %@", root);
      return 0;
    }
    rootPath_ = root.path();
    UniqueFd top(::open(rootPath_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st {};
    if (!top || ::fstat(top.get(), &st) != 0) {
      VX_INSTALLER_LOG(3, kDiskUsage, "Failed to open directory %@ : %s", rootPath_,
                       std::strerror(errno));
      return 0;
    }
    // Directories below are known by their parent and name, not by a path: a tree may be
    // deeper than any path the kernel takes.
    tree_.emplace(std::move(top), IdentityOf(st));
    // Workers share the queue of directories, the set of hard-linked files seen and the
    // total; each reads its directory into a batch of its own.
    queue_.Push(tree_->root());
    queue_.Run(workers < 1 ? 1 : workers, [this](Pending& directory) {
      std::vector<unsigned char> batch = batches_.take();
      readDirectory(directory, batch);
      batches_.give(std::move(batch));
    });
    return total_.load();
  }

 private:
  using Pending = DirectoryNode*;

  void readDirectory(const Pending& pending, std::vector<unsigned char>& batch) {
    const MessagePath directory(pending, rootPath_);
    // The tree may change while it is measured: a directory is opened from its parent with
    // no symbolic link followed, and must still be the directory that was listed.
    const SharedFd fd = tree_->Open(pending);
    if (!fd) {
      VX_INSTALLER_LOG(3, kDiskUsage, "Failed to open directory %@ : %s", directory.path(),
                       std::strerror(errno));
      return;
    }
    HarvestCursor cursor(fd->get());
    uint64_t entryIndex = 0;
    uint64_t sum = 0;  // added to the shared total once, when the directory is done
    for (;;) {
      const int count = dirharvest(cursor, request(), batch.data(), batch.size());
      if (count < 0) {
        VX_INSTALLER_LOG(3, kDiskUsage, "dirharvest on entry %llu in %@ returned error %s",
                         entryIndex, directory.path(), std::strerror(errno));
        break;
      }
      if (count == 0) break;
      size_t at = 0;
      bool broken = false;
      for (int i = 0; i < count; ++i, ++entryIndex) {
        uint32_t length = 0;
        // A length that cannot be right would send the decoder out of the batch.
        if (batch.size() - at < sizeof length) {
          broken = true;
          break;
        }
        std::memcpy(&length, batch.data() + at, sizeof length);
        if (length < sizeof length || length > batch.size() - at) {
          broken = true;
          break;
        }
        sum += handle(Decode(batch.data() + at, length), entryIndex, directory, pending);
        at += length;
      }
      if (broken) break;
    }
    total_.fetch_add(sum, std::memory_order_relaxed);
  }

  // The bytes the entry adds to the total.
  uint64_t handle(const HarvestedEntry& entry, uint64_t index, const MessagePath& directory,
                  DirectoryNode* parent) {
    if (entry.error != 0) {
      VX_INSTALLER_LOG(3, kDiskUsage, "Got error %s while processing entry %llu in %@",
                       std::strerror(static_cast<int>(entry.error)), index, directory.path());
      return 0;
    }
    if (entry.objectType == kHarvestDirectory) {
      if (entry.entryCountReturned && entry.entryCount == 0) {
        VX_INSTALLER_LOG(7, kDiskUsage, "skipping empty directory at %@/%s", directory.path(),
                         entry.name);
        return 0;
      }
      if (!entry.name) {
        VX_INSTALLER_LOG(3, kDiskUsage,
                         "Failed to get name for directory item %llu in %@; not counting its "
                         "children",
                         index, directory.path());
        return 0;
      }
      const std::string name =
          VelotrixAdditions::stringWithFileSystemRepresentation(entry.name, entry.nameLength);
      if (!IsPlainName(name)) {
        VX_INSTALLER_LOG(3, kDiskUsage,
                         "Failed to create path to child directory by appending \"%s\" to %@",
                         entry.name, directory.path());
        return 0;
      }
      // The record gives the inode alone (a device of 0 asks for no more).
      queue_.Push(tree_->Add(parent, name, {0, static_cast<ino_t>(entry.fileID)}));
      return 0;
    }
    if (entry.linkCount == 1) return entry.allocatedSize;
    // Two workers may meet two names of one file at once: the set decides which counts it.
    bool first = false;
    {
      std::lock_guard lock(seenMutex_);
      first = seen_.insert(entry.fileID).second;
    }
    if (!first) {
      VX_INSTALLER_LOG(7, kDiskUsage, "Skipping hardlinked file at %@/%s", directory.path(),
                       entry.name);
      return 0;
    }
    return entry.allocatedSize;
  }

  static const HarvestRequest& request() {
    static const HarvestRequest kRequest = [] {
      HarvestRequest r;
      r.common = kHarvestCommonReturned | kHarvestCommonError | kHarvestCommonName |
                 kHarvestCommonObjectType | kHarvestCommonFileID;
      r.directory = kHarvestDirEntryCount;
      r.file = kHarvestFileLinkCount | kHarvestFileAllocatedSize;
      return r;
    }();
    return kRequest;
  }

  std::string rootPath_;
  std::optional<DirectoryNodes> tree_;
  BatchPool batches_;
  WorkQueue<Pending> queue_;
  std::mutex seenMutex_;
  std::unordered_set<uint64_t> seen_;
  std::atomic<uint64_t> total_{0};
};

}  // namespace

uint64_t VXFileManager::diskUsageForURL(const FileURL& root) const {
  return Measurement().run(root, 1);
}

uint64_t VXFileManager::diskUsageForURL(const FileURL& root, unsigned workers) const {
  return Measurement().run(root, workers);
}

}  // namespace vx
