#include "AppMigrator/ContainerFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/files/Beneath.h"
#include "platform/files/ReadBounded.h"
#include "platform/plist/PlistFile.h"

namespace vx {

std::optional<std::string> BundleLocationInContainer(std::string_view container,
                                                      std::string_view bundle) {
  std::vector<std::string> base = PathComponents(container);
  std::vector<std::string> path = PathComponents(bundle);
  while (!base.empty() && base.back() == "/") base.pop_back();  // "/c/" and "/c" are one place
  while (!path.empty() && path.back() == "/") path.pop_back();
  if (base.empty() || path.size() <= base.size() ||
      !std::equal(base.begin(), base.end(), path.begin())) {
    return std::nullopt;
  }
  const std::vector<std::string> rest(path.begin() + static_cast<long>(base.size()), path.end());
  const std::string& name = rest.back();
  if (name.empty() || name == "." || name == ".." || name == "/") return std::nullopt;
  if (rest.size() == 1) return name;
  if (rest.size() == 3 && rest[0] == kStagingName && rest[1] == kPayloadName) {
    return std::string(kStagingName) + "/" + kPayloadName + "/" + name;
  }
  return std::nullopt;
}

std::optional<std::vector<uint8_t>> ReadRegularFileBeneath(int dirfd, std::string_view relative,
                                                           size_t limit, int* error) {
  const auto fail = [&](int e) -> std::optional<std::vector<uint8_t>> {
    if (error) *error = e;
    return std::nullopt;
  };
  std::string name(relative);
  UniqueFd parent;
  int at = dirfd;
  if (const size_t slash = name.rfind('/'); slash != std::string::npos) {
    parent = OpenBeneath(dirfd, relative.substr(0, slash), O_RDONLY | O_DIRECTORY);
    if (!parent) return fail(errno);
    at = parent.get();
    name.erase(0, slash + 1);
  }
  if (name.empty() || name == "." || name == "..") return fail(EINVAL);
  struct stat st {};
  UniqueFd fd = OpenRegularFileAt(at, name.c_str(), &st);
  if (!fd) return fail(errno);
  return ReadBounded(fd.get(), static_cast<size_t>(std::max<off_t>(st.st_size, 0)), limit, error);
}

namespace {

std::optional<PlistValue> InfoDictionaryAt(int dirfd, const std::string& relative,
                                           std::string* problem = nullptr) {
  int error = 0;
  auto bytes = ReadRegularFileBeneath(dirfd, relative, kInfoPlistSizeLimit, &error);
  if (!bytes) {
    if (problem) *problem = DescribeReadFailure(error);
    return std::nullopt;
  }
  std::optional<PlistValue> info = ParsePropertyList(*bytes, problem);
  if (info && !info->dictionary()) {
    if (problem) *problem = "not a dictionary";
    return std::nullopt;
  }
  return info;
}

}  // namespace

std::optional<PlistValue> ReadBundleInfo(const FileURL& bundle, std::string* problem) {
  const UniqueFd directory = OpenDirectoryNoFollow(bundle.fileSystemRepresentation());
  if (!directory) {
    if (problem) *problem = DescribeReadFailure(errno);
    return std::nullopt;
  }
  return InfoDictionaryAt(directory.get(), kInfoPlistName, problem);
}

std::optional<PlistValue> ReadBundleInfoBeneath(int containerFd, const std::string& relative) {
  return InfoDictionaryAt(containerFd, relative + "/" + kInfoPlistName);
}

std::string DescribeReadFailure(int error) {
  switch (error) {
    case EINVAL: return "not a regular file (a FIFO, socket or device is never read)";
    case ELOOP: return "a symbolic link (never followed inside a container)";
    default: return std::strerror(error);
  }
}

}  // namespace vx
