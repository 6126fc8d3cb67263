// A placeholder makes an application known to the platform (name, version, icon) before
// its real bundle is installed, so that the platform gives it a data container and its data
// can move first. Nothing of the old bundle goes into it but five entries of its
// information list and a rendering of its icon.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "AppMigrator/VXAppMigrator.h"
#include "filemanager/VXFileManager.h"
#include "platform/bundle/BundleHandle.h"
#include "platform/files/AtomicFile.h"
#include "platform/image/IconImage.h"
#include "platform/log/MigrationLog.h"
#include "platform/plist/PlistFile.h"
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
constexpr unsigned kMigrationInstallType = 6;
constexpr const char* kCopiedInfoKeys[] = {
    "KBBundleIdentifier",       "KBBundleDisplayName", "KBBundleExecutable",
    "KBBundleVersion",          "KBBundleShortVersionString",
};

FileURL ProcessTemporaryDirectory() {
  const char* tmpdir = std::getenv("TMPDIR");
  return FileURL::fileURLWithPath(tmpdir && *tmpdir ? tmpdir : "/tmp", true);
}

// The bytes of the store metadata. A missing file is the platform's "no such file" error,
// which is no failure: most applications never had store metadata.
std::optional<PlistData> ReadStoreMetadata(const FileURL& file, ErrorRef* error) {
  int saved = 0;
  std::optional<std::vector<uint8_t>> bytes = ReadFileContents(file.path(), &saved);
  if (bytes) return bytes;
  if (saved == ENOENT) {
    SetError(error, _CreateError(kOperation, __LINE__, VXPlatformErrorDomain,
                                 kVXFileReadNoSuchFileError, "The file %@ doesn't exist.", file));
  } else {
    SetError(error, PosixError(kOperation, __LINE__, saved, "read of %@ failed: %s", file,
                               std::strerror(saved)));
  }
  return std::nullopt;
}

bool IsMissingFile(const ErrorRef& error) {
  return error && error->domain() == VXPlatformErrorDomain &&
         error->code() == kVXFileReadNoSuchFileError;
}

}  // namespace

bool VXAppMigrator::_stageAndInstallPlaceholderForBundleAtURL(const FileURL& bundle,
                                                              const std::string& identifier,
                                                              const FileURL& container) {
  // The identifier names a directory that is removed again at the end; one that reaches
  // into another directory must not name it.
  if (identifier.find('/') != std::string::npos || identifier.find('\0') != std::string::npos) {
    VX_MIGRATION_LOG(3, kOperation,
                     "VXAppMigrator: Refusing to stage placeholder for identifier %@ : not a "
                     "file name",
                     identifier);
    return false;
  }

  const VXFileManager& fileManager = VXFileManager::defaultManager();
  const FileURL metadataFile = container.URLByAppendingPathComponent(kStoreMetadataName);
  const FileURL placeholder = ProcessTemporaryDirectory()
                                  .URLByAppendingPathComponent(kStagingDirectoryName, true)
                                  .URLByAppendingPathComponent(identifier, true)
                                  .URLByAppendingPathExtension("app");

  // Whatever happens, the temporary bundle goes; a later attempt rebuilds it.
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

  ErrorRef readError;
  std::optional<PlistData> storeMetadata = ReadStoreMetadata(metadataFile, &readError);
  if (!storeMetadata && !IsMissingFile(readError)) {
    VX_MIGRATION_LOG(3, kOperation, "VXAppMigrator: Failed to read %@ : %@", metadataFile.path(),
                     readError);
  }

  std::unique_ptr<BundleHandle> handle = BundleHandle::open(bundle);
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

  const FileURL infoFile = placeholder.URLByAppendingPathComponent("Info.plist");
  if (!WritePropertyListFile(infoFile.path(), PlistValue(std::move(placeholderInfo)))) {
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
  int saved = 0;
  if (!WriteFileAtomically(destination.path(), buffer, &saved)) {
    VX_MIGRATION_LOG(3, kIconOperation, "VXAppMigrator: Failed to write image data to %@ : %@",
                     destination,
                     PosixError(kIconOperation, __LINE__, saved, "write of %@ failed: %s",
                                destination, std::strerror(saved)));
    return false;
  }
  return true;
}

}  // namespace vx
