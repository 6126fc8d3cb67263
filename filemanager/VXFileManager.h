// The file-system layer of the whole system: every removal, creation, copy, move, listing
// and test of a file goes through the shared VXFileManager. It keeps no mutable state, so
// any thread may call it. Nothing throws: an operation returns a success flag or an absent
// result and writes an InstallerError to its optional out-parameter only on failure.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files/UniqueFd.h"
#include "support/types/FileURL.h"
#include "support/types/InstallerError.h"

namespace vx {

// One entry of a physical tree walk, as the walk's visitor sees it.
struct TraversalEntry {
  enum class Kind {
    DirectoryPre,    // a directory, before its contents
    DirectoryPost,   // the same directory, after its contents
    File,
    Symlink,
    DanglingSymlink,
    UnreadableDirectory,
    Cycle,
    Error,           // the walker could not read the entry; `error` says why
    NoStat,          // status unavailable
    Other,
  };
  std::string path;
  Kind kind = Kind::Other;
  int error = 0;
  mode_t mode = 0;  // file type and permission bits, as lstat gives them
  uid_t uid = 0;
  gid_t gid = 0;
  nlink_t nlink = 0;
  // The item itself, valid only during the visit (-1 for an entry in error): an O_PATH
  // descriptor opened without following a link, or the directory's own descriptor on its
  // second visit. A visitor that acts on it (fchownat with AT_EMPTY_PATH) touches exactly
  // the item whose status it was given, whatever has been put under its name since.
  int fd = -1;
};

class VXFileManager {
 public:
  using TraversalVisitor = std::function<bool(const TraversalEntry& entry, ErrorRef* error)>;
  using ProtectionClassPredicate = std::function<bool(int32_t currentClass)>;

  // The shared instance, created once under a once-only guard; never destroyed.
  static VXFileManager& defaultManager();

  // --- Core file operations ---------------------------------------------------------
  bool removeItemAtURL(const std::optional<FileURL>& url, ErrorRef* error) const;
  // The same removal by `workers` threads, which empty different directories at once; each
  // directory still goes only after its last entry. With more than one worker the order of
  // the removals (and of the fault seam's count) varies from run to run, so the migration
  // keeps to the one-worker forms.
  bool removeItemAtURL(const std::optional<FileURL>& url, unsigned workers,
                       ErrorRef* error) const;
  // `protectionClass` -1 leaves the class unchanged.
  bool createDirectoryAtURL(const FileURL& url, bool withIntermediateDirectories, mode_t mode,
                            int32_t protectionClass, ErrorRef* error) const;
  bool createDirectoryAtURL(const FileURL& url, bool withIntermediateDirectories, mode_t mode,
                            ErrorRef* error) const;
  bool _copyItemAtURL(const FileURL& source, const FileURL& destination, bool failIfSrcMissing,
                      ErrorRef* error) const;
  bool _moveItemAtURL(const FileURL& source, const FileURL& destination, bool failIfSrcMissing,
                      ErrorRef* error) const;
  bool copyItemAtURL(const FileURL& source, const FileURL& destination, ErrorRef* error) const;
  // The same copy by `workers` threads, each copying the files of one directory at a time;
  // the copy and its metadata are those of the one-worker form.
  bool copyItemAtURL(const FileURL& source, const FileURL& destination, unsigned workers,
                     ErrorRef* error) const;
  bool copyItemIfExistsAtURL(const FileURL& source, const FileURL& destination,
                             ErrorRef* error) const;
  bool moveItemAtURL(const FileURL& source, const FileURL& destination, ErrorRef* error) const;
  bool moveItemIfExistsAtURL(const FileURL& source, const FileURL& destination,
                             ErrorRef* error) const;
  std::optional<FileURL> createTemporaryDirectoryInDirectoryURL(const FileURL& parent,
                                                                ErrorRef* error) const;
  std::optional<std::vector<FileURL>> urlsForItemsInDirectoryAtURL(const FileURL& directory,
                                                                   bool ignoringSymlinks,
                                                                   ErrorRef* error) const;
  // The same listing, handing each name to `visitor` as the directory yields it instead of
  // gathering locations: for a directory too large to hold as a list. The failure and the
  // log lines are the listing's.
  using ItemNameVisitor = std::function<void(std::string_view name, bool isDirectory)>;
  bool forEachItemInDirectoryAtURL(const FileURL& directory, bool ignoringSymlinks,
                                   const ItemNameVisitor& visitor, ErrorRef* error) const;
  bool createSymbolicLinkAtURL(const FileURL& url, const FileURL& destination,
                               ErrorRef* error) const;
  std::optional<FileURL> destinationOfSymbolicLinkAtURL(const FileURL& url,
                                                        ErrorRef* error) const;
  bool itemExistsAtURL(const FileURL& url) const;
  bool itemDoesNotExistAtURL(const FileURL& url) const;

