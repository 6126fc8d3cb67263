#include "support/LoadInfoPlist.h"

#include <mutex>

#include "filemanager/VXFileManager.h"
#include "platform/bundle/BundleHandle.h"
#include "platform/log/InstallerLog.h"

namespace vx {
namespace {

constexpr const char* kFunction = "VXLoadInfoPlist";

// Leaked on purpose: a bundle read may still run on another thread while static
// destructors do, and a destroyed mutex would turn that into a crash at exit.
std::mutex& BundleLock() {
  static std::mutex* lock = new std::mutex;
  return *lock;
}

// Why the file could not be read, after the message that says it could not: a list refused
// for its depth or size must be told from a missing one.
std::string ProblemSuffix(const BundleHandle& bundle) {
  return bundle.infoProblem().empty() ? std::string() : " : " + bundle.infoProblem();
}

PlistArray KeyList(const std::set<std::string>& keys) {
  return PlistArray(keys.begin(), keys.end());
}

std::optional<PlistDictionary> FilteredRead(const BundleHandle& bundle,
                                            const std::set<std::string>& keys) {
  std::optional<PlistValue> filtered = bundle.filteredInfoPlist(keys);
  if (!filtered) {
    VX_INSTALLER_LOG(3, kFunction, "Failed to get filtered Info.plist with keys %@ from bundle %@%@",
                     KeyList(keys), Describe(bundle), ProblemSuffix(bundle));
    return std::nullopt;
  }
  const PlistDictionary* dict = filtered->dictionary();
  if (!dict) {
    VX_INSTALLER_LOG(3, kFunction,
                     "Object returned from _KBBundleCreateFilteredInfoPlist was not a dictionary, "
                     "was type %@",
                     TypeName(*filtered));
    return std::nullopt;
  }
  // The location of the information file is the platform's own entry, never the caller's
  // business, even when the caller names it (and whatever a file of that name pretends).
  PlistDictionary result = *dict;
  result.erase(kKBBundleInfoPlistURLKey);
  return result;
}

std::optional<PlistDictionary> WholeRead(const BundleHandle& bundle, const FileURL& bundleURL) {
  const PlistDictionary* info = bundle.infoDictionary();
  if (!info) {
    VX_INSTALLER_LOG(3, kFunction, "KBBundleGetInfoDictionary failed for bundle %@%@", bundleURL,
                     ProblemSuffix(bundle));
    return std::nullopt;
  }
  PlistDictionary result = *info;
  result.erase(kKBBundleInfoPlistURLKey);
  return result;
}

}  // namespace

std::optional<PlistDictionary> VXLoadInfoPlist(const FileURL& bundleURL,
                                               const std::set<std::string>* keys) {
  const FileURL infoURL = bundleURL.URLByAppendingPathComponent("Info.plist", false);
  if (VXFileManager::defaultManager().itemDoesNotExistAtURL(infoURL)) {
    VX_INSTALLER_LOG(7, kFunction, "Missing Info.plist at %@", infoURL);
    return std::nullopt;
  }

  std::lock_guard<std::mutex> guard(BundleLock());
  std::unique_ptr<BundleHandle> bundle = BundleHandle::open(bundleURL);
  if (!bundle) {
    VX_INSTALLER_LOG(3, kFunction, "Failed to create KBBundle from URL %@", bundleURL);
    return std::nullopt;
  }
  // Declared after the guard, the handle is closed before the lock is released.
  return keys ? FilteredRead(*bundle, *keys) : WholeRead(*bundle, bundleURL);
}

}  // namespace vx
