// `vxmigrate recover`: what a migration kept in the recovery area rather than delete it, and
// the way back: a bundle whose installation failed is installed again over its placeholder
// (its data container, which already holds its data, stays), and an entry the user no longer
// wants is deleted only when asked twice.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/StoreDataItems.h"
#include "filemanager/VXFileManager.h"
#include "host/Command.h"
#include "host/DisplayText.h"
#include "host/LogSetup.h"
#include "host/PluginLoader.h"
#include "platform/files/Beneath.h"
#include "platform/files/DirectoryStream.h"
#include "platform/files/Fault.h"
#include "platform/files/Sys.h"
#include "platform/installer/RecoveryArea.h"
#include "platform/plist/PlistFile.h"
#include "platform/system/DeviceRoot.h"
#include "platform/workspace/AppWorkspace.h"
#include "platform/workspace/Workspace.h"
#include "platform/workspace/WorkspaceLayout.h"

namespace vx::host {
namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
// The install type a migration gives the bundles it installs; a recovered bundle finishes
// that migration.
const std::set<std::string> kMigrationFiles{"com.tarsel.velotrix.container_migrator.plist"};
// What the migration reads in a group's entry of the old install map: the application whose
// group container takes the group's items.
constexpr const char* kGroupOwnerKey = "MigratingIdentifier";

struct RecoverOptions {
  std::optional<std::string> root;
  std::optional<std::string> entry;
  bool json = false;
  bool purge = false;
  bool yes = false;
};

nlohmann::ordered_json Json(const RecoveredEntry& entry) {
  return {{"name", entry.name},
          {"identifier", entry.record.identifier},
          {"course", entry.record.course},
          {"originalPath", entry.record.originalPath},
          {"time", entry.time},
          {"content", entry.content.path()},
          {"items", entry.items}};
}

int List(bool json) {
  const std::vector<RecoveredEntry> entries = RecoveredEntries();
  if (json) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const RecoveredEntry& entry : entries) list.push_back(Json(entry));
    std::cout << JsonText(list) << std::endl;
    return 0;
  }
  if (entries.empty()) {
    std::cout << "The recovery area " << RecoveryAreaURL().path() << " holds nothing.\n";
    return 0;
  }
  for (const RecoveredEntry& entry : entries) {
    std::cout << EscapedText(entry.name) << "  " << EscapedText(entry.record.course) << "  "
              << (entry.record.identifier.empty() ? "-" : EscapedText(entry.record.identifier))
              << "  " << EscapedText(entry.time) << "\n  from "
              << EscapedText(entry.record.originalPath) << "\n  now  "
              << EscapedText(entry.content.path()) << "\n";
  }
  return 0;
}

// What `recover` has done for an entry, kept beside the entry's record and written
// atomically before each stage, so that a run cut off anywhere is finished by the next one.
constexpr const char* kProgressName = "Recovery.plist";
constexpr const char* kStepKey = "Step";
// The bundle is being moved into the entry's package and installed from there; an empty
// package then means the installation took it.
constexpr const char* kStepInstalling = "Installing";
// Installed: the groups that waited for it are still to be marked and moved.
constexpr const char* kStepInstalled = "Installed";
// Nothing left to do but clear the entry (unless it keeps files of the user's).
constexpr const char* kStepDone = "Done";
// The package is built in the entry itself, beside its content: every directory on the way
// to it is ours, whatever the application planted in its container.
constexpr const char* kPackageName = "Package";
constexpr const char* kPayloadName = "Payload";
constexpr const char* kStagingName = "Staging";
constexpr mode_t kPackageMode = 0755;

std::string ProgressPath(const RecoveredEntry& entry) {
  return RecoveredEntryURL(entry).URLByAppendingPathComponent(kProgressName).path();
}

std::string StepOf(const RecoveredEntry& entry) {
  std::optional<PlistValue> progress = ReadPropertyListFile(ProgressPath(entry));
  const std::string* step = progress ? progress->stringForKey(kStepKey) : nullptr;
  return step ? *step : std::string();
}

bool RecordStep(const RecoveredEntry& entry, const char* step) {
  int error = 0;
  if (WritePropertyListFile(ProgressPath(entry), PlistValue(PlistDictionary{{kStepKey, step}}),
                            PlistFormat::XML, &error)) {
    return true;
  }
  std::cerr << "vxmigrate recover: could not record the progress of " << EscapedText(entry.name)
            << ": " << std::strerror(error) << "\n";
  return false;
}

