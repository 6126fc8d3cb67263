#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "platform/bundle/BundleHandle.h"
#include "platform/files/Beneath.h"
#include "platform/files/ReadBounded.h"
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

// An icon is read beneath the bundle's open directory, only as a regular file: a link could
// make any file of the device the one decoded, and a FIFO would stop the run.
UniqueFd OpenIconFile(const BundleHandle& bundle, const std::string& name, off_t* size) {
  struct stat st {};
  UniqueFd fd = OpenRegularFileAt(bundle.directory(), name.c_str(), &st);
  if (fd) *size = st.st_size;
  return fd;
}

std::vector<uint8_t> ReadHeader(int fd) {
  std::vector<uint8_t> header(24);
  const ssize_t n = ::pread(fd, header.data(), header.size(), 0);
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
  UniqueFd largest;
  off_t largestSize = 0;
  uint64_t largestArea = 0;
  bool named = false;
  for (const std::string& name : IconFileNames(info)) {
    off_t fileSize = 0;
    UniqueFd file = OpenIconFile(bundle, name, &fileSize);
    if (!file) continue;
    named = true;
    if (fileSize > kMaxIconFileSize) continue;
    auto size = PNGDimensions(ReadHeader(file.get()));
    if (!size) continue;
    const uint64_t area = uint64_t{size->first} * size->second;
    if (!largest || area > largestArea) {
      largest = std::move(file);
      largestSize = fileSize;
      largestArea = area;
    }
  }

  if (!named) {
    // Nothing to show: the app still gets a recognisable face of its own.
    std::string identifier = bundle.bundleIdentifier().value_or(bundle.bundleURL().path());
    return GenerateIcon(identifier, DisplayName(bundle, info), kHomeScreenIconSize);
  }
  if (!largest) return std::nullopt;
  auto bytes = ReadBounded(largest.get(), static_cast<size_t>(largestSize), kMaxIconFileSize);
  if (!bytes) return std::nullopt;
  std::optional<IconImage> decoded = DecodePNG(*bytes);
  if (!decoded) return std::nullopt;
  return ScaleImage(*decoded, kHomeScreenIconSize, kHomeScreenIconSize);
}

}  // namespace vx
