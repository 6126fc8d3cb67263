// The recovery area: where the installer puts what still holds a user's bytes when the
// migration's course would otherwise delete it (a container whose bundle cannot be read, a
// bundle whose installation failed after its data moved, an item that had to give way in a
// new container). It lies in the installer data directory, on the device's own file system,
// so that everything reaches it by rename.
//
// Each entry is a directory "Recovered/<name>/" holding "Record.plist" (what it was, where it
// stood, which course sent it, when) and "Content/", into which the item is renamed whole.
// The record is written before the move, so an entry whose content is missing is one a cut
// stopped halfway: the item is then still where it stood.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/files/UniqueFd.h"
#include "support/types/FileURL.h"
#include "support/types/InstallerError.h"

namespace vx {

// Why an item went to the area.
extern const char* const kRecoveryCourseNoBundle;       // "NoReadableBundle"
extern const char* const kRecoveryCourseInstallFailed;  // "InstallFailed"
extern const char* const kRecoveryCourseGaveWay;        // "GaveWay"
// An item under a name the workspace keeps for itself, kept out of the container it moved to.
extern const char* const kRecoveryCourseReservedName;  // "ReservedName"
// A container the migration died at in two runs in a row, set aside so that the others go on.
extern const char* const kRecoveryCourseCrashedTwice;  // "CrashedTwice"
// A bundle whose identifier another container's bundle or a built-in application holds.
extern const char* const kRecoveryCourseIdentifierTaken;  // "IdentifierTaken"
// What a container still held once its data and bundle had moved (an item the migration knows
// no place for), kept with the container so that the container can leave the old root.
extern const char* const kRecoveryCourseLeftOver;  // "LeftOver"
// A regular file directly in the old container root, where only containers belong.
extern const char* const kRecoveryCourseStrayFile;  // "StrayFile"

struct RecoveryRecord {
  std::string identifier;    // the application's identifier, empty when none could be read
  std::string course;        // one of the courses above
  std::string originalPath;  // where the item stood
};

struct RecoveredEntry {
  std::string name;  // the entry's directory name, unique in the area
  RecoveryRecord record;
  std::string time;              // when it was recovered, UTC, ISO 8601
  FileURL content;               // the entry's "Content" directory
  std::vector<std::string> items;  // the names "Content" holds
};

// "Recovered" in the installer data directory.
FileURL RecoveryAreaURL();

// True when `item` (not followed if it is a link) is or holds a regular file whose name is not
// in `ignoredNames` (the migration's own files); false for an absent item, a link, or a tree
// of empty directories. A tree deeper than the walk's bound counts as holding bytes.
bool ItemHoldsUserBytes(const FileURL& item, const std::set<std::string>& ignoredNames);

// Moves `item` into a new entry by rename (a copy only if the area is on another file
// system), with its record. Returns the item's new location.
std::optional<FileURL> MoveToRecoveryArea(const FileURL& item, const RecoveryRecord& record,
                                          ErrorRef* error);

// Every complete entry, oldest first.
std::vector<RecoveredEntry> RecoveredEntries();

// The entry of that name, or else the newest entry recorded for that application identifier
// (the newest of `preferredCourse` when it has one: an application may have an item that gave
// way besides the bundle whose installation failed).
std::optional<RecoveredEntry> FindRecoveredEntry(const std::string& nameOrIdentifier,
                                                 const char* preferredCourse = nullptr);

// Deletes the entry with everything it holds. The entry leaves the listing at once (it is
// renamed aside first), so that a removal cut short is never mistaken for an entry.
bool RemoveRecoveredEntry(const RecoveredEntry& entry, ErrorRef* error);

// The entry's own directory, beside its "Content", and a descriptor of it opened without
// following a link; work inside the entry happens beneath that descriptor.
FileURL RecoveredEntryURL(const RecoveredEntry& entry);
UniqueFd OpenRecoveredEntry(const RecoveredEntry& entry);

}  // namespace vx
