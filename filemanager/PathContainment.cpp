// Deciding whether a location, usually a symbolic link a privileged walk came across, really
// lies inside a base directory. Whoever made the link controls its text, so every rejection
// is logged and the answer is simply absent: nothing on disk is touched.
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

// The same directory is reachable with and without "/private" in front; the textual
// prefix test must not tell the two spellings apart.
FileURL WithoutPrivatePrefix(const FileURL& url) {
  const std::string& path = url.path();
  if (path.starts_with("/private/")) {
    return FileURL::fileURLWithPath(path.substr(kPrivatePrefix.size()), url.hasDirectoryPath());
  }
  return url;
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

size_t FirstComparedComponent(const std::vector<std::string>& components) {
  return components[1] == "private" ? 2 : 1;
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

  // A plain path (or nothing at all) is judged by its resolved components; an accepted
  // relative link was already judged by its text.
  bool compareComponents = true;
  std::vector<char> linkText(kLinkTextLimit);
  const ssize_t linkLength = ::readlink(suspiciousPath.c_str(), linkText.data(), linkText.size());
  if (linkLength < 0) {
    if (errno != EINVAL && errno != ENOENT) {
      VX_INSTALLER_LOG(3, kRealPathIfChild, "Readlink failed: %s", std::strerror(errno));
      return std::nullopt;
    }
  } else {
    const std::string target = VelotrixAdditions::stringWithFileSystemRepresentation(
        linkText.data(), static_cast<size_t>(linkLength));
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
    compareComponents = false;
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
  if (!compareComponents) return realSuspicious;

  const std::vector<std::string> baseComponents = realBase->pathComponents();
  const std::vector<std::string> childComponents = realSuspicious->pathComponents();
  const size_t nb = baseComponents.size();
  const size_t ns = childComponents.size();
  if (nb < 2 || ns < 2) {
    VX_INSTALLER_LOG(3, kRealPathIfChild,
                     "Rejecting %@ with base %@ because real component counts don't make sense "
                     "(reals %@ ; %@)",
                     suspiciousPath, basePath, *realSuspicious, *realBase);
    return std::nullopt;
  }
  size_t bi = FirstComparedComponent(baseComponents);
  size_t si = FirstComparedComponent(childComponents);
  if (nb - bi > ns - si) {
    VX_INSTALLER_LOG(3, kRealPathIfChild,
                     "Rejecting %@ with base %@ because base component count is greater than "
                     "child component count (reals %@ ; %@)",
                     suspiciousPath, basePath, *realSuspicious, *realBase);
    return std::nullopt;
  }
  for (; bi < nb; ++bi, ++si) {
    if (baseComponents[bi] != childComponents[si]) {
      VX_INSTALLER_LOG(3, kRealPathIfChild,
                       "Rejecting %@ with base %@ (reals %@ ; %@) because components diverge at "
                       "%@ != %@",
                       suspiciousPath, basePath, *realSuspicious, *realBase, baseComponents[bi],
                       childComponents[si]);
      return std::nullopt;
    }
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
