#include "platform/bundle/BundleHandle.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/files/Beneath.h"
#include "platform/files/ReadBounded.h"
#include "platform/files/UniqueFd.h"
#include "platform/plist/PlistFile.h"

namespace vx {

const char* const kKBBundleInfoPlistURLKey = "KBBundleInfoPlistURL";
const char* const kKBBundleIdentifierKey = "KBBundleIdentifier";

namespace {

std::atomic<size_t> gOpenCount{0};
std::atomic<size_t> gPeakOpenCount{0};

// An information file is a few kilobytes; one that an application made huge must not take
// the reader's memory with it.
constexpr size_t kMaxInfoPlistSize = size_t{8} << 20;

// The bundle directory belongs to its application, which may have put anything at the name
// "Info.plist": it is read only as a regular file directly beneath `directory`.
std::optional<PlistValue> ReadInfoPlist(int directory, std::string* problem) {
  struct stat status {};
  UniqueFd file = OpenRegularFileAt(directory, "Info.plist", &status);
  if (!file) {
    *problem = std::strerror(errno);
    return std::nullopt;
  }
  int error = 0;
  auto bytes = ReadBounded(file.get(), static_cast<size_t>(std::max<off_t>(status.st_size, 0)),
                           kMaxInfoPlistSize, &error);
  if (!bytes) {
    *problem = std::strerror(error);
    return std::nullopt;
  }
  return ParsePropertyList(*bytes, problem);
}

}  // namespace

std::unique_ptr<BundleHandle> BundleHandle::open(const FileURL& bundle) {
  return fromDirectory(bundle, OpenDirectoryNoFollow(bundle.fileSystemRepresentation()));
}

std::unique_ptr<BundleHandle> BundleHandle::openBeneath(int dirfd, std::string_view relative,
                                                        const FileURL& bundle) {
  return fromDirectory(bundle, OpenBeneath(dirfd, relative, O_RDONLY | O_DIRECTORY));
}

std::unique_ptr<BundleHandle> BundleHandle::fromDirectory(const FileURL& bundle,
                                                          UniqueFd directory) {
  if (!directory) return nullptr;
  std::string problem;
  std::optional<PlistValue> contents = ReadInfoPlist(directory.get(), &problem);
  if (contents) {
    if (PlistDictionary* info = contents->mutableDictionary()) {
      (*info)[kKBBundleInfoPlistURLKey] =
          PlistValue(bundle.URLByAppendingPathComponent("Info.plist", false));
    }
  }
  auto handle = std::unique_ptr<BundleHandle>(
      new BundleHandle(bundle, std::move(directory), std::move(contents)));
  if (!handle->contents_) handle->infoProblem_ = std::move(problem);
  return handle;
}

BundleHandle::BundleHandle(FileURL bundleURL, UniqueFd directory,
                           std::optional<PlistValue> contents)
    : bundleURL_(std::move(bundleURL)),
      directory_(std::move(directory)),
      contents_(std::move(contents)) {
  size_t now = ++gOpenCount;
  size_t peak = gPeakOpenCount.load();
  while (peak < now && !gPeakOpenCount.compare_exchange_weak(peak, now)) {
  }
}

BundleHandle::~BundleHandle() { --gOpenCount; }

size_t BundleHandle::openCount() { return gOpenCount.load(); }

size_t BundleHandle::takePeakOpenCount() { return gPeakOpenCount.exchange(gOpenCount.load()); }

std::optional<std::string> BundleHandle::bundleIdentifier() const {
  const std::string* identifier = contents_ ? contents_->stringForKey(kKBBundleIdentifierKey)
                                            : nullptr;
  if (!identifier) return std::nullopt;
  return *identifier;
}

std::optional<PlistValue> BundleHandle::filteredInfoPlist(
    const std::set<std::string>& keys) const {
  if (!contents_) return std::nullopt;
  const PlistDictionary* info = infoDictionary();
  if (!info) return contents_;
  PlistDictionary filtered;
  for (const std::string& key : keys) {
    if (auto it = info->find(key); it != info->end()) filtered.emplace(key, it->second);
  }
  return PlistValue(std::move(filtered));
}

std::string Describe(const BundleHandle& bundle) {
  return "BundleHandle " + bundle.bundleURL().path();
}

const char* TypeName(const PlistValue& value) {
  switch (value.kind()) {
    case PlistValue::Kind::String: return "String";
    case PlistValue::Kind::Integer:
    case PlistValue::Kind::Real: return "Number";
    case PlistValue::Kind::Boolean: return "Boolean";
    case PlistValue::Kind::Data: return "Data";
    case PlistValue::Kind::Date: return "Date";
    case PlistValue::Kind::Array: return "Array";
    case PlistValue::Kind::Dictionary: return "Dictionary";
    case PlistValue::Kind::URL: return "URL";
  }
  return "Unknown";
}

}  // namespace vx
