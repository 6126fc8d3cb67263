#include "host/DeviceChecks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace vx::host {
namespace {

// A name no one sets: asking for it tells whether the file system keeps user attributes at
// all (ENODATA) or not (ENOTSUP), and writes nothing.
constexpr const char* kProbeAttribute = "user.com.tarsel.velotrix.probe";

// The location itself, or the nearest ancestor that exists: a workspace that was never
// written lies on the file system of the directory that will hold it.
std::string NearestExisting(std::string path) {
  struct stat st {};
  while (!path.empty() && ::stat(path.c_str(), &st) != 0) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos || path == "/") return "/";
    path = slash == 0 ? "/" : path.substr(0, slash);
  }
  return path.empty() ? "/" : path;
}

bool Writable(const std::string& path, std::vector<std::string>* problems) {
  struct statvfs fs {};
  if (::statvfs(path.c_str(), &fs) == 0 && (fs.f_flag & ST_RDONLY)) {
    problems->push_back(path + " lies on a read-only file system");
    return false;
  }
  if (::faccessat(AT_FDCWD, path.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
    problems->push_back(path + " is not writable by user " + std::to_string(::geteuid()) + ": " +
                        std::strerror(errno));
    return false;
  }
  return true;
}

}  // namespace

DeviceChecks CheckDevice(const std::string& oldRoot, const std::string& workspace) {
  DeviceChecks checks;
  checks.oldRoot = NearestExisting(oldRoot);
  checks.workspace = NearestExisting(workspace);

  struct stat oldStat {
  }, workspaceStat{};
  checks.sameFileSystem = ::stat(checks.oldRoot.c_str(), &oldStat) == 0 &&
                          ::stat(checks.workspace.c_str(), &workspaceStat) == 0 &&
                          oldStat.st_dev == workspaceStat.st_dev;

  struct statvfs fs {};
  if (::statvfs(checks.workspace.c_str(), &fs) == 0) {
    checks.freeBytes = static_cast<uint64_t>(fs.f_bavail) * fs.f_frsize;
    checks.freeInodes = fs.f_favail;
  } else {
    checks.problems.push_back("cannot ask " + checks.workspace +
                              " for its free space: " + std::strerror(errno));
  }

  checks.userExtendedAttributes =
      ::getxattr(checks.workspace.c_str(), kProbeAttribute, nullptr, 0) >= 0 || errno == ENODATA;
  if (!checks.userExtendedAttributes) {
    checks.problems.push_back("the file system of " + checks.workspace +
                              " keeps no user extended attributes, which installation needs");
  }

  const bool oldRootWritable = Writable(checks.oldRoot, &checks.problems);
  const bool workspaceWritable = checks.workspace == checks.oldRoot
                                     ? oldRootWritable
                                     : Writable(checks.workspace, &checks.problems);
  checks.writable = oldRootWritable && workspaceWritable;
  return checks;
}

bool HoldsDeviceLayout(const std::string& home) {
  struct stat st {};
  return ::lstat(home.c_str(), &st) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

}  // namespace vx::host
