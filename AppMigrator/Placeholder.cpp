// A placeholder makes an application known to the platform (name, version, icon) before
// its real bundle is installed, so that the platform gives it a data container and its data
// can move first. Nothing of the old bundle goes into it but five entries of its
// information list and a rendering of its icon.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "AppMigrator/ContainerFiles.h"
#include "AppMigrator/VXAppMigrator.h"
#include "filemanager/VXFileManager.h"
#include "platform/bundle/BundleHandle.h"
#include "platform/files/Beneath.h"
#include "platform/files/Sys.h"
#include "platform/image/IconImage.h"
#include "platform/log/MigrationLog.h"
#include "platform/plist/PlistFile.h"
#include "platform/system/DeviceRoot.h"
#include "platform/workspace/AppWorkspace.h"
#include "support/errors/ErrorMakers.h"

namespace vx {
namespace {

constexpr const char* kOperation =
    "-[VXAppMigrator _stageAndInstallPlaceholderForBundleAtURL:withIdentifier:inContainerURL:]";
constexpr const char* kIconOperation = "-[VXAppMigrator _writeIconForBundle:toURL:]";
constexpr const char* kStagingDirectoryName = "com.tarsel.velotrix.migrator";
constexpr const char* kStoreMetadataName = "LyrandMetadata.plist";
constexpr const char* kIconFileName = "Icon.png";
constexpr mode_t kPlaceholderMode = 0755;
constexpr const char* kCopiedInfoKeys[] = {
    "KBBundleIdentifier",       "KBBundleDisplayName", "KBBundleExecutable",
    "KBBundleVersion",          "KBBundleShortVersionString",
};

// The device's own temporary location: on the device's file system, and apart from the
// temporary directory that every user of the machine shares.
constexpr const char* kDeviceTemporaryLocation = "private/var/tmp";
constexpr const char* kPrivateDirectoryTemplate = "vxmigrator.XXXXXX";
constexpr mode_t kSharedTemporaryMode = 01777;
constexpr size_t kStoreMetadataSizeLimit = 16 << 20;

// The device's temporary location, made when the device has none, open to every user as a
// temporary directory is, so that root's run does not shut out the device's owner. A link
// there would put what is made in it wherever it points: it is refused.
bool EnsureTemporaryLocation(const FileURL& location, int* error) {
  struct stat st {};
  if (::lstat(location.fileSystemRepresentation(), &st) != 0 && errno == ENOENT) {
    VXFileManager::defaultManager().createDirectoryAtURL(location.URLByDeletingLastPathComponent(),
                                                         true, 0755, nullptr);
    if (sys::Mkdir(location.fileSystemRepresentation(), 0700) == 0) {
      const UniqueFd made = OpenDirectoryNoFollow(location.fileSystemRepresentation());
      if (made) sys::Fchmod(made.get(), kSharedTemporaryMode);
    }
  }
  if (!OpenDirectoryNoFollow(location.fileSystemRepresentation())) {
    *error = errno;
    return false;
  }
  return true;
}

bool WriteNewFile(const FileURL& file, const std::vector<uint8_t>& bytes, mode_t mode = 0600) {
  const UniqueFd fd(sys::Open(file.fileSystemRepresentation(),
                              O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
  return fd && sys::WriteAll(fd.get(), bytes.data(), bytes.size());
}

// The bundle lies in a container its application could write: it is opened beneath the
// container without following a link, and the reader and the icon renderer read its files
// beneath that open directory, each only as a regular file.
std::unique_ptr<BundleHandle> OpenOldBundle(const FileURL& bundle, const FileURL& container) {
  const std::optional<std::string> where =
      BundleLocationInContainer(container.path(), bundle.path());
  if (!where) return nullptr;
  const UniqueFd containerFd = OpenDirectoryNoFollow(container.fileSystemRepresentation());
  if (!containerFd) return nullptr;
  return BundleHandle::openBeneath(containerFd.get(), *where, bundle);
}

}  // namespace

bool VXAppMigrator::_stageAndInstallPlaceholderForBundleAtURL(const FileURL& bundle,
                                                              const std::string& identifier,
                                                              const FileURL& container) {
  // The identifier names a directory that is removed again at the end; one that reaches
  // into another directory must not name it.
  if (identifier.find('/') != std::string::npos || identifier.find('\0') != std::string::npos ||
      identifier.empty() || identifier == "." || identifier == "..") {
    VX_MIGRATION_LOG(3, kOperation,
                     "VXAppMigrator: Refusing to stage placeholder for identifier %@ : not a "
                     "file name",
                     identifier);
    return false;
  }

  const VXFileManager& fileManager = VXFileManager::defaultManager();
  const FileURL metadataFile = container.URLByAppendingPathComponent(kStoreMetadataName);

  std::string attempted;
  int made = 0;
  const std::optional<FileURL> privateDirectory = _placeholderWorkDirectory(&attempted, &made);
  if (!privateDirectory) {
    VX_MIGRATION_LOG(3, kOperation,
                     "VXAppMigrator: Failed to create staged placeholder directory at %@ : %@",
                     attempted, std::string(std::strerror(made)));
    return false;
  }
  const FileURL placeholder =
      privateDirectory->URLByAppendingPathComponent(kStagingDirectoryName, true)
          .URLByAppendingPathComponent(identifier, true)
          .URLByAppendingPathExtension("app");
  // Whatever happens, the placeholder goes (an installed one has already moved away); the
  // private directory stays for the next one and goes at the end of the run.
  struct RemoveOnExit {
    const FileURL& url;
    ~RemoveOnExit() { VXFileManager::defaultManager().removeItemAtURL(url, nullptr); }
  };
  const RemoveOnExit cleanup{placeholder};

  ErrorRef error;
  if (!fileManager.createDirectoryAtURL(placeholder, true, kPlaceholderMode, &error)) {
    VX_MIGRATION_LOG(3, kOperation,
                     "VXAppMigrator: Failed to create staged placeholder directory at %@ : %@",
                     placeholder.path(), error);
    return false;
  }

  // Read beneath the container: a link must not hand another file's bytes to the
  // installation, nor a FIFO stop the run.
  std::optional<PlistData> storeMetadata;
  {
    int readError = 0;
    const UniqueFd containerFd = OpenDirectoryNoFollow(container.fileSystemRepresentation());
    if (!containerFd) readError = errno;
    if (containerFd) {
      storeMetadata = ReadRegularFileBeneath(containerFd.get(), kStoreMetadataName,
                                             kStoreMetadataSizeLimit, &readError);
    }
    // Most applications never had store metadata.
    if (!storeMetadata && readError != ENOENT) {
      VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to read %@ : %@",
                       metadataFile.path(), DescribeReadFailure(readError));
    }
  }

  std::unique_ptr<BundleHandle> handle = OpenOldBundle(bundle, container);
  if (!handle) {
    VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to create KBBundle for %@",
                     bundle.path());
    return false;
  }
  const PlistDictionary* info = handle->infoDictionary();
  if (!info) {
    VX_MIGRATION_LOG(3, kOperation,
                     "VXAppMigrator: Failed to get bundle info dictionary for bundle %@",
                     bundle.path());
    return false;
  }
  PlistDictionary placeholderInfo;
  for (const char* key : kCopiedInfoKeys) {
    if (auto it = info->find(key); it != info->end()) placeholderInfo.emplace(key, it->second);
  }

