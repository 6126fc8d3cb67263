// The installer service's register of safe harbors and its data-protection update.
//
// The register is "SafeHarborRegister.plist" in the installer data directory: a dictionary
// from identifier to {"Path" = the harbor's path as given; "ContainerType" = integer}. A
// second registration of an identifier replaces the first.
#include "platform/installer/InstallerService.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>

#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
#include "platform/files/Beneath.h"
#include "platform/files/Sys.h"
#include "platform/log/InstallerLog.h"
#include "platform/plist/PlistFile.h"
#include "platform/system/DeviceRoot.h"
#include "platform/workspace/WorkspaceLayout.h"
#include "platform/workspace/WorkspaceRegistry.h"

namespace vx {

const char* const kVXUpdateSystemAppDataContainerDataProtection =
    "UpdateSystemAppDataContainerDataProtection";

namespace {

constexpr const char* kRegisterFileName = "SafeHarborRegister.plist";
constexpr const char* kRegisterFunction = "VelotrixRegisterSafeHarborForContainerType";
constexpr const char* kProtectionFunction = "VelotrixUpdateContainerDataProtectionForMigratorOnly";
constexpr int32_t kDataContainerProtectionClass = 4;

// Harbor paths come as the device records them; under a device image they live below its
// root. A path already below the root is taken as it is.
std::string LocalHarborPath(const std::string& path) {
  const std::string& root = DeviceRoot();
  if (root == "/" || path.rfind(root, 0) == 0) return path;
  return ResolveDevicePath(path, true).path();
}

}  // namespace

int VelotrixRegisterSafeHarborForContainerType(const char* path, const char* identifier,
                                               int containerType, const void* /*reserved*/) {
  if (!path || !*path || !identifier || !*identifier) return 0;
  struct stat st {};
  const std::string local = LocalHarborPath(path);
  if (::stat(local.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    VX_INSTALLER_LOG(3, kRegisterFunction, "Refusing safe harbor for %s: \"%s\" is not a directory",
                     identifier, path);
    return 0;
  }

  // The register is read, changed and written whole; one registration at a time.
  static std::mutex registerMutex;
  std::lock_guard lock(registerMutex);
  const std::string registerPath = VXGlobalConfiguration::sharedInstance()
                                       .dataDirectory()
                                       .URLByAppendingPathComponent(kRegisterFileName)
                                       .path();
  PlistDictionary entries = ReadPropertyListDictionary(registerPath).value_or(PlistDictionary{});
  entries[identifier] =
      PlistDictionary{{"Path", std::string(path)}, {"ContainerType", containerType}};
  int error = 0;
  if (!WritePropertyListFile(registerPath, PlistValue(std::move(entries)), PlistFormat::XML,
                             &error)) {
    VX_INSTALLER_LOG(3, kRegisterFunction, "Failed to write safe harbor register %s: %s",
                     registerPath, std::strerror(error));
    return 0;
  }
  return 1;
}

bool VelotrixUpdateContainerDataProtectionForMigratorOnly(const PlistDictionary& options) {
  const auto option = options.find(kVXUpdateSystemAppDataContainerDataProtection);
  const bool includeBuiltIn = option != options.end() && option->second.boolean().value_or(false);
  VXGlobalConfiguration& configuration = VXGlobalConfiguration::sharedInstance();
  const BundleMapRef builtIn = configuration.systemAppBundleIDToInfoMap();
  const WorkspaceIndex index = ScanWorkspace(WorkspaceLayout(DeviceRoot()));

  bool updatedAll = true;
  bool updatedAny = false;
  for (const auto& [identifier, container] : index.dataContainers) {
    // A built-in application that an installation replaced owns an ordinary container.
    const bool builtInOnly = builtIn && builtIn->count(identifier) && !index.bundle(identifier);
    if (builtInOnly && !includeBuiltIn) continue;
    ErrorRef error;
    if (!VXFileManager::defaultManager().setDataProtectionClassOfItemAtURL(
            container.url, kDataContainerProtectionClass, nullptr, &error)) {
      VX_INSTALLER_LOG(3, kProtectionFunction, "Failed to set data protection of %@ for %@: %@",
                       container.url, identifier, error);
      updatedAll = false;
    } else {
      updatedAny = true;
    }
  }
  // A class lives in its container's attributes, which reach the disk with the inode and not
  // before; the run records itself done right after this, so the classes are made durable
  // first: one sync of the file system rather than one fsync per container.
  if (updatedAny) {
    const FileURL containers = WorkspaceLayout(DeviceRoot()).containersDirectory();
    UniqueFd directory = OpenDirectoryNoFollow(containers.fileSystemRepresentation());
    if (!directory || sys::Syncfs(directory.get()) != 0) {
      VX_INSTALLER_LOG(3, kProtectionFunction, "Failed to make the data protection of %@ durable: %s",
                       containers, std::strerror(errno));
      updatedAll = false;
    }
  }
  return updatedAll;
}

}  // namespace vx