// An identifier the record holds came from a bundle the application wrote: only one made of
// the characters identifiers are made of is taken to the workspace.
bool PlausibleIdentifier(const std::string& identifier) {
  if (identifier.empty() || identifier.size() > 255 || identifier.front() == '.') return false;
  return std::all_of(identifier.begin(), identifier.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == '_';
  });
}

bool IsBundleName(const std::string& name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0) return false;
  const std::string extension = name.substr(dot + 1);
  return extension == "app" || extension == "vpnplugin";
}

// What `dirfd` holds under `name`, never through a link: the file type bits, 0 when absent.
mode_t TypeAt(int dirfd, const std::string& name) {
  struct stat st {};
  if (::fstatat(dirfd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return 0;
  return st.st_mode & S_IFMT;
}

std::vector<std::string> Names(int dirfd) {
  std::vector<std::string> names;
  // A listing of its own (a fresh open of "."), so each one starts at the beginning.
  DirectoryStream stream(UniqueFd(::openat(dirfd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
  DirentRecord item;
  while (stream.Next(&item)) names.emplace_back(item.name);
  return names;
}

// The bundles `dirfd` holds: real directories only (a link named like a bundle leads
// elsewhere, and stays where it is).
std::vector<std::string> BundlesIn(int dirfd) {
  std::vector<std::string> bundles;
  for (std::string& name : Names(dirfd)) {
    if (IsBundleName(name) && TypeAt(dirfd, name) == S_IFDIR) bundles.push_back(std::move(name));
  }
  return bundles;
}

// Where a failed installation may have left a container's bundle and store data: the
// container itself (the failure came before staging) and its "Staging" and "Payload" (after).
// Each is opened beneath the one before without following a link, so a planted link is
// simply not a place.
struct ContainerPlaces {
  UniqueFd container, staging, payload;
};

std::vector<ContainerPlaces> PlacesIn(int entryFd, const RecoveredEntry& entry) {
  std::vector<ContainerPlaces> places;
  UniqueFd content = OpenDirectoryAt(entryFd, "Content");
  if (!content) return places;
  for (const std::string& item : entry.items) {
    ContainerPlaces place;
    place.container = OpenDirectoryAt(content.get(), item.c_str());
    if (!place.container) continue;
    place.staging = OpenDirectoryAt(place.container.get(), kStagingName);
    if (place.staging) place.payload = OpenDirectoryAt(place.staging.get(), kPayloadName);
    places.push_back(std::move(place));
  }
  return places;
}

bool AnyBundleIn(const std::vector<ContainerPlaces>& places) {
  for (const ContainerPlaces& place : places) {
    if (!BundlesIn(place.container.get()).empty()) return true;
    if (place.payload && !BundlesIn(place.payload.get()).empty()) return true;
  }
  return false;
}

// Renames `name` from one held directory into another, where nothing of that name stands
// yet. Only an item of the type `wanted` (a directory, or a regular file for store data) is
// taken; should it have been swapped since it was looked at, it goes straight back.
bool MoveInto(int fromFd, int toFd, const std::string& name, bool directoryOnly) {
  const mode_t type = TypeAt(fromFd, name);
  const bool wanted = type == S_IFDIR || (!directoryOnly && type == S_IFREG);
  if (!wanted || TypeAt(toFd, name) != 0) return true;
  if (sys::Renameat(fromFd, name.c_str(), toFd, name.c_str()) != 0) return errno == ENOENT;
  const mode_t moved = TypeAt(toFd, name);
  if (moved == S_IFDIR || (!directoryOnly && moved == S_IFREG)) return true;
  sys::Renameat(toFd, name.c_str(), fromFd, name.c_str());
  return false;
}

// Builds "<entry>/Package" (Payload with the bundles, and the store data beside it) by
// renames beneath the entry. Repeating it after a cut moves what is left and keeps what
// already moved. True with `holdsBundle` telling whether the payload has one to install.
bool StagePackage(int entryFd, const RecoveredEntry& entry, bool* holdsBundle) {
  const VXFileManager& fileManager = VXFileManager::defaultManager();
  const FileURL packageURL = RecoveredEntryURL(entry).URLByAppendingPathComponent(kPackageName, true);
  const FileURL payloadURL = packageURL.URLByAppendingPathComponent(kPayloadName, true);
  ErrorRef error;
  UniqueFd package =
      fileManager.createDirectoryBeneath(entryFd, kPackageName, kPackageMode, packageURL, &error);
  UniqueFd payload = package ? fileManager.createDirectoryBeneath(package.get(), kPayloadName,
                                                                 kPackageMode, payloadURL, &error)
                             : UniqueFd();
  // Both names durable before a bundle moves in, or a power cut could take it back with them.
  if (!payload || sys::Fsync(entryFd) != 0 || sys::Fsync(package.get()) != 0) {
    std::cerr << "vxmigrate recover: could not prepare " << packageURL.path() << ": "
              << (error ? Describe(*error) : std::string(std::strerror(errno))) << "\n";
    return false;
  }
  bool moved = true;
  for (const ContainerPlaces& place : PlacesIn(entryFd, entry)) {
    if (place.payload) {
      for (const std::string& bundle : BundlesIn(place.payload.get())) {
        moved = MoveInto(place.payload.get(), payload.get(), bundle, true) && moved;
      }
    }
    for (const std::string& bundle : BundlesIn(place.container.get())) {
      moved = MoveInto(place.container.get(), payload.get(), bundle, true) && moved;
    }
    for (const StoreDataItem& item : kStoreDataItems) {
      if (place.staging) moved = MoveInto(place.staging.get(), package.get(), item.name, false) && moved;
      moved = MoveInto(place.container.get(), package.get(), item.name, false) && moved;
    }
  }
  if (!moved || sys::Fsync(payload.get()) != 0 || sys::Fsync(package.get()) != 0) {
    std::cerr << "vxmigrate recover: could not move the bundle of " << EscapedText(entry.name)
              << " into " << packageURL.path() << "\n";
    return false;
  }
  *holdsBundle = !BundlesIn(payload.get()).empty();
  return true;
}

bool InstalledForReal(DeviceWorkspace& workspace, const std::string& identifier) {
  std::optional<BundleProxy> proxy = workspace.bundleProxyForIdentifier(identifier);
  return proxy && proxy->bundleType != "Placeholder" && proxy->foundBackingBundle;
}

// The groups the installed application belongs to that still wait in the old install map
// (their items never moved, because the installation that would have led there failed) are
// marked as its own, the way the migration marks a group it could not empty. True when one
// waits (marked now or by an earlier, interrupted recovery).
bool MarkWaitingGroups(DeviceWorkspace& workspace, const std::string& identifier) {
  const std::string mapPath =
      VXGlobalConfiguration::sharedInstance().oldInstallMapPath().path();
  std::optional<PlistDictionary> installMap = ReadPropertyListDictionary(mapPath);
  auto proxy = workspace.bundleProxyForIdentifier(identifier);
  if (!installMap || !proxy || !proxy->groupContainerURLs) return false;
  auto groups = installMap->find("GroupContainers");
  if (groups == installMap->end() || !groups->second.dictionary()) return false;
  PlistDictionary entries = *groups->second.dictionary();
  bool waiting = false;
  bool changed = false;
  for (const auto& [group, destination] : *proxy->groupContainerURLs) {
    auto entry = entries.find(group);
    if (entry == entries.end() || !entry->second.dictionary()) continue;
    waiting = true;
    const std::string* owner = entry->second.stringForKey(kGroupOwnerKey);
    if (owner && *owner == identifier) continue;
    PlistDictionary fields = *entry->second.dictionary();
    fields[kGroupOwnerKey] = identifier;
    entry->second = PlistValue(std::move(fields));
    changed = true;
  }
  if (!changed) return waiting;
  groups->second = PlistValue(std::move(entries));
  return WritePropertyListFile(mapPath, PlistValue(*installMap));
}

// The migration once more, which moves the marked groups.
bool MigrateAgain() {
  std::string problem;
  LogOptions quiet;
  quiet.quiet = true;
  auto logs = LogSetup::Install(quiet, &problem);
  auto plugins = logs ? LoadPlugins(DefaultPluginDirectory(), &problem) : std::nullopt;
  if (!plugins) {
    std::cerr << "vxmigrate recover: " << problem << "\n";
    return false;
  }
  bool succeeded = true;
  for (LoadedPlugin& loaded : *plugins) succeeded = loaded.plugin->performMigration() && succeeded;
  return succeeded;
}

int Refuse(const RecoveredEntry& entry) {
  std::cerr << "vxmigrate recover: " << EscapedText(entry.name)
            << " holds no bundle to install; its content is in "
            << EscapedText(entry.content.path()) << "\n";
  return kExitFailure;
}

// The entry is cleared once nothing of the user's is left in it; what the installation did
// not take (a file the migration could not place) keeps it.
int ClearEntry(const RecoveredEntry& entry) {
  for (const std::string& item : entry.items) {
    if (ItemHoldsUserBytes(entry.content.URLByAppendingPathComponent(item, true), kMigrationFiles)) {
      std::cout << "The entry still holds files; it stays in " << EscapedText(entry.content.path())
                << ".\n";
      return 0;
    }
  }
  ErrorRef error;
  if (!RemoveRecoveredEntry(entry, &error)) {
    std::cerr << "vxmigrate recover: could not clear " << EscapedText(entry.name)
              << " from the area\n";
    return kExitFailure;
  }
  return 0;
}

// A container two runs in a row died at goes back into the old root under its own name, and
// the migration runs again: asked for by a person, it gets another two tries (its count of
// deaths ended when it was set aside). A second power cut while one container migrates is
// enough to send it here, so this is how such an application is brought home.
int Retry(const RecoveredEntry& entry) {
  if (entry.items.size() != 1) return Refuse(entry);
  const std::string& name = entry.items.front();
  const FileURL oldRoot = VXGlobalConfiguration::sharedInstance().oldContainerPath();
  ErrorRef error;
  if (!MakeDurableDirectory(oldRoot, 0755, &error)) {
    std::cerr << "vxmigrate recover: cannot make " << EscapedText(oldRoot.path()) << ": "
              << (error ? Describe(*error) : std::string("no reason given")) << "\n";
    return kExitFailure;
  }
  const UniqueFd entryFd = OpenRecoveredEntry(entry);
  const UniqueFd content =
      entryFd ? OpenBeneath(entryFd.get(), "Content", O_RDONLY | O_DIRECTORY) : UniqueFd();
  const UniqueFd root = OpenDirectoryNoFollow(oldRoot.fileSystemRepresentation());
  struct stat st {};
  int failure = 0;
  if (!content || !root) {
    failure = errno;
  } else if (::fstatat(root.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
    failure = EEXIST;
  } else if (sys::Renameat(content.get(), name.c_str(), root.get(), name.c_str()) != 0 ||
             sys::Fsync(root.get()) != 0 || sys::Fsync(content.get()) != 0) {
    failure = errno;
  }
  if (failure) {
    std::cerr << "vxmigrate recover: cannot put " << EscapedText(name) << " back into "
              << EscapedText(oldRoot.path()) << ": " << std::strerror(failure) << "\n";
    return kExitFailure;
  }
  std::cout << "Put " << EscapedText(name) << " back into " << EscapedText(oldRoot.path())
            << "; migrating it again.\n";
  if (!MigrateAgain()) {
    std::cerr << "vxmigrate recover: the migration did not complete; see the logs\n";
    return kExitFailure;
  }
  if (!RemoveRecoveredEntry(entry, &error)) {
    std::cerr << "vxmigrate recover: could not clear " << EscapedText(entry.name)
              << " from the area\n";
    return kExitFailure;
  }
  return 0;
}

// Installs the entry's bundle, then moves the groups that waited for it, then clears the
// entry, each stage recorded before it starts. Nothing is read or moved before the course and
// the identifier are known good.
int Install(const RecoveredEntry& entry) {
  const std::string& identifier = entry.record.identifier;
  if (entry.record.course != kRecoveryCourseInstallFailed || !PlausibleIdentifier(identifier)) {
    return Refuse(entry);
  }
  const UniqueFd entryFd = OpenRecoveredEntry(entry);
  if (!entryFd) {
    std::cerr << "vxmigrate recover: cannot open " << EscapedText(RecoveredEntryURL(entry).path())
              << ": " << std::strerror(errno) << "\n";
    return kExitFailure;
  }
  std::string step = StepOf(entry);
  if (step == kStepDone) {
    std::cout << EscapedText(identifier) << " was already recovered from "
              << EscapedText(entry.name) << ".\n";
    return ClearEntry(entry);
  }
  DeviceWorkspace workspace(DeviceRoot());
  if (step != kStepInstalled) {
    // A first attempt needs a bundle to start; one cut off after it began may find it taken.
    if (step.empty()) {
      if (!AnyBundleIn(PlacesIn(entryFd.get(), entry))) return Refuse(entry);
      if (!RecordStep(entry, kStepInstalling)) return kExitFailure;
    }
    bool holdsBundle = false;
    if (!StagePackage(entryFd.get(), entry, &holdsBundle)) return kExitFailure;
    if (holdsBundle) {
      const PlistDictionary options{{InstallTypeKey, kMigrationInstallType},
                                    {PackageTypeKey, PackageTypeCustomer},
                                    {"VerifyForMigrator", true},
                                    {"KBBundleIdentifier", identifier}};
      ErrorRef error;
      const FileURL package =
          RecoveredEntryURL(entry).URLByAppendingPathComponent(kPackageName, true);
      if (!workspace.installApplication(package, options, &error)) {
        std::cerr << "vxmigrate recover: installing " << EscapedText(identifier)
                  << " failed: " << (error ? Describe(*error) : std::string("no reason given"))
                  << "\n";
        return kExitFailure;
      }
    } else if (!InstalledForReal(workspace, identifier)) {
      std::cerr << "vxmigrate recover: the bundle of " << EscapedText(identifier)
                << " is neither in " << EscapedText(entry.name) << " nor installed\n";
      return kExitFailure;
    }
    workspace.removeRetiredContainers();
    std::cout << "Installed " << EscapedText(identifier) << " from " << EscapedText(entry.name)
              << ".\n";
    if (!RecordStep(entry, kStepInstalled)) return kExitFailure;
  }
  if (MarkWaitingGroups(workspace, identifier)) {
    std::cout << "Moving the group containers of " << EscapedText(identifier) << ".\n";
    if (!MigrateAgain()) {
      std::cerr << "vxmigrate recover: the migration of its group containers is incomplete; "
                   "run vxmigrate migrate again\n";
      return kExitFailure;
    }
  }
  if (!RecordStep(entry, kStepDone)) return kExitFailure;
  return ClearEntry(entry);
}

int Purge(const RecoveredEntry& entry, bool yes) {
  if (!yes) {
    std::cerr << "vxmigrate recover: --purge deletes " << EscapedText(entry.content.path())
              << " for good; add --yes to do it\n";
    return kExitUsage;
  }
  ErrorRef error;
  if (!RemoveRecoveredEntry(entry, &error)) {
    std::cerr << "vxmigrate recover: could not delete " << EscapedText(entry.name) << ": "
              << (error ? Describe(*error) : std::string("no reason given")) << "\n";
    return kExitFailure;
  }
  std::cout << "Deleted " << EscapedText(entry.name) << ".\n";
  return 0;
}

int RunRecover(const RecoverOptions& options) {
  if (options.root && !SetDeviceRoot(*options.root)) {
    std::cerr << "vxmigrate recover: cannot use " << *options.root << " as the device root\n";
    return kExitUsage;
  }
  // The crash tests' seam: a recovery cut off at any of its mutations must be finished by the
  // next.
  const char* faultProblem = nullptr;
  if (!fault::ConfigureFromEnvironment(&faultProblem)) {
    std::cerr << "vxmigrate recover: " << faultProblem << "\n";
    return kExitUsage;
  }
  if (!options.entry) {
    if (options.purge) {
      std::cerr << "vxmigrate recover: --purge needs the entry (or identifier) to delete\n";
      return kExitUsage;
    }
    return List(options.json);
  }
  std::optional<RecoveredEntry> entry = FindRecoveredEntry(
      *options.entry, options.purge ? nullptr : kRecoveryCourseInstallFailed);
  if (!entry && !options.purge && PlausibleIdentifier(*options.entry) &&
      [&] {
        DeviceWorkspace workspace(DeviceRoot());
        return InstalledForReal(workspace, *options.entry);
      }()) {
    // A recovery that cleared its entry, asked for again.
    std::cout << EscapedText(*options.entry)
              << " is installed; nothing of it waits in the recovery area.\n";
    return 0;
  }
  if (!entry) {
    std::cerr << "vxmigrate recover: nothing in the recovery area is named "
              << EscapedText(*options.entry) << " or belongs to it\n";
    return kExitFailure;
  }
  if (options.purge) return Purge(*entry, options.yes);
  return entry->record.course == kRecoveryCourseCrashedTwice ? Retry(*entry) : Install(*entry);
}

const CommandRegistration kRecover(35, [](CLI::App& app, int* exitStatus) {
  auto options = std::make_shared<RecoverOptions>();
  CLI::App* command = app.add_subcommand(
      "recover", "List the recovery area, install a recovered bundle again, or delete an entry");
  command->add_option("entry", options->entry,
                      "Entry name, or application identifier (its newest entry)");
  command->add_option("--root", options->root, "Directory holding the device's file system")
      ->check(CLI::ExistingDirectory);
  command->add_flag("--json", options->json, "List as a JSON array on standard output");
  command->add_flag("--purge", options->purge, "Delete the entry instead of installing it");
  command->add_flag("--yes", options->yes, "Confirm --purge");
  command->callback([options, exitStatus] { *exitStatus = RunRecover(*options); });
});

}  // namespace
}  // namespace vx::host