  // An icon is a courtesy to the user; the placeholder is installed without one as well.
  const FileURL iconFile = placeholder.URLByAppendingPathComponent(kIconFileName);
  if (_writeIconForBundle(*handle, iconFile)) {
    placeholderInfo.emplace("KBBundleIconFile", kIconFileName);
  } else {
    VX_MIGRATION_LOG(3, kOperation,
                     "VXAppMigrator: Writing placeholder icon for app %@ to %@ failed", identifier,
                     iconFile);
  }

  // Neither this file nor the icon is synced here: the workspace syncs a placeholder's files
  // when it commits the installation, in the flush that makes the container durable anyway.
  const FileURL infoFile = placeholder.URLByAppendingPathComponent("Info.plist");
  if (!WriteNewFile(infoFile,
                    SerializePropertyList(PlistValue(std::move(placeholderInfo))), 0644)) {
    VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to write placeholder Info.plist to %@",
                     infoFile);
    return false;
  }

  VX_MIGRATION_LOG(5, kOperation, "VXAppMigrator: Installing placeholder for %@", identifier);
  PlistDictionary options{{InstallTypeKey, kMigrationInstallType},
                          {PackageTypeKey, PackageTypePlaceholder},
                          {"KBBundleIdentifier", identifier},
                          {"SkipBlacklist", true}};
  if (storeMetadata) options.emplace(StoreMetadataKey, std::move(*storeMetadata));
  _addMigrationOrigin(&options);
  ErrorRef installError;
  if (!AppWorkspace::defaultWorkspace().installApplication(placeholder, options, &installError)) {
    VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to install placeholder for %@: %@",
                     identifier, installError ? DescribeUserInfo(*installError) : "(null)");
    return false;
  }
  return true;
}

