#include "AppMigrator/RunAttempts.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "AppMigrator/VXAppMigrator.h"
#include "filemanager/VXFileManager.h"
#include "platform/installer/RecoveryArea.h"
#include "platform/log/MigrationLog.h"
#include "platform/plist/PlistFile.h"

namespace vx {
namespace {

constexpr const char* kOperation = "-[VXAppMigrator performMigration]";
constexpr const char* kNoteName = "AppMigratorCurrentItem";
constexpr const char* kCountsName = "AppMigratorCrashes.plist";
constexpr const char* kCountKey = "Crashes";
constexpr const char* kIdentifierKey = "Identifier";
// A name of the old root (at most 255 bytes) and an identifier, each NUL-padded.
constexpr size_t kFieldSize = 256;
using NoteRecord = std::array<char, 2 * kFieldSize>;

std::string Field(const NoteRecord& record, size_t offset) {
  const char* start = record.data() + offset;
  return std::string(start, ::strnlen(start, kFieldSize - 1));
}

}  // namespace

// The note and the counts lie in a directory only the installer writes; the note is still
// opened without following a link. It is written with plain calls, beside the fault seam: it
// is the run's own bookkeeping, which a fault injected into it would only make lie.
RunAttempts::RunAttempts(const FileURL& directory)
    : notePath_(directory.URLByAppendingPathComponent(kNoteName)),
      countsPath_(directory.URLByAppendingPathComponent(kCountsName)) {
  counts_ = ReadPropertyListDictionary(countsPath_.path()).value_or(PlistDictionary{});
  note_ = UniqueFd(::open(notePath_.fileSystemRepresentation(),
                          O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
  if (!note_) {
    VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to open %@ : %s", notePath_.path(),
                     std::strerror(errno));
    return;
  }
  NoteRecord record{};
  const ssize_t got = ::pread(note_.get(), record.data(), record.size(), 0);
  const std::string name = got > 0 ? Field(record, 0) : std::string();
  if (name.empty() || name.find('/') != std::string::npos) return;
  const int64_t crashes = this->crashes(name);
  PlistDictionary entry;
  if (auto it = counts_.find(name); it != counts_.end() && it->second.dictionary()) {
    entry = *it->second.dictionary();
  }
  entry[kCountKey] = static_cast<long long>(crashes + 1);
  if (const std::string identifier = Field(record, kFieldSize); !identifier.empty()) {
    entry[kIdentifierKey] = identifier;
  }
  counts_[name] = std::move(entry);
  // A note, not a failure: what this run makes of that item decides its result.
  VX_MIGRATION_LOG(5, kOperation,
                   "VXAppMigrator: The last run ended while working on %@ (%lld times in a row)",
                   name, static_cast<long long>(crashes + 1));
  saveCounts();
  // Counted once: should this run die before its first item, the next one blames nothing.
  if (::ftruncate(note_.get(), 0) != 0) note_.reset();
}

int RunAttempts::crashes(const std::string& name) const {
  auto it = counts_.find(name);
  if (it == counts_.end()) return 0;
  const PlistValue* count = it->second.find(kCountKey);
  return count ? static_cast<int>(count->int64Value().value_or(0)) : 0;
}

std::string RunAttempts::identifier(const std::string& name) const {
  auto it = counts_.find(name);
  const std::string* identifier =
      it == counts_.end() ? nullptr : it->second.stringForKey(kIdentifierKey);
  return identifier ? *identifier : std::string();
}

void RunAttempts::begin(const std::string& name, const std::string& identifier) {
  if (!note_) return;
  NoteRecord record{};
  if (name.size() < kFieldSize) std::memcpy(record.data(), name.data(), name.size());
  if (identifier.size() < kFieldSize) {
    std::memcpy(record.data() + kFieldSize, identifier.data(), identifier.size());
  }
  if (::pwrite(note_.get(), record.data(), record.size(), 0) !=
      static_cast<ssize_t>(record.size())) {
    VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to note the item in %@ : %s",
                     notePath_.path(), std::strerror(errno));
  }
}

void RunAttempts::finished(const std::string& name) {
  if (counts_.erase(name) > 0) saveCounts();
}

void RunAttempts::end() {
  if (!note_) return;
  note_.reset();
  ::unlink(notePath_.fileSystemRepresentation());
}

void RunAttempts::saveCounts() {
  ErrorRef error;
  if (counts_.empty()) {
    const VXFileManager& fileManager = VXFileManager::defaultManager();
    if (!fileManager.itemDoesNotExistAtURL(countsPath_) &&
        !fileManager.removeItemAtURL(countsPath_, &error)) {
      VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to remove %@ : %@",
                       countsPath_.path(), error);
    }
  } else if (!WritePropertyListFile(countsPath_.path(), PlistValue(counts_))) {
    VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to record crashes in %@",
                     countsPath_.path());
  }
}

}  // namespace vx

namespace vx {

// Its report says only that it was set aside: nothing in it was read, not even an identifier
// (unless a run got as far as learning it).
bool VXAppMigrator::_setAsideItemRunsDiedAt(const FileURL& item, const std::string& identifier) {
  VX_MIGRATION_LOG(3, "-[VXAppMigrator performMigration]",
                   "VXAppMigrator: Two runs in a row died at %@ ; setting it aside",
                   item.path());
  bool keptInRecovery = false;
  const bool setAside =
      _setAsideItemAtURL(item, identifier, kRecoveryCourseCrashedTwice, &keptInRecovery);
  if (ContainerReport* report = _currentReport()) {
    report->identifier = identifier;
    report->course = !setAside ? kCourseFailedKept
                     : keptInRecovery ? kCourseRecoveredAfterCrashes
                                      : kCourseRemovedAfterCrashes;
  }
  return false;
}

}  // namespace vx
