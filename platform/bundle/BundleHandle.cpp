#include "platform/bundle/BundleHandle.h"

#include <sys/stat.h>

#include <atomic>

#include "platform/files/AtomicFile.h"
#include "platform/plist/PlistFile.h"

namespace vx {

const char* const kKBBundleInfoPlistURLKey = "KBBundleInfoPlistURL";
const char* const kKBBundleIdentifierKey = "KBBundleIdentifier";

namespace {

std::atomic<size_t> gOpenCount{0};
std::atomic<size_t> gPeakOpenCount{0};

}  // namespace

std::unique_ptr<BundleHandle> BundleHandle::open(const FileURL& bundle) {
  struct stat st {};
  if (::stat(bundle.fileSystemRepresentation(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    return nullptr;
  }
  const FileURL infoURL = bundle.URLByAppendingPathComponent("Info.plist", false);
  auto bytes = ReadFileContents(infoURL.path(), nullptr);
  if (!bytes) return nullptr;
  auto contents = ParsePropertyList(*bytes);
  if (!contents) return nullptr;
  if (PlistDictionary* info = contents->mutableDictionary()) {
    (*info)[kKBBundleInfoPlistURLKey] = PlistValue(infoURL);
  }
  return std::unique_ptr<BundleHandle>(new BundleHandle(bundle, std::move(*contents)));
}

BundleHandle::BundleHandle(FileURL bundleURL, PlistValue contents)
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
  const std::string* identifier = contents_.stringForKey(kKBBundleIdentifierKey);
  if (!identifier) return std::nullopt;
  return *identifier;
}

std::optional<PlistValue> BundleHandle::filteredInfoPlist(
    const std::set<std::string>& keys) const {
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
