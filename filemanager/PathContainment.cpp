// Deciding whether a location, usually a symbolic link a privileged walk came across, really
// lies inside a base directory. Whoever made the link controls its text, so every rejection
// is logged and the answer is simply absent: nothing on disk is touched.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "filemanager/StringAdditions.h"
#include "filemanager/VXFileManager.h"
#include "platform/log/InstallerLog.h"

namespace vx {
namespace {

constexpr const char* kRealPathIfChild = "-[VXFileManager realPathForURL:ifChildOfURL:]";
constexpr const char* kRealPath =
    "-[VXFileManager _realPathForURL:allowNonExistentPathComponents:]";
constexpr const char* kRealPathWhatExists = "-[VXFileManager _realPathWhatExistsInPath:]";

// A link text is read whole. Cut at some shorter limit, a text that wanders down and then
// climbs out behind the cut would pass the depth check while the file system follows all
// of it.
constexpr size_t kLinkTextLimit = PATH_MAX;
constexpr std::string_view kPrivatePrefix = "/private";

bool SameDirectory(const std::string& a, const std::string& b) {
  struct stat sa {};
  struct stat sb {};
  return ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 && S_ISDIR(sa.st_mode) &&
         sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

// Where "/var" is an alias of "/private/var", the same directory has two spellings, and the
// textual prefix test must not tell them apart. Elsewhere (a device laid out under "/", whose
// paths really begin with "/private") the stripped path names another place, so the prefix
// is removed only when its first directory below "/private" is the very directory of the
// same name below "/". The real paths compared later are canonical (one directory has one
// real path), so they need no such rule and get none: skipping a "private" component there
// would let "/var/x" pass for "/private/var/x".
FileURL WithoutPrivatePrefix(const FileURL& url) {
  const std::string& path = url.path();
  if (!path.starts_with("/private/")) return url;
  const std::string stripped = path.substr(kPrivatePrefix.size());
  const std::string first = stripped.substr(0, stripped.find('/', 1));
  if (!SameDirectory(std::string(kPrivatePrefix) + first, first)) return url;
  return FileURL::fileURLWithPath(stripped, url.hasDirectoryPath());
}

std::string DeletingLastPathComponent(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return {};
  return slash == 0 ? std::string("/") : path.substr(0, slash);
}

std::string AppendingPathComponent(const std::string& path, const std::string& component) {
  if (path.empty()) return component;
  return path.back() == '/' ? path + component : path + "/" + component;
}

// Compares the components of two real paths: `real` lies inside `realBase` when the base's
// components are its first ones. Rejections are logged with the paths the caller was given.
bool RealPathLiesInside(const FileURL& real, const FileURL& realBase,
                        const std::string& suspiciousPath, const std::string& basePath) {
  const std::vector<std::string> baseComponents = realBase.pathComponents();
  const std::vector<std::string> childComponents = real.pathComponents();
  const size_t nb = baseComponents.size();
  const size_t ns = childComponents.size();
  if (nb < 2 || ns < 2) {
    VX_INSTALLER_LOG(3, kRealPathIfChild,
                     "Rejecting %@ with base %@ because real component counts don't make sense "
                     "(reals %@ ; %@)",
                     suspiciousPath, basePath, real, realBase);
    return false;
  }
  if (nb > ns) {
    VX_INSTALLER_LOG(3, kRealPathIfChild,
                     "Rejecting %@ with base %@ because base component count is greater than "
                     "child component count (reals %@ ; %@)",
                     suspiciousPath, basePath, real, realBase);
    return false;
  }
  for (size_t i = 1; i < nb; ++i) {
    if (baseComponents[i] != childComponents[i]) {
      VX_INSTALLER_LOG(3, kRealPathIfChild,
                       "Rejecting %@ with base %@ (reals %@ ; %@) because components diverge at "
                       "%@ != %@",
                       suspiciousPath, basePath, real, realBase, baseComponents[i],
                       childComponents[i]);
      return false;
    }
  }
  return true;
}

}  // namespace

std::optional<FileURL> VXFileManager::realPathForURL(const std::optional<FileURL>& suspicious,
                                                     const std::optional<FileURL>& base) const {
  if (!suspicious || !base) {
    VX_INSTALLER_LOG(3, kRealPathIfChild, "The base path %@ and/or suspicious path %@ were nil",
                     base, suspicious);
    return std::nullopt;
  }
  const FileURL baseURL = WithoutPrivatePrefix(*base);
  const FileURL suspiciousURL = WithoutPrivatePrefix(*suspicious);
  const std::string& basePath = baseURL.path();
  const std::string& suspiciousPath = suspiciousURL.path();

  if (!suspiciousPath.starts_with(basePath)) {
    VX_INSTALLER_LOG(3, kRealPathIfChild,
                     "supiscious path %@ does not contain base path %@ as a prefix",
                     suspiciousPath, basePath);
    return std::nullopt;
  }
  if (VelotrixAdditions::containsDotDotPathComponents(suspiciousPath)) {
    VX_INSTALLER_LOG(3, kRealPathIfChild,
                     "The suspicious path %@ contains '..' paths, which are invalid",
                     suspiciousPath);
    return std::nullopt;
  }

  // A relative link is judged by its text first, then, like any location, by the real path
  // of where it is and of where it leads.
  std::optional<std::string> linkText;
  std::vector<char> linkBytes(kLinkTextLimit);
  const ssize_t linkLength = ::readlink(suspiciousPath.c_str(), linkBytes.data(), linkBytes.size());
  if (linkLength < 0) {
    if (errno != EINVAL && errno != ENOENT) {
      VX_INSTALLER_LOG(3, kRealPathIfChild, "Readlink failed: %s", std::strerror(errno));
      return std::nullopt;
    }
  } else {
    const std::string target = VelotrixAdditions::stringWithFileSystemRepresentation(
        linkBytes.data(), static_cast<size_t>(linkLength));
    if (target.starts_with("/")) {
      VX_INSTALLER_LOG(3, kRealPathIfChild,
                       "Rejecting %@ -> %s, as absolute symlinks are not allowed", suspiciousPath,
                       target);
      return std::nullopt;
    }
    int64_t baseDepth = 0;
    if (!_validateSymlink(basePath, 0, &baseDepth)) {
      VX_INSTALLER_LOG(3, kRealPathIfChild, "Failed to retrieve depth of %@", basePath);
      return std::nullopt;
    }
    // The link's target as seen from the base, e.g. /sub/dir/../x; it may descend and come
    // back, but never climb above the base.
    const std::string relativeTarget = AppendingPathComponent(
        DeletingLastPathComponent(suspiciousPath.substr(basePath.size())), target);
    if (!_validateSymlink(relativeTarget, baseDepth, nullptr)) {
      VX_INSTALLER_LOG(3, kRealPathIfChild,
                       "Rejecting %@ -> %@, as it is points outside or to the base %@",
                       suspiciousPath, relativeTarget, basePath);
      return std::nullopt;
    }
    linkText = target;
  }

  const std::optional<FileURL> realBase = _realPathForURL(baseURL, false);
  if (!realBase) {
    VX_INSTALLER_LOG(3, kRealPathIfChild, "Failed to retrieve realpath for base path %@ ",
                     basePath);
    return std::nullopt;
  }
  std::optional<FileURL> realSuspicious = _realPathForURL(suspiciousURL, true);
  if (!realSuspicious) {
    VX_INSTALLER_LOG(3, kRealPathIfChild, "Failed to retrieve realpath for suspicious path %@",
                     suspiciousPath);
    return std::nullopt;
  }
  if (!RealPathLiesInside(*realSuspicious, *realBase, suspiciousPath, basePath)) {
    return std::nullopt;
  }
  if (linkText) {
    // The text passed the depth check, but its components are names that may themselves be
    // links ("d -> ." makes "d/.." climb out of the base). Where the link really leads is
    // judged like any other location; while its target is missing, where it would lead once
    // made.
    const std::string linkTarget =
        AppendingPathComponent(DeletingLastPathComponent(suspiciousPath), *linkText);
    const std::optional<FileURL> realTarget =
        _realPathForURL(FileURL::fileURLWithPath(linkTarget, false), true);
    if (!realTarget) {
      VX_INSTALLER_LOG(3, kRealPathIfChild, "Failed to retrieve realpath for suspicious path %@",
                       suspiciousPath);
      return std::nullopt;
    }
    if (!RealPathLiesInside(*realTarget, *realBase, suspiciousPath, basePath)) return std::nullopt;
  }
  return realSuspicious;
}

std::optional<FileURL> VXFileManager::_realPathForURL(const FileURL& url,
                                                      bool allowNonExistentPathComponents) const {
  char resolved[PATH_MAX] = {};
  if (::realpath(url.fileSystemRepresentation(), resolved)) {
    return FileURL::fileURLWithPath(resolved, false);
  }
  const int error = errno;
  if (allowNonExistentPathComponents && error == ENOENT) {
    return _realPathWhatExistsInPath(url.path());
  }
  VX_INSTALLER_LOG(3, kRealPath, "Failed to realpath %s : %s at %s", url.path(),
                   std::strerror(error), resolved);
  return std::nullopt;
}

std::optional<FileURL> VXFileManager::_realPathWhatExistsInPath(const std::string& path) const {
  const std::vector<std::string> components = PathComponents(path);
  const size_t n = components.size();
  // "/" alone is never resolved: a path whose only existing part is the root is refused.
  for (size_t k = n; k >= 2; --k) {
    const std::vector<std::string> head(components.begin(), components.begin() + k);
    const FileURL prefix = FileURL::fileURLWithPathComponents(head);
    if (!itemExistsAtURL(prefix)) continue;
    const std::optional<FileURL> real = _realPathForURL(prefix, false);
    if (!real) continue;
    const std::string tail =
        PathWithComponents(std::vector<std::string>(components.begin() + k, components.end()));
    VX_INSTALLER_LOG(7, kRealPathWhatExists, "Realpathed %@ ; appending non-existing components %@",
                     real->path(), tail);
    return real->URLByAppendingPathComponent(tail, false);
  }
  return std::nullopt;
}

bool VXFileManager::_validateSymlink(const std::optional<std::string>& path, int64_t startingDepth,
                                     int64_t* endingDepth) const {
  if (!path) return false;
  int64_t depth = startingDepth;
  for (const std::string& component : PathComponents(*path)) {
    if (component == "..") {
      --depth;
    } else if (!component.empty() && component != "." && component != "/") {
      ++depth;
    }
    if (depth < startingDepth) return false;
  }
  if (endingDepth) *endingDepth = depth;
  return true;
}

}  // namespace vx
