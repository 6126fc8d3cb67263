// Installation. The order is what makes it safe to cut off anywhere:
//   1. read and check the package; nothing on the device changes before it passes;
//   2. make the data and group containers the identifier lacks (each whole or absent, and
//      found again by identifier, so a retry never makes a second one);
//   3. assemble the new bundle container beside its final place and rename it in: that
//      rename is the commit, and a higher install sequence makes it win over the old one;
//   4. retire the old bundle container and consume the package.
// A crash before 3 leaves the old installation, after it the new; leftovers of an
// interrupted run are hidden from every scan and removed by the next installation.
#include <cstring>

#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
#include "platform/files/AtomicFile.h"
#include "platform/files/Sys.h"
#include "platform/log/InstallerLog.h"
#include "platform/workspace/Workspace.h"
#include "platform/workspace/WorkspaceContainers.h"
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
  bool placeholder = false;
  std::optional<FileURL> metadataDirectory;
  const PlistData* storeMetadata = nullptr;
};

bool FillBundleContainer(const BundlePlacement& placement, const FileURL& assembly,
                         ErrorRef* error) {
  const FileURL installed =
      assembly.URLByAppendingPathComponent(placement.bundle->url.lastPathComponent(), true);
  // A copy, not a move: the package must stay whole until the new container is in place.
  if (!Files().copyItemAtURL(placement.bundle->url, installed, error)) return false;
  if (placement.installType && !Files().setInstallType(*placement.installType, installed, error)) {
    return false;
  }
  if (placement.placeholder && !Files().markBundleAsPlaceholder(installed, error)) return false;
  if (placement.metadataDirectory &&
      !Files().captureStoreDataFromDirectory(*placement.metadataDirectory, assembly, true, true,
                                             error)) {
    return false;
  }
  if (placement.storeMetadata) {
    const FileURL file = assembly.URLByAppendingPathComponent("LyrandMetadata.plist");
    int e = 0;
    if (!WriteFileAtomically(file.path(), *placement.storeMetadata, &e)) {
      SetError(error, PosixError(kInstallFunction, __LINE__, e, "Failed to write %s: %s",
                                 file.path(), std::strerror(e)));
      return false;
    }
  }
  return true;
}

// Puts the bundle in place as the identifier's installation and retires what it replaces.
bool PlaceBundle(const WorkspaceLayout& layout, WorkspaceIndex& index,
                 const BundlePlacement& placement, InstallFailure* failure) {
  const PackageBundle& bundle = *placement.bundle;
  const IndexedContainer* previous = index.bundle(bundle.identifier);
  ContainerRecord record;
  record.containerClass = ContainerClass::Bundle;
  record.identifier = bundle.identifier;
  record.bundleName = bundle.url.lastPathComponent();
  record.bundleType = placement.bundleType;
  record.bundleVersion = bundle.version;
  record.appGroups = bundle.appGroups;
  record.installSequence = previous ? previous->record.installSequence + 1 : 1;

  ErrorRef error;
  auto placed = CreateContainer(
      layout, record,
      [&](const FileURL& assembly, ErrorRef* e) {
        return FillBundleContainer(placement, assembly, e);
      },
      &error);
  if (!placed) {
    *failure = {kWorkspaceInstallError, "InstallFailed",
                Format("Failed to install %@ as %@", bundle.url, bundle.identifier), error};
    return false;
  }
  if (previous && !RetireContainer(previous->url, &error)) {
    // The new container already wins every scan; the old one goes at the next recovery.
    VX_INSTALLER_LOG(3, kInstallFunction, "Failed to retire old bundle container %@: %@",
                     previous->url, error);
  }
  index.bundles.insert_or_assign(bundle.identifier, IndexedContainer{*placed, record});
  return true;
}

bool MakeContainers(const WorkspaceLayout& layout, WorkspaceIndex& index,
                    const InstallPackage& package, InstallFailure* failure) {
  std::vector<std::pair<const PackageBundle*, ContainerClass>> owners{
      {&package.main,
       package.main.isVPNPlugin ? ContainerClass::PluginData : ContainerClass::Data}};
  if (package.plugin) owners.emplace_back(&*package.plugin, ContainerClass::PluginData);
  for (const auto& [bundle, containerClass] : owners) {
    ErrorRef error;
    if (!EnsureDataContainer(layout, index, bundle->identifier, containerClass, &error)) {
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

// A customer package may not replace a built-in application of the same or a newer version.
std::optional<InstallFailure> BuiltInRefusal(VXGlobalConfiguration& configuration,
                                             const PackageBundle& bundle) {
  BundleMapRef builtIn = configuration.systemAppBundleIDToInfoMap();
  if (!builtIn) return std::nullopt;
  auto it = builtIn->find(bundle.identifier);
  if (it == builtIn->end()) return std::nullopt;
  const std::string builtInVersion =
      BundleVersionText(PlistValue(it->second).find("KBBundleVersion")).value_or("0");
  const std::string packageVersion = bundle.version.value_or("0");
  if (CompareBundleVersions(packageVersion, builtInVersion) > 0) return std::nullopt;
  return InstallFailure{kWorkspaceAlreadyInstalledError, kApplicationAlreadyInstalledError,
                        Format("%@ %@ is already installed as a built-in application, version %@",
                               bundle.identifier, packageVersion, builtInVersion),
                        nullptr};
}

// The package goes in one rename before it is removed: a crash part-way through removing
// it must never leave a half package that a retry would install as if it were whole.
void ConsumePackage(const WorkspaceLayout& layout, const FileURL& location) {
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
  }
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
  WorkspaceIndex index = ScanWorkspace(layout_);
  RecoverWorkspace(index);
  index.abandoned.clear();
  index.superseded.clear();

  auto package = ReadInstallPackage(location, options, &failure);
  if (!package) return fail(failure);
  reporter.step(10, "Verifying");
  IdentifierSetRef blacklist = configuration().installationBlacklist();
  if (!CheckInstallOptions(*package, options, blacklist ? *blacklist : IdentifierSet{}, &failure)) {
    return fail(failure);
  }
  if (!package->placeholder) {
    if (auto refusal = BuiltInRefusal(configuration(), package->main)) {
      ConsumePackage(layout_, location);
      return fail(*refusal);
    }
  }

  reporter.step(30, "CreatingContainers");
  if (!MakeContainers(layout_, index, *package, &failure)) return fail(failure);

  reporter.step(50, "InstallingApplication");
  const auto installType = RequestedInstallType(options);
  if (package->plugin) {
    BundlePlacement plugin{&*package->plugin, "VPNPlugin", installType, false,
                           std::nullopt,      nullptr};
    if (!PlaceBundle(layout_, index, plugin, &failure)) return fail(failure);
  }
  BundlePlacement application{&package->main,
                              "User",
                              installType,
                              false,
                              package->metadataDirectory,
                              package->storeMetadata ? &*package->storeMetadata : nullptr};
  if (package->placeholder) {
    application.bundleType = "Placeholder";
    application.placeholder = true;
  } else if (package->main.isVPNPlugin) {
    application.bundleType = "VPNPlugin";
  }
  if (!PlaceBundle(layout_, index, application, &failure)) return fail(failure);

  reporter.step(90, "Finishing");
  ConsumePackage(layout_, location);
  reporter.step(100, "Complete");
  return true;
}

}  // namespace vx
