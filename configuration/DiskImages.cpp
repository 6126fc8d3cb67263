// Applications on attached disk images. The registry leads from the disk-image controller
// to its drives and their media; the mount table leads from a medium's device node to where
// its file system is mounted.
//
// Mount points are paths of the host, as the mount table gives them. On a device that lives
// under a directory (a device root other than "/"), the device's own directories are under
// that root too, so an image mounted on <root>/Developer is the device's developer image:
// its "Applications" directory equals developerAppsDirectory and is listed once. The debug
// mount area is recognised by the mount point's text as the table gives it.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "configuration/VXGlobalConfiguration.h"
#include "platform/log/InstallerLog.h"
#include "platform/registry/DeviceRegistry.h"
#include "platform/registry/MountTable.h"

namespace vx {
namespace {

constexpr const char* kDebugMountPrefix = "/private/var/debug_mount";

}  // namespace

std::optional<std::string> VXGlobalConfiguration::mountPointForDevice(uint32_t device) {
  static const char* const kFunction = "-[VXGlobalConfiguration mountPointForDevice:]";
  std::vector<MountEntry> mounts;
  if (getmntinfo(&mounts) == 0) {
    VX_INSTALLER_LOG(3, kFunction, "getmntinfo failed: %s", std::strerror(errno));
    return std::nullopt;
  }
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
  std::vector<FileURL> directories;
  for (const std::string& mountPoint : diskImageMountPoints()) {
    if (mountPoint.starts_with(kDebugMountPrefix)) continue;
    directories.push_back(FileURL::fileURLWithPath(mountPoint, true)
                              .URLByAppendingPathComponent("Applications", true));
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
