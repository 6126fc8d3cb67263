#include "platform/installer/RecoveryArea.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
#include "platform/files/Beneath.h"
#include "platform/files/DirectoryStream.h"
#include "platform/files/Sys.h"
#include "platform/files/UniqueFd.h"
#include "platform/plist/PlistFile.h"
#include "platform/workspace/WorkspaceLayout.h"
#include "support/errors/ErrorMakers.h"

namespace vx {

const char* const kRecoveryCourseNoBundle = "NoReadableBundle";
const char* const kRecoveryCourseInstallFailed = "InstallFailed";
const char* const kRecoveryCourseGaveWay = "GaveWay";
const char* const kRecoveryCourseReservedName = "ReservedName";
const char* const kRecoveryCourseCrashedTwice = "CrashedTwice";
const char* const kRecoveryCourseIdentifierTaken = "IdentifierTaken";
const char* const kRecoveryCourseLeftOver = "LeftOver";
const char* const kRecoveryCourseStrayFile = "StrayFile";

namespace {

constexpr const char* kAreaName = "Recovered";
constexpr const char* kRecordName = "Record.plist";
constexpr const char* kContentName = "Content";
constexpr const char* kMoveFunction = "MoveToRecoveryArea";
// An entry being removed is renamed aside first, under this prefix.
constexpr const char* kRemovingPrefix = ".removing-";
// Deep enough for any real application tree; what lies deeper is kept rather than judged.
constexpr int kMaxWalkDepth = 128;

// To the nanosecond, so that entries made within one second still sort in their order.
std::string NowUTC() {
  struct timespec now {};
  ::clock_gettime(CLOCK_REALTIME, &now);
  std::tm parts{};
  ::gmtime_r(&now.tv_sec, &parts);
  char text[48];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text + length, sizeof text - length, ".%09ldZ", static_cast<long>(now.tv_nsec));
  return text;
}

// An entry's name starts with the identifier so that a person listing the area can tell
// what is what; an identifier comes from a bundle an application wrote, so only plain
// characters of it are kept, and never more than fits a name comfortably.
std::string NamePrefix(const std::string& identifier) {
  std::string prefix;
  for (char c : identifier.substr(0, 96)) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '.' || c == '-' || c == '_';
    prefix += plain ? c : '_';
  }
  if (prefix.empty() || prefix.front() == '.') prefix.insert(0, "unknown");
  return prefix;
}

bool DirectoryHoldsUserBytes(UniqueFd directory, const std::set<std::string>& ignoredNames,
                             int depth);

