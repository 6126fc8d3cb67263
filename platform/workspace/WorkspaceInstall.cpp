// Installation. The order is what makes it safe to cut off anywhere:
//   1. read and check the package; nothing on the device changes before it passes;
//   2. under the writers' lock, make the data and group containers the identifier lacks
//      (each whole or absent, and found again by identifier, so a retry never makes a
//      second one);
//   3. assemble the new bundle container under a hidden name beside its final place: its
//      record first, then the package renamed in whole (a placeholder's or a VPN plug-in's
//      bundle alone). From that rename on the package is gone from where it was and the
//      installation can only go forward: an assembly that holds its package or bundle is
//      finished by whoever scans the workspace next. The bundle and the store metadata are
//      renamed out of the package, and renaming the assembly into place is the commit; a
//      higher install sequence makes it win over the old one;
//   4. retire the old bundle container and remove what is left of the package.
// A cut before 3 leaves the old installation, after it the new; leftovers of an interrupted
// run are hidden from every scan and cleaned up by the next one. The bundle is copied only
// when the package lies on another file system, and then under a name that no scan takes
// for the bundle until the copy is whole.
#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>

#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
#include "platform/files/Beneath.h"
#include "platform/files/CloneTree.h"
#include "platform/files/DurableCopy.h"
#include "platform/files/Sys.h"
#include "platform/files/UniqueFd.h"
#include "platform/log/InstallerLog.h"
#include "platform/workspace/Workspace.h"
#include "platform/workspace/WorkspaceContainers.h"
#include "platform/workspace/WorkspaceIndexCache.h"
#include "platform/workspace/WorkspacePackage.h"
#include "platform/workspace/WorkspaceRegistry.h"
#include "support/errors/ErrorMakers.h"
#include "support/types/Format.h"

namespace vx {
namespace {

constexpr const char* kInstallFunction =
    "-[DeviceWorkspace installApplication:withOptions:error:progress:]";

const VXFileManager& Files() { return VXFileManager::defaultManager(); }

class ProgressReporter {
 public:
  explicit ProgressReporter(const InstallProgressCallback& callback) : callback_(callback) {}

  void step(int percent, const char* status) {
    percent_ = percent;
    if (callback_) {
      callback_(InstallProgressReport{{kInstallProgressPercentKey, percent},
                                      {kInstallProgressStatusKey, status}});
    }
  }

  void failed(const InstallFailure& failure, const FileURL& location) {
    if (!callback_) return;
    std::string detail = location.path();
    if (failure.cause) {
      const std::string* message = failure.cause->localizedDescription();
      detail = message ? *message : Describe(*failure.cause);
    }
    callback_(InstallProgressReport{{kInstallProgressPercentKey, percent_},
                                    {kInstallProgressStatusKey, "Failed"},
                                    {kInstallProgressErrorKey, failure.name},
                                    {kInstallProgressErrorDescriptionKey, failure.message},
                                    {kInstallProgressErrorDetailKey, detail}});
  }

