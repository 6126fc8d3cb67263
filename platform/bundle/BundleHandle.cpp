#include "platform/bundle/BundleHandle.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <vector>

#include "platform/files/Beneath.h"
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
std::optional<PlistValue> ReadInfoPlist(int directory) {
  struct stat status {};
  UniqueFd file = OpenRegularFileAt(directory, "Info.plist", &status);
  if (!file || static_cast<uint64_t>(status.st_size) > kMaxInfoPlistSize) return std::nullopt;
  // The size is only a hint: the file may grow while it is read, so the bound holds for what
  // is read, not for what fstat said.
  std::vector<uint8_t> bytes(static_cast<size_t>(status.st_size) + 1);
  size_t used = 0;
  for (;;) {
    if (used == bytes.size()) {
      if (bytes.size() > kMaxInfoPlistSize) return std::nullopt;
      bytes.resize(std::min(bytes.size() * 2, kMaxInfoPlistSize + 1));
    }
    const ssize_t n = ::read(file.get(), bytes.data() + used, bytes.size() - used);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::nullopt;
    if (n == 0) break;
    used += static_cast<size_t>(n);
  }
  bytes.resize(used);
  return ParsePropertyList(bytes);
}

}  // namespace

std::unique_ptr<BundleHandle> BundleHandle::open(const FileURL& bundle) {
  UniqueFd directory = OpenDirectoryNoFollow(bundle.fileSystemRepresentation());
  if (!directory) return nullptr;
  std::optional<PlistValue> contents = ReadInfoPlist(directory.get());
  if (contents) {
    if (PlistDictionary* info = contents->mutableDictionary()) {
      (*info)[kKBBundleInfoPlistURLKey] =
          PlistValue(bundle.URLByAppendingPathComponent("Info.plist", false));
    }
  }
  return std::unique_ptr<BundleHandle>(new BundleHandle(bundle, std::move(contents)));
}

BundleHandle::BundleHandle(FileURL bundleURL, std::optional<PlistValue> contents)
    : bundleURL_(std::move(bundleURL)), contents_(std::move(contents)) {
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
