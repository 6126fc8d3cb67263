#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "platform/bundle/BundleHandle.h"
#include "platform/files/AtomicFile.h"
#include "platform/files/UniqueFd.h"
#include "platform/image/IconImage.h"

namespace vx {
namespace {

// An icon file this large is not an icon; it is not read into memory.
constexpr off_t kMaxIconFileSize = 32 << 20;

void AddNames(const PlistValue* value, std::vector<std::string>& names) {
  if (!value) return;
  if (const std::string* name = value->string()) {
    names.push_back(*name);
  } else if (const PlistArray* array = value->array()) {
    for (const PlistValue& item : *array) {
      if (const std::string* name = item.string()) names.push_back(*name);
    }
  }
}

const PlistValue* Entry(const PlistDictionary& dict, const char* key) {
  auto it = dict.find(key);
  return it == dict.end() ? nullptr : &it->second;
}

std::vector<std::string> NamedIcons(const PlistDictionary* info) {
  std::vector<std::string> names;
  if (!info) return names;
  AddNames(Entry(*info, "KBBundleIconFile"), names);
  AddNames(Entry(*info, "KBBundleIconFiles"), names);
  if (const PlistValue* icons = Entry(*info, "KBBundleIcons")) {
    if (const PlistDictionary* primary = icons->dictionaryForKey("KBBundlePrimaryIcon")) {
      AddNames(Entry(*primary, "KBBundleIconFiles"), names);
    }
  }
  return names;
}

}  // namespace

std::set<std::string> IconFileNames(const PlistDictionary* info) {
  std::set<std::string> files;
  for (std::string base : NamedIcons(info)) {
    if (base.empty() || base.find('/') != std::string::npos || base == "." || base == "..") {
      continue;
    }
    if (base.size() > 4 && base.compare(base.size() - 4, 4, ".png") == 0) {
      base.resize(base.size() - 4);
    }
    for (const char* suffix : {".png", "@2x.png", "@3x.png"}) files.insert(base + suffix);
  }
  return files;
}

namespace {

// A link is no icon: followed, it could make any file of the device the one decoded.
bool IsRegularFile(const std::string& path, off_t* size) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  *size = st.st_size;
  return true;
}

std::vector<uint8_t> ReadHeader(const std::string& path) {
  std::vector<uint8_t> header(24);
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  ssize_t n = fd ? ::read(fd.get(), header.data(), header.size()) : -1;
  header.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return header;
}

std::string DisplayName(const BundleHandle& bundle, const PlistDictionary* info) {
  for (const char* key : {"KBBundleDisplayName", "KBBundleName"}) {
    const PlistValue* value = info ? Entry(*info, key) : nullptr;
    if (value && value->string() && !value->string()->empty()) return *value->string();
  }
  std::string name = bundle.bundleURL().lastPathComponent();
  return name.substr(0, name.rfind('.'));
}

}  // namespace

std::optional<IconImage> IconRenderer::homeScreenIcon(const BundleHandle& bundle) {
  const PlistDictionary* info = bundle.infoDictionary();
  std::optional<std::string> largest;
  uint64_t largestArea = 0;
  bool named = false;
  for (const std::string& name : IconFileNames(info)) {
    const std::string path = bundle.bundleURL().URLByAppendingPathComponent(name, false).path();
    off_t fileSize = 0;
    if (!IsRegularFile(path, &fileSize)) continue;
    named = true;
    if (fileSize > kMaxIconFileSize) continue;
    auto size = PNGDimensions(ReadHeader(path));
    if (!size) continue;
    const uint64_t area = uint64_t{size->first} * size->second;
    if (!largest || area > largestArea) {
      largest = path;
      largestArea = area;
    }
  }

  if (!named) {
    // Nothing to show: the app still gets a recognisable face of its own.
    std::string identifier = bundle.bundleIdentifier().value_or(bundle.bundleURL().path());
    return GenerateIcon(identifier, DisplayName(bundle, info), kHomeScreenIconSize);
  }
  if (!largest) return std::nullopt;
  auto bytes = ReadFileContents(*largest, nullptr);
  if (!bytes) return std::nullopt;
  std::optional<IconImage> decoded = DecodePNG(*bytes);
  if (!decoded) return std::nullopt;
  return ScaleImage(*decoded, kHomeScreenIconSize, kHomeScreenIconSize);
}

}  // namespace vx