bool VXAppMigrator::_writeIconForBundle(const BundleHandle& bundle, const FileURL& destination) {
  std::vector<uint8_t> buffer;
  std::optional<IconImage> icon = IconRenderer::homeScreenIcon(bundle);
  if (!icon) {
    VX_MIGRATION_LOG(3, kIconOperation, "VXAppMigrator: Failed to create icon from bundle %@",
                     Describe(bundle));
    return false;
  }
  std::unique_ptr<ImageEncoder> encoder = ImageEncoder::create(&buffer, "public.png", 1);
  if (!encoder) {
    VX_MIGRATION_LOG(3, kIconOperation,
                     "VXAppMigrator: KGImageDestinationCreateWithData returned NULL image from "
                     "bundle %@",
                     Describe(bundle));
    return false;
  }
  encoder->addImage(*icon);
  if (!encoder->finalize()) {
    VX_MIGRATION_LOG(3, kIconOperation,
                     "VXAppMigrator: KGImageDestinationFinalize failed for icon from bundle %@",
                     Describe(bundle));
    return false;
  }
  if (!WriteNewFile(destination, buffer, 0644)) {
    const int saved = errno;
    VX_MIGRATION_LOG(3, kIconOperation, "VXAppMigrator: Failed to write image data to %@ : %@",
                     destination,
                     PosixError(kIconOperation, __LINE__, saved, "write of %@ failed: %s",
                                destination, std::strerror(saved)));
    return false;
  }
  return true;
}

// A directory that only this process's user can enter, made once per run: nothing that
// another user (or an earlier run as another user) left in the temporary location can stand
// in its way or redirect what is built and removed in it.
std::optional<FileURL> VXAppMigrator::_placeholderWorkDirectory(std::string* attempted,
                                                                int* error) {
  const FileURL location = FileURL::fileURLWithPath(DeviceRoot() + kDeviceTemporaryLocation, true);
  *attempted = location.URLByAppendingPathComponent(kPrivateDirectoryTemplate).path();
  // Looked at before every use: the location may have changed since the last one.
  if (!EnsureTemporaryLocation(location, error)) return std::nullopt;
  struct stat st {};
  if (_placeholderDirectory) {
    // Still the directory this run made, where it made it: anything else is not ours.
    const PrivateDirectory& made = *_placeholderDirectory;
    if (::lstat(made.url.fileSystemRepresentation(), &st) == 0 && S_ISDIR(st.st_mode) &&
        st.st_dev == made.device && st.st_ino == made.inode && st.st_uid == ::geteuid()) {
      return made.url;
    }
    _placeholderDirectory.reset();
  }
  std::string path = *attempted;
  if (!sys::Mkdtemp(path.data()) || ::lstat(path.c_str(), &st) != 0) {
    *error = errno;
    return std::nullopt;
  }
  _placeholderDirectory = PrivateDirectory{FileURL::fileURLWithPath(path, true), st.st_dev,
                                           st.st_ino};
  return _placeholderDirectory->url;
}

void VXAppMigrator::_removePlaceholderWorkDirectory() {
  if (!_placeholderDirectory) return;
  VXFileManager::defaultManager().removeItemAtURL(_placeholderDirectory->url, nullptr);
  _placeholderDirectory.reset();
}

}  // namespace vx