 private:
  const InstallProgressCallback& callback_;
  int percent_ = 0;
};

std::optional<uint64_t> RequestedInstallType(const PlistDictionary& options) {
  const auto value = options.find(InstallTypeKey);
  if (value == options.end()) return std::nullopt;
  auto number = value->second.int64Value();
  if (!number) return std::nullopt;
  return static_cast<uint64_t>(*number);
}

// What the new bundle container holds beside the bundle, and how the bundle is marked.
struct BundlePlacement {
  const PackageBundle* bundle = nullptr;
  std::string bundleType;
  std::optional<uint64_t> installType;
  std::optional<FileURL> metadataDirectory;
  const PlistData* storeMetadata = nullptr;
  // The old container a migration brings the bundle from, recorded with it.
  const PlistDictionary* origin = nullptr;
};

ErrorRef PosixFailure(int line, int e, const char* what, const FileURL& url) {
  return PosixError(kInstallFunction, line, e, "Failed to %s %s: %s", what, url.path(),
                    std::strerror(e));
}

// What goes into the assembly at the point of no return, as a name in an open directory:
// the whole package for a customer application (so that its bundle and its store metadata
// leave the package in one rename, and no half-consumed package is ever left behind), or
// the bundle alone (a placeholder, which is its own package; a VPN plug-in beside an
// application). The package lies in a tree its application could write, so the directory
// is reached without following any link in it.
struct Arrival {
  UniqueFd directory;
  std::string name;    // in `directory`
  std::string target;  // in the assembly
  bool wholePackage = false;
};

std::optional<Arrival> OpenArrival(const FileURL& location, const PackageBundle& bundle,
                                   bool wholePackage, bool placeholder, ErrorRef* error) {
  Arrival arrival;
  arrival.wholePackage = wholePackage;
  arrival.target = wholePackage ? kPackageDirectoryName : bundle.url.lastPathComponent();
  if (wholePackage || placeholder) {
    // The package is a directory of the caller's choosing, in a directory it trusts.
    arrival.name = location.lastPathComponent();
    arrival.directory = OpenDirectoryNoFollow(
        location.URLByDeletingLastPathComponent().fileSystemRepresentation());
  } else if (UniqueFd package = OpenDirectoryNoFollow(location.fileSystemRepresentation())) {
    arrival.name = bundle.url.lastPathComponent();
    arrival.directory = OpenBeneath(package.get(), "Payload", O_RDONLY | O_DIRECTORY);
  }
  if (!arrival.directory) {
    SetError(error, PosixFailure(__LINE__, errno, "open the package of", bundle.url));
    return std::nullopt;
  }
  return arrival;
}

// Renames the arrival into the assembly (`*moved` true). When the package lies on another
// file system, copies the bundle and the store metadata instead and leaves the package
// whole, to be consumed once the container is in place.
bool BringIn(const Arrival& arrival, const BundlePlacement& placement, const FileURL& assembly,
             bool* moved, ErrorRef* error) {
  *moved = false;
  const PackageBundle& bundle = *placement.bundle;
  UniqueFd original = OpenBeneath(arrival.directory.get(), arrival.name, O_RDONLY | O_DIRECTORY);
  UniqueFd target = OpenDirectoryNoFollow(assembly.fileSystemRepresentation());
  struct stat before {};
  if (!original || !target || ::fstat(original.get(), &before) != 0) {
    SetError(error, PosixFailure(__LINE__, errno, "open", bundle.url));
    return false;
  }
  if (sys::Renameat(arrival.directory.get(), arrival.name.c_str(), target.get(),
                    arrival.target.c_str()) == 0) {
    // The name may have been swapped for something else since it was opened; only the
    // directory that was checked may stay.
    struct stat after {};
    if (::fstatat(target.get(), arrival.target.c_str(), &after, AT_SYMLINK_NOFOLLOW) == 0 &&
        after.st_dev == before.st_dev && after.st_ino == before.st_ino) {
      *moved = true;
      return true;
    }
    sys::Renameat(target.get(), arrival.target.c_str(), arrival.directory.get(),
                  arrival.name.c_str());
    SetError(error, PosixFailure(__LINE__, EINVAL, "install (it changed while it was moved)",
                                 bundle.url));
    return false;
  }
  if (errno != EXDEV) {
    SetError(error, PosixFailure(__LINE__, errno, "move", bundle.url));
    return false;
  }
  // Another file system. The copy is made from the directory opened and checked above, never
  // by its path again, and is on disk before the package may go; it takes the bundle's name
  // only once it is whole, so that an assembly holding the bundle always holds all of it.
  const std::string name = bundle.url.lastPathComponent();
  const std::string incoming = ".incoming-" + name;
  int e = 0;
  if (arrival.wholePackage) {
    UniqueFd payload = OpenBeneath(original.get(), "Payload", O_RDONLY | O_DIRECTORY);
    e = payload ? CopyItemDurably(payload.get(), name.c_str(), nullptr, target.get(),
                                  incoming.c_str(), kCloneAll)
                : errno;
    for (const std::string& item :
         VXGlobalConfiguration::sharedInstance().appBundleMetadataItemNames()) {
      if (e) break;
      e = CopyItemDurably(original.get(), item.c_str(), nullptr, target.get(), item.c_str(),
                          kCloneAll);
      if (e == ENOENT) e = 0;
    }
  } else {
    e = CopyItemDurably(arrival.directory.get(), arrival.name.c_str(), &before, target.get(),
                        incoming.c_str(), kCloneAll);
  }
  if (e || sys::Renameat(target.get(), incoming.c_str(), target.get(), name.c_str()) != 0) {
    SetError(error, PosixFailure(__LINE__, e ? e : errno, "copy", bundle.url));
    return false;
  }
  return true;
}

// Undoes BringIn and FinishBundleAssembly after a failure: the store metadata and the
// bundle go back into the package, and the package where it was. False when that cannot be
// done; the assembly must then stay, for the next scan to finish.
bool SendBack(const Arrival& arrival, const FileURL& assembly, const std::string& bundleName) {
  UniqueFd directory = OpenDirectoryNoFollow(assembly.fileSystemRepresentation());
  if (!directory) return false;
  if (arrival.wholePackage) {
    UniqueFd package =
        OpenBeneath(directory.get(), kPackageDirectoryName, O_RDONLY | O_DIRECTORY);
    if (!package) return false;
    struct stat st {};
    for (const std::string& item :
         VXGlobalConfiguration::sharedInstance().appBundleMetadataItemNames()) {
      if (::fstatat(directory.get(), item.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
          sys::Renameat(directory.get(), item.c_str(), package.get(), item.c_str()) != 0) {
        return false;
      }
    }
    if (::fstatat(directory.get(), bundleName.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
      UniqueFd payload = OpenBeneath(package.get(), "Payload", O_RDONLY | O_DIRECTORY);
      if (!payload || sys::Renameat(directory.get(), bundleName.c_str(), payload.get(),
                                    bundleName.c_str()) != 0) {
        return false;
      }
    }
  }
  return sys::Renameat(directory.get(), arrival.target.c_str(), arrival.directory.get(),
                       arrival.name.c_str()) == 0;
}

// Bytes written into an assembly; the open file, for the commit to sync when they exist
// nowhere else.
UniqueFd WriteFileIntoAssembly(const FileURL& file, const PlistData& bytes, ErrorRef* error) {
  UniqueFd fd(sys::Open(file.fileSystemRepresentation(),
                        O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!fd || !sys::WriteAll(fd.get(), bytes.data(), bytes.size())) {
    SetError(error, PosixFailure(__LINE__, errno, "write", file));
    return UniqueFd();
  }
  return fd;
}

// Assembles the bundle container of `placement` and commits it: its location in place.
// Unless this succeeds the package keeps its bundle (or a cut leaves them in an assembly
// past the point of no return, which the next scan finishes).
std::optional<FileURL> AssembleBundleContainer(const WorkspaceLayout& layout,
                                               const BundlePlacement& placement,
                                               const ContainerRecord& record,
                                               const Arrival& arrival, ErrorRef* error) {
  const FileURL parent = layout.directoryForClass(ContainerClass::Bundle);
  if (!MakeDurableDirectory(parent, 0755, error)) return std::nullopt;
  const FileURL assembly = parent.URLByAppendingPathComponent(NewAssemblyName(), true);
  if (!Files().createDirectoryAtURL(assembly, false, 0755, error)) return std::nullopt;

  bool moved = false;
  std::optional<FileURL> placed;
  UniqueFd metadata;
  if (placement.storeMetadata) {
    metadata = WriteFileIntoAssembly(assembly.URLByAppendingPathComponent("LyrandMetadata.plist"),
                                     *placement.storeMetadata, error);
  }
  UniqueFd written;
  if (metadata || !placement.storeMetadata) {
    written = WorkspaceLayout::writeRecordIntoAssembly(assembly, record, error);
  }
  // The record is synced before a package comes in: should a power cut keep the package's
  // rename but lose the record, the bundle would lie in a directory no scan recognises. So is
  // the assembly's own name, or a cut could keep the package's move and take back the
  // directory it moved into. The first sync commits both on a journaling file system; the
  // second then finds nothing left to write. A placeholder is no one's only copy of
  // anything (its maker can build it again from what it was made of), so its assembly is
  // made durable once, with the rest of the container.
  const bool placeholder = record.bundleType == "Placeholder";
  ErrorRef syncError;
  if (written && !placeholder &&
      (sys::Fsync(written.get()) != 0 || !SyncDirectory(parent, &syncError))) {
    SetError(error,
             syncError ? syncError : PosixFailure(__LINE__, errno, "sync the record in", assembly));
    written.reset();
  }
  if (written && BringIn(arrival, placement, assembly, &moved, error) &&
      FinishBundleAssembly(assembly, record, error)) {
    // A package brought its bytes with it, durable long since. A placeholder's own files
    // (its information list, its icon, the store metadata it was handed) are copies of what
    // its maker keeps until the application's own installation replaces it; should a power
    // cut take their bytes, the placeholder only looks blank until then. Its record, which
    // makes the container someone's, is synced with the container.
    const std::vector<int> toSync{placeholder ? written.get() : metadata.get()};
    placed = CommitAssembly(assembly, toSync, error);
  }
  if (placed) return placed;
  // Nothing is committed, so nothing may have changed: what came in goes back, and only
  // then may the assembly go.
  if (moved && !SendBack(arrival, assembly, record.bundleName)) {
    VX_INSTALLER_LOG(3, kInstallFunction, "Left %@ in %@ for the next scan to install",
                     placement.bundle->url, assembly);
    return std::nullopt;
  }
  Files().removeItemAtURL(assembly, nullptr);
  return std::nullopt;
}

// Puts the bundle in place as the identifier's installation and retires what it replaces.
bool PlaceBundle(const WorkspaceLayout& layout, WorkspaceIndexCache::Change& change,
                 const FileURL& location, bool placeholder, const BundlePlacement& placement,
                 InstallFailure* failure) {
  const PackageBundle& bundle = *placement.bundle;
  WorkspaceIndex& index = change.index();
  std::optional<FileURL> previous;
  bool previousIsPlaceholder = false;
  ContainerRecord record;
  record.containerClass = ContainerClass::Bundle;
  record.identifier = bundle.identifier;
  record.bundleName = bundle.url.lastPathComponent();
  record.bundleType = placement.bundleType;
  record.bundleVersion = bundle.version;
  record.appGroups = bundle.appGroups;
  record.installType = placement.installType;
  if (placement.origin) record.migrationOrigin = *placement.origin;
  record.installSequence = 1;
  if (const IndexedContainer* installed = index.bundle(bundle.identifier)) {
    previous = installed->url;
    previousIsPlaceholder = installed->record.bundleType == "Placeholder";
    record.installSequence = installed->record.installSequence + 1;
  }

  ErrorRef error;
  std::optional<FileURL> placed;
  const bool wholePackage = !placeholder && placement.metadataDirectory.has_value();
  if (auto arrival = OpenArrival(location, bundle, wholePackage, placeholder, &error)) {
    placed = AssembleBundleContainer(layout, placement, record, *arrival, &error);
  }
  if (!placed) {
    change.failed();
    *failure = {kWorkspaceInstallError, "InstallFailed",
                Format("Failed to install %@ as %@", bundle.url, bundle.identifier), error};
    return false;
  }
  index.bundles.insert_or_assign(bundle.identifier, IndexedContainer{*placed, record});
  // What the package leaves behind, and a replaced placeholder's container, are removed with
  // the others when the installer is done: removals amid a run of installations cost the
  // file system's allocations that follow them.
  if (std::optional<FileURL> leftovers = HidePackageLeftovers(*placed)) {
    change.removeLater(std::move(*leftovers));
  }
  if (!previous) return true;
  // A placeholder's container is a handful of small files that nobody needs once hidden.
  bool retired = false;
  if (previousIsPlaceholder) {
    if (std::optional<FileURL> hidden = HideContainer(*previous, &error)) {
      change.removeLater(std::move(*hidden));
      retired = true;
    }
  } else {
    retired = RetireContainer(*previous, &error);
  }
  if (!retired) {
    // The new container already wins every scan; the old one goes at the next scan.
    change.failed();
    VX_INSTALLER_LOG(3, kInstallFunction, "Failed to retire old bundle container %@: %@",
                     *previous, error);
  }
  return true;
}

bool MakeContainers(const WorkspaceLayout& layout, WorkspaceIndex& index,
                    const InstallPackage& package, DataDefaults defaults,
                    InstallFailure* failure) {
  std::vector<std::pair<const PackageBundle*, ContainerClass>> owners{
      {&package.main,
       package.main.isVPNPlugin ? ContainerClass::PluginData : ContainerClass::Data}};
  if (package.plugin) owners.emplace_back(&*package.plugin, ContainerClass::PluginData);
  for (const auto& [bundle, containerClass] : owners) {
    ErrorRef error;
    if (!EnsureDataContainer(layout, index, bundle->identifier, containerClass, defaults,
                             &error)) {
      *failure = {kWorkspaceContainerError, "ContainerCreationFailed",
                  Format("Failed to make the data container of %@", bundle->identifier), error};
      return false;
    }
    for (const std::string& group : bundle->appGroups) {
      if (!EnsureGroupContainer(layout, index, group, &error)) {
        *failure = {
            kWorkspaceContainerError, "ContainerCreationFailed",
            Format("Failed to make the container of group %@ for %@", group, bundle->identifier),
            error};
        return false;
      }
    }
  }
  return true;
}

std::optional<InstallFailure> BuiltInRefusal(VXGlobalConfiguration& configuration,
                                             const PackageBundle& bundle) {
  std::optional<std::string> message =
      BuiltInRefusalMessage(configuration, bundle.identifier, bundle.version);
  if (!message) return std::nullopt;
  return InstallFailure{kWorkspaceAlreadyInstalledError, kApplicationAlreadyInstalledError,
                        std::move(*message), nullptr};
}

// A plug-in is part of its application: one that could name any identifier would be
// installed as whatever application it names.
std::optional<InstallFailure> ForeignPlugin(const InstallPackage& package) {
  if (!package.plugin) return std::nullopt;
  const std::string& app = package.main.identifier;
  const std::string& plugin = package.plugin->identifier;
  if (PluginIdentifierExtends(app, plugin)) return std::nullopt;
  return InstallFailure{kWorkspaceVerificationError, "PluginIdentifierMismatch",
                        Format("VPN plugin %@ has identifier %@, which does not extend %@",
                               package.plugin->url, plugin, app),
                        nullptr};
}

// Bundles migrated from one old container may replace only what came from that container (a
// resumed migration, a placeholder made for it) or what no migration brought: never what
// another container brought, nor a built-in application. A VPN plug-in's own container
// still brings its plug-in over the copy its application's container brought: that is the
// old layout's shape, and the plug-in takes no application's place. The origins are compared
// by device path, which names a container however the device image has been copied since.
std::optional<InstallFailure> TakenIdentifier(VXGlobalConfiguration& configuration,
                                              const WorkspaceIndex& index,
                                              const InstallPackage& package,
                                              const PlistDictionary& origin) {
  const PlistValue mine(origin);
  const std::string* ours = mine.stringForKey("Path");
  BundleMapRef builtIn = configuration.systemAppBundleIDToInfoMap();
  for (const PackageBundle* bundle :
       {&package.main, package.plugin ? &*package.plugin : nullptr}) {
    if (!bundle) continue;
    std::string message;
    if (const IndexedContainer* installed = index.bundle(bundle->identifier)) {
      if (!installed->record.migrationOrigin) continue;
      if (bundle->isVPNPlugin && installed->record.bundleType == "VPNPlugin") continue;
      const PlistValue recorded(*installed->record.migrationOrigin);
      const std::string* theirs = recorded.stringForKey("Path");
      if (ours && theirs && *ours == *theirs) continue;
      message = Format("%@ is already installed from another container (%@)", bundle->identifier,
                       theirs ? *theirs : std::string("unnamed"));
    } else if (builtIn && builtIn->count(bundle->identifier)) {
      message = Format("%@ is already installed as a built-in application", bundle->identifier);
    } else {
      continue;
    }
    return InstallFailure{kWorkspaceAlreadyInstalledError, kIdentifierTakenError,
                          std::move(message), nullptr};
  }
  return std::nullopt;
}

// The package goes in one rename before it is removed: a crash part-way through removing
// it must never leave a half package that a retry would install as if it were whole.
bool ConsumePackage(const WorkspaceLayout& layout, const FileURL& location) {
  struct stat st {};
  if (::lstat(location.fileSystemRepresentation(), &st) != 0 && errno == ENOENT) {
    return true;  // a placeholder package is its bundle, and that has moved
  }
  const FileURL trash = layout.directoryForClass(ContainerClass::Bundle)
                            .URLByAppendingPathComponent(NewRetiredName(), true);
  const FileURL beside =
      location.URLByDeletingLastPathComponent().URLByAppendingPathComponent(NewRetiredName(), true);
  FileURL doomed = location;
  if (sys::Rename(location.fileSystemRepresentation(), trash.fileSystemRepresentation()) == 0) {
    doomed = trash;
  } else if (sys::Rename(location.fileSystemRepresentation(), beside.fileSystemRepresentation()) ==
             0) {
    doomed = beside;  // another file system than the workspace's
  }
  ErrorRef error;
  if (!Files().removeItemAtURL(doomed, &error)) {
    VX_INSTALLER_LOG(3, kInstallFunction, "Failed to remove installed package %@: %@", location,
                     error);
    return false;
  }
  return true;
}

}  // namespace

bool DeviceWorkspace::installApplication(const FileURL& location, const PlistDictionary& options,
                                         ErrorRef* error, const InstallProgressCallback& progress) {
  std::lock_guard lock(mutex());
  ProgressReporter reporter(progress);
  InstallFailure failure;
  auto fail = [&](const InstallFailure& why) {
    reporter.failed(why, location);
    const PlistDictionary userInfo{{VXPathArgumentErrorKey, location}};
    SetError(error, _CreateAndLogError(kInstallFunction, __LINE__, VXInstallerErrorDomain, why.code,
                                       why.cause, &userInfo, "%s", why.message));
    return false;
  };

  reporter.step(0, "Preflighting");
  auto package = ReadInstallPackage(location, options, &failure);
  if (!package) return fail(failure);
  reporter.step(10, "Verifying");
  IdentifierSetRef blacklist = configuration().installationBlacklist();
  if (!CheckInstallOptions(*package, options, blacklist ? *blacklist : IdentifierSet{}, &failure)) {
    return fail(failure);
  }
  if (auto foreign = ForeignPlugin(*package)) return fail(*foreign);
  const auto originEntry = options.find(MigrationOriginKey);
  const PlistDictionary* origin =
      originEntry == options.end() ? nullptr : originEntry->second.dictionary();
  ErrorRef lockError;
  std::optional<WorkspaceIndexCache::Change> change =
      WorkspaceIndexCache::forLayout(layout_).begin(&lockError);
  if (!change) {
    return fail({kWorkspaceInstallError, "InstallFailed",
                 Format("Failed to lock the workspace for %@", package->main.identifier),
                 lockError});
  }
  if (!package->placeholder) {
    if (auto refusal = BuiltInRefusal(configuration(), package->main)) {
      if (!ConsumePackage(layout_, location)) change->failed();
      // An older copy of a built-in application is turned away by design (the built-in one
      // serves its data), so the log notes it rather than reporting a failure; the caller
      // still gets the error and the progress report.
      reporter.failed(*refusal, location);
      VX_INSTALLER_LOG(5, kInstallFunction, "%s; the built-in copy stays", refusal->message);
      ErrorRef refused = _CreateError(kInstallFunction, __LINE__, VXInstallerErrorDomain,
                                      refusal->code, "%s", refusal->message);
      SetError(error, std::move(refused));
      return false;
    }
  }
  if (origin) {
    if (auto taken = TakenIdentifier(configuration(), change->index(), *package, *origin)) {
      return fail(*taken);
    }
  }
  reporter.step(30, "CreatingContainers");
  const auto installType = RequestedInstallType(options);
  // A migration's placeholder holds the place of an application whose items follow from its
  // old container: default items made now would only be removed again to make way. Its
  // real installation makes whichever of them did not come.
  const DataDefaults defaults = package->placeholder && installType == kMigrationInstallType
                                    ? DataDefaults::Deferred
                                    : DataDefaults::Made;
  if (!MakeContainers(layout_, change->index(), *package, defaults, &failure)) {
    change->failed();
    return fail(failure);
  }

  reporter.step(50, "InstallingApplication");
  if (package->plugin) {
    BundlePlacement plugin{&*package->plugin, "VPNPlugin", installType, std::nullopt, nullptr,
                           origin};
    if (!PlaceBundle(layout_, *change, location, false, plugin, &failure)) return fail(failure);
  }
  BundlePlacement application{&package->main, "User", installType, package->metadataDirectory,
                              package->storeMetadata ? &*package->storeMetadata : nullptr,
                              origin};
  if (package->placeholder) {
    application.bundleType = "Placeholder";
  } else if (package->main.isVPNPlugin) {
    application.bundleType = "VPNPlugin";
  }
  if (!PlaceBundle(layout_, *change, location, package->placeholder, application, &failure)) {
    return fail(failure);
  }

  reporter.step(90, "Finishing");
  // The package's leftovers go through our bundle directory, where a failed removal leaves
  // a hidden leftover that the next scan has to find.
  if (!ConsumePackage(layout_, location)) change->failed();
  reporter.step(100, "Complete");
  return true;
}

// A customer package may not replace a built-in application of the same or a newer version.
std::optional<std::string> BuiltInRefusalMessage(VXGlobalConfiguration& configuration,
                                                 const std::string& identifier,
                                                 const std::optional<std::string>& version) {
  BundleMapRef builtIn = configuration.systemAppBundleIDToInfoMap();
  if (!builtIn) return std::nullopt;
  auto it = builtIn->find(identifier);
  if (it == builtIn->end()) return std::nullopt;
  const std::string builtInVersion =
      BundleVersionText(PlistValue(it->second).find("KBBundleVersion")).value_or("0");
  const std::string packageVersion = version.value_or("0");
  if (CompareBundleVersions(packageVersion, builtInVersion) > 0) return std::nullopt;
  return Format("%@ %@ is already installed as a built-in application, version %@", identifier,
                packageVersion, builtInVersion);
}

}  // namespace vx