  // --- Tree traversal and ownership normalisation -----------------------------------
  bool _traverseDirectory(const FileURL& root, ErrorRef* error,
                          const TraversalVisitor& visitor) const;
  // Owners change through each item's own descriptor, never through a path; an item that
  // is not a directory and has other links keeps its owner (logged as a refused change).
  bool standardizeOwnershipAndValidateSymlinksAtURL(const FileURL& root, uid_t uid, gid_t gid,
                                                    ErrorRef* error) const;
  // The same by `workers` threads over a shared queue of directories: every item is visited
  // once rather than a directory twice, and the walk stops at the first refusal any worker
  // meets, so which items were re-owned before it varies from run to run.
  bool standardizeOwnershipAndValidateSymlinksAtURL(const FileURL& root, uid_t uid, gid_t gid,
                                                    unsigned workers, ErrorRef* error) const;

  // --- Path containment and symlink validation --------------------------------------
  std::optional<FileURL> realPathForURL(const std::optional<FileURL>& suspicious,
                                        const std::optional<FileURL>& base) const;
  std::optional<FileURL> _realPathForURL(const FileURL& url,
                                         bool allowNonExistentPathComponents) const;
  std::optional<FileURL> _realPathWhatExistsInPath(const std::string& path) const;
  bool _validateSymlink(const std::optional<std::string>& path, int64_t startingDepth,
                        int64_t* endingDepth) const;

  // --- Bundle attributes and data protection ----------------------------------------
  bool markBundleAsPlaceholder(const FileURL& bundle, ErrorRef* error) const;
  bool bundleAtURLIsPlaceholder(const FileURL& bundle) const;
  bool setInstallType(uint64_t installType, const FileURL& bundle, ErrorRef* error) const;
  std::optional<uint64_t> installTypeForBundle(const FileURL& bundle, ErrorRef* error) const;
  bool dataProtectionClassOfItemAtURL(const FileURL& url, int32_t* protectionClass,
                                      ErrorRef* error) const;
  bool setDataProtectionClassOfItemAtURL(const FileURL& url, int32_t protectionClass,
                                         const ProtectionClassPredicate& predicate,
                                         ErrorRef* error) const;

  // --- Store data capture -----------------------------------------------------------
  bool captureStoreDataFromDirectory(const FileURL& source, const FileURL& destination,
                                     bool doCopy, bool failureIsFatal, ErrorRef* error) const;

  // --- Disk usage -------------------------------------------------------------------
  uint64_t diskUsageForURL(const FileURL& root) const;
  // The same measurement by `workers` threads; a file linked from directories that two of
  // them read is still counted once.
  uint64_t diskUsageForURL(const FileURL& root, unsigned workers) const;

  // --- Operations beneath a verified directory --------------------------------------
  // For trees that someone else may write (an old container): every name is one component
  // of an open directory and no symbolic link is followed, so nothing here can reach outside
  // the directory it was given, whatever the tree holds or becomes meanwhile. `url` and the
  // other locations only name the items in messages.
  // Creates the directory `name` in `dirfd` (one that exists already is no failure) and
  // opens it; an invalid handle and an error when it cannot be made, or when what stands
  // there is anything but a directory (a symbolic link included).
  UniqueFd createDirectoryBeneath(int dirfd, const std::string& name, mode_t mode,
                                  const FileURL& url, ErrorRef* error) const;
  // Renames `fromName` in `fromDirfd` to `toName` in `toDirfd`, a symbolic link as itself; a
  // missing source is no failure and moves nothing. Never copies: both must lie on one
  // file system.
  bool moveItemIfExistsBeneath(int fromDirfd, const std::string& fromName, int toDirfd,
                               const std::string& toName, const FileURL& from,
                               const FileURL& to, ErrorRef* error) const;
  // Store-data capture by moves from one open directory into another, with the messages
  // and failure words of `captureStoreDataFromDirectory`.
  bool captureStoreDataBeneath(int sourceDirfd, int destinationDirfd, const FileURL& source,
                               const FileURL& destination, bool failureIsFatal,
                               ErrorRef* error) const;

 private:
  VXFileManager() = default;
};

}  // namespace vx
