// Applications on attached disk images. The registry leads from the disk-image controller
// to its drives and their media; the mount table leads from a medium's device node to where
// its file system is mounted.
//
// Mount points are paths of the host, as the mount table gives them. On a device that lives
// under a directory (a device root other than "/"), the device sees only what is mounted
// inside that root, and sees it re-rooted: <root>/Developer is its /Developer, so an image
// mounted there is the device's developer image, whose "Applications" directory equals
// developerAppsDirectory and is listed once. The host's own mounts elsewhere are not the
// device's disk images, and the debug mount area is recognised where the device sees it.
#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "configuration/VXGlobalConfiguration.h"
#include "platform/log/InstallerLog.h"
#include "platform/registry/DeviceRegistry.h"
#include "platform/registry/MountTable.h"

namespace vx {
namespace {

constexpr const char* kDebugMountPrefix = "/private/var/debug_mount";

// The root as the mount table spells paths: resolved, so that a root given through a link
// still matches, and ending with a slash.
std::string CanonicalRoot(const FileURL& root) {
  std::unique_ptr<char, decltype(&::free)> resolved(::realpath(root.fileSystemRepresentation(),
                                                               nullptr),
                                                    &::free);
  std::string text = resolved ? resolved.get() : root.path();
  if (!text.ends_with('/')) text += '/';
  return text;
}

// Where the device sees a host mount point: re-rooted under `root` (which ends with a slash),
// or nothing when it lies outside the root. A mount on a name that merely begins like the
// root ("<root>-other") is outside.
std::optional<std::string> DevicePathOfMountPoint(const std::string& mountPoint,
                                                  const std::string& root) {
  if (root == "/") return mountPoint;
  if (mountPoint + "/" == root) return std::string("/");
  if (!mountPoint.starts_with(root)) return std::nullopt;
  return "/" + mountPoint.substr(root.size());
}

}  // namespace

std::optional<std::string> VXGlobalConfiguration::mountPointForDevice(uint32_t device) {
  static const char* const kFunction = "-[VXGlobalConfiguration mountPointForDevice:]";
  std::vector<MountEntry> mounts;
  if (getmntinfo(&mounts) == 0) {
    VX_INSTALLER_LOG(3, kFunction, "getmntinfo failed: %s", std::strerror(errno));
    return std::nullopt;
  }
  // The device's mount table is the host's less what is mounted outside the device root.
  const std::string root = CanonicalRoot(_rootPath);
  std::erase_if(mounts, [&root](const MountEntry& mount) {
    return !DevicePathOfMountPoint(mount.mountedOn, root);
  });
  DeviceRegistry& registry = DeviceRegistry::shared();
  RegistryHandle iterator = 0;
  if (registry.createIterator(device, kRegistryServicePlane, true, &iterator) != kRegistrySuccess) {
    VX_INSTALLER_LOG(3, kFunction, "KzRegistryEntryCreateIterator failed for deviceObj (%u)",
                     device);
    return std::nullopt;
  }
  std::optional<std::string> mountPoint;
  while (!mountPoint) {
    const RegistryHandle object = registry.iteratorNext(iterator);
    if (object == 0) break;
    std::optional<PlistValue> bsdName;
    if (registry.conformsTo(object, "KzMedia")) {
      bsdName = registry.createProperty(object, "BSD Name");
    }
    if (bsdName && bsdName->string()) {
      const std::string devicePath = "/dev/" + *bsdName->string();
      for (const MountEntry& mount : mounts) {
        if (mount.mountedFrom == devicePath) {
          mountPoint = mount.mountedOn;
          break;
        }
      }
    }
    registry.release(object);
  }
  registry.release(iterator);
  return mountPoint;
}

std::vector<std::string> VXGlobalConfiguration::diskImageMountPoints() {
  std::vector<std::string> mountPoints;
  DeviceRegistry& registry = DeviceRegistry::shared();
  const RegistryHandle controller = registry.getMatchingService("KzPlovController");
  if (controller == 0) return mountPoints;

  RegistryHandle children = 0;
  const RegistryStatus status =
      registry.createIterator(controller, kRegistryServicePlane, false, &children);
  if (status != kRegistrySuccess) {
    VX_INSTALLER_LOG(3, "-[VXGlobalConfiguration diskImageMountPoints]",
                     "unable to create controller child iterator: error 0x%08X (%d)", status,
                     status);
    registry.release(controller);
    return mountPoints;
  }
  while (const RegistryHandle child = registry.iteratorNext(children)) {
    if (registry.conformsTo(child, "KzPlovHDDrive")) {
      if (auto mountPoint = mountPointForDevice(child)) mountPoints.push_back(*mountPoint);
    } else {
      // Something between the controller and its drives: the first drive below it that
      // has a mounted file system stands for it.
      RegistryHandle descendants = 0;
      if (registry.createIterator(child, kRegistryServicePlane, true, &descendants) ==
          kRegistrySuccess) {
        while (const RegistryHandle descendant = registry.iteratorNext(descendants)) {
          std::optional<std::string> mountPoint;
          if (registry.conformsTo(descendant, "KzPlovHDDrive")) {
            mountPoint = mountPointForDevice(descendant);
          }
          registry.release(descendant);
          if (mountPoint) {
            mountPoints.push_back(*mountPoint);
            break;
          }
        }
        registry.release(descendants);
      }
    }
    registry.release(child);
  }
  registry.release(children);
  registry.release(controller);
  return mountPoints;
}

std::vector<FileURL> VXGlobalConfiguration::diskImageApplicationsDirectories() {
  const FileURL developerApps = developerAppsDirectory();
  const std::string root = CanonicalRoot(_rootPath);
  std::vector<FileURL> directories;
  for (const std::string& mountPoint : diskImageMountPoints()) {
    const std::optional<std::string> devicePath = DevicePathOfMountPoint(mountPoint, root);
    if (!devicePath || devicePath->starts_with(kDebugMountPrefix)) continue;
    // Re-rooted from the device path, so that the location is spelt like every other location
    // of this configuration (and compares equal to them) even when the root was given
    // through a link.
    const FileURL mounted = *devicePath == "/" ? _rootPath
                                               : _rootPath.URLByAppendingPathComponent(
                                                     devicePath->substr(1), true);
    directories.push_back(mounted.URLByAppendingPathComponent("Applications", true));
  }
  if (std::find(directories.begin(), directories.end(), developerApps) == directories.end()) {
    directories.push_back(developerApps);
  }
  VX_INSTALLER_LOG(7, "-[VXGlobalConfiguration diskImageApplicationsDirectories]", "returning: %@",
                   directories);
  return directories;
}

BundleMap VXGlobalConfiguration::diskImageAppBundleIDToInfoMap() {
  BundleMap applications;
  for (const FileURL& directory : diskImageApplicationsDirectories()) {
    BundleMapRef found = _bundleIDMapForAppsInDirectory(directory);
    if (!found) continue;
    // A later image's record wins for an identifier that two images carry.
    for (const auto& [identifier, record] : *found) applications[identifier] = record;
  }
  return applications;
}

}  // namespace vx