// One entry of a directory. The listing's type settles it only where it keeps the entry, or
// leads into it (and the open, which follows no link, says whether it still is a directory).
// An entry that would be passed over is looked at as it is now: one swapped since the
// listing must not hide a directory of the user's.
bool EntryHoldsUserBytes(int dirfd, const std::string& name, unsigned char type,
                         const std::set<std::string>& ignoredNames, int depth) {
  bool lookedAt = false;
  if (type == DT_REG ? ignoredNames.count(name) > 0 : type != DT_DIR) {
    struct stat st {};
    if (::fstatat(dirfd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return errno != ENOENT;
    type = S_ISREG(st.st_mode) ? DT_REG : S_ISDIR(st.st_mode) ? DT_DIR : DT_LNK;
    lookedAt = true;
  }
  if (type == DT_REG) return !ignoredNames.count(name);
  if (type != DT_DIR) return false;  // links, FIFOs, sockets, device nodes: nothing of the user's
  UniqueFd child(::openat(dirfd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (child) return DirectoryHoldsUserBytes(std::move(child), ignoredNames, depth + 1);
  if (errno == ENOENT) return false;  // gone since it was listed
  // What cannot be looked at is kept, and so is an entry that keeps changing.
  if (lookedAt || (errno != ENOTDIR && errno != ELOOP)) return true;
  return EntryHoldsUserBytes(dirfd, name, DT_UNKNOWN, ignoredNames, depth);
}

// Walks by descriptors without following any link: the tree was written by an application.
bool DirectoryHoldsUserBytes(UniqueFd directory, const std::set<std::string>& ignoredNames,
                             int depth) {
  if (depth > kMaxWalkDepth) return true;
  DirectoryStream stream(std::move(directory));
  DirentRecord entry;
  while (stream.Next(&entry)) {
    const std::string name(entry.name);
    if (EntryHoldsUserBytes(stream.fd(), name, entry.type, ignoredNames, depth)) return true;
  }
  return errno != 0;  // a listing cut short may have hidden anything
}

bool SyncDirectory(const std::string& path) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return fd && sys::Fsync(fd.get()) == 0;
}

std::string Text(const PlistDictionary& record, const char* key) {
  auto it = record.find(key);
  const std::string* text = it == record.end() ? nullptr : it->second.string();
  return text ? *text : std::string();
}

std::optional<RecoveredEntry> ReadEntry(const FileURL& area, const std::string& name) {
  const FileURL directory = area.URLByAppendingPathComponent(name, true);
  auto record =
      ReadPropertyListDictionary(directory.URLByAppendingPathComponent(kRecordName).path());
  if (!record) return std::nullopt;
  RecoveredEntry entry;
  entry.name = name;
  entry.record = {Text(*record, "Identifier"), Text(*record, "Course"),
                  Text(*record, "OriginalPath")};
  entry.time = Text(*record, "Time");
  entry.content = directory.URLByAppendingPathComponent(kContentName, true);
  DirectoryStream content(OpenDirectoryNoFollow(entry.content.fileSystemRepresentation()));
  if (!content) return std::nullopt;
  DirentRecord item;
  while (content.Next(&item)) entry.items.emplace_back(item.name);
  // A cut between the record and the move leaves an entry with nothing in it.
  if (entry.items.empty()) return std::nullopt;
  std::sort(entry.items.begin(), entry.items.end());
  return entry;
}

}  // namespace

FileURL RecoveryAreaURL() {
  return VXGlobalConfiguration::sharedInstance().dataDirectory().URLByAppendingPathComponent(
      kAreaName, true);
}

bool ItemHoldsUserBytes(const FileURL& item, const std::set<std::string>& ignoredNames) {
  // Mostly a directory: opened at once, with no look first. The open follows no link and
  // waits on nothing (O_DIRECTORY refuses a FIFO before opening it).
  UniqueFd dir(::open(item.fileSystemRepresentation(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (dir) return DirectoryHoldsUserBytes(std::move(dir), ignoredNames, 0);
  if (errno == ENOENT) return false;
  if (errno != ENOTDIR && errno != ELOOP) return true;  // what cannot be looked at is kept
  struct stat st {};
  if (::lstat(item.fileSystemRepresentation(), &st) != 0) return errno != ENOENT;
  if (S_ISREG(st.st_mode)) return !ignoredNames.count(item.lastPathComponent());
  // A directory here was swapped in since the open: kept, as what could not be looked at.
  return S_ISDIR(st.st_mode);
}

std::optional<FileURL> MoveToRecoveryArea(const FileURL& item, const RecoveryRecord& record,
                                          ErrorRef* error) {
  const VXFileManager& fileManager = VXFileManager::defaultManager();
  const FileURL area = RecoveryAreaURL();
  if (!MakeDurableDirectory(area, 0700, error)) return std::nullopt;

  std::string templ = area.URLByAppendingPathComponent(NamePrefix(record.identifier)).path() +
                      ".XXXXXX";
  if (!sys::Mkdtemp(templ.data())) {
    if (error) {
      *error = _CreateAndLogError(kMoveFunction, __LINE__, VXInstallerErrorDomain, 4,
                                  PosixCause(errno), nullptr,
                                  "Failed to create recovery entry at %s", templ);
    }
    return std::nullopt;
  }
  const FileURL entry = FileURL::fileURLWithPath(templ, true);
  // The entry's name must be durable before anything moves into it, or a power cut takes
  // it back with the item inside.
  SyncDirectory(area.path());
  const FileURL content = entry.URLByAppendingPathComponent(kContentName, true);
  if (!fileManager.createDirectoryAtURL(content, false, 0700, error)) return std::nullopt;
  const PlistDictionary fields{{"Identifier", record.identifier},
                               {"Course", record.course},
                               {"OriginalPath", record.originalPath},
                               {"Time", NowUTC()}};
  int writeError = 0;
  if (!WritePropertyListFile(entry.URLByAppendingPathComponent(kRecordName).path(),
                             PlistValue(fields), PlistFormat::XML, &writeError)) {
    if (error) {
      *error = _CreateAndLogError(kMoveFunction, __LINE__, VXInstallerErrorDomain, 4,
                                  PosixCause(writeError), nullptr,
                                  "Failed to write the record of recovery entry %s", entry.path());
    }
    return std::nullopt;
  }

  const FileURL destination =
      content.URLByAppendingPathComponent(item.lastPathComponent(), item.hasDirectoryPath());
  // The move is a rename; only an area on another file system makes it a copy, and then the
  // source goes only once the copy is whole.
  if (!fileManager.moveItemAtURL(item, destination, error)) return std::nullopt;
  // Synced into the entry, the item cannot be lost by a power cut. The directory it left
  // needs no sync: the rename is then committed whole (and were it not, the item would at
  // worst be in both places, and the next run would set the copy aside again).
  SyncDirectory(content.path());
  return destination;
}

std::vector<RecoveredEntry> RecoveredEntries() {
  std::vector<RecoveredEntry> entries;
  const FileURL area = RecoveryAreaURL();
  DirectoryStream dir(
      UniqueFd(::open(area.fileSystemRepresentation(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
  if (!dir) return entries;
  DirentRecord item;
  while (dir.Next(&item)) {
    if (item.name[0] == '.') continue;
    if (auto entry = ReadEntry(area, std::string(item.name))) entries.push_back(std::move(*entry));
  }
  std::sort(entries.begin(), entries.end(), [](const RecoveredEntry& a, const RecoveredEntry& b) {
    return a.time != b.time ? a.time < b.time : a.name < b.name;
  });
  return entries;
}

std::optional<RecoveredEntry> FindRecoveredEntry(const std::string& nameOrIdentifier,
                                                 const char* preferredCourse) {
  std::vector<RecoveredEntry> entries = RecoveredEntries();
  for (const RecoveredEntry& entry : entries) {
    if (entry.name == nameOrIdentifier) return entry;
  }
  std::optional<RecoveredEntry> newest;
  for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
    if (it->record.identifier != nameOrIdentifier) continue;
    if (preferredCourse && it->record.course == preferredCourse) return *it;
    if (!newest) newest = *it;
  }
  return newest;
}

bool RemoveRecoveredEntry(const RecoveredEntry& entry, ErrorRef* error) {
  const FileURL area = RecoveryAreaURL();
  const UniqueFd areaFd = OpenDirectoryNoFollow(area.fileSystemRepresentation());
  // Hidden names are no entries; the name was listed, so it is one component.
  const std::string aside = kRemovingPrefix + entry.name;
  // What a removal cut short left aside goes first: it was judged when it was set aside.
  std::vector<std::string> leftovers;
  DirectoryStream listing(
      UniqueFd(areaFd ? ::openat(areaFd.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1));
  DirentRecord item;
  while (listing.Next(&item)) {
    if (item.name.starts_with(kRemovingPrefix)) {
      leftovers.emplace_back(item.name);
    }
  }
  for (const std::string& leftover : leftovers) {
    VXFileManager::defaultManager().removeItemAtURL(
        area.URLByAppendingPathComponent(leftover, true), nullptr);
  }
  const bool oneName =
      !entry.name.empty() && entry.name[0] != '.' && entry.name.find('/') == std::string::npos;
  if (!oneName) errno = EINVAL;
  if (!oneName || !areaFd ||
      sys::Renameat(areaFd.get(), entry.name.c_str(), areaFd.get(), aside.c_str()) != 0) {
    if (error) {
      *error = _CreateAndLogError("RemoveRecoveredEntry", __LINE__, VXInstallerErrorDomain, 4,
                                  PosixCause(errno), nullptr,
                                  "Failed to set recovery entry %s aside for removal", entry.name);
    }
    return false;
  }
  return VXFileManager::defaultManager().removeItemAtURL(
      area.URLByAppendingPathComponent(aside, true), error);
}

FileURL RecoveredEntryURL(const RecoveredEntry& entry) {
  return RecoveryAreaURL().URLByAppendingPathComponent(entry.name, true);
}

UniqueFd OpenRecoveredEntry(const RecoveredEntry& entry) {
  const UniqueFd area = OpenDirectoryNoFollow(RecoveryAreaURL().fileSystemRepresentation());
  if (!area || entry.name.empty() || entry.name[0] == '.') return UniqueFd();
  return OpenBeneath(area.get(), entry.name, O_RDONLY | O_DIRECTORY);
}

}  // namespace vx
