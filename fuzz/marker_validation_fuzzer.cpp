// A marker is planted evidence: whatever paths it holds, a record that passes validation
// must describe the directory the marker lies in, with its bundles directly in it or in its
// "Staging/Payload", reached without a link. The input builds the marker's texts from
// pieces that come near the truth (the container's device path, its old host path, the
// staging names, links planted in the container) so that the checks are reached often.
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "AppMigrator/VXAppMigrator.h"
#include "platform/plist/PlistFile.h"
#include "platform/system/DeviceRoot.h"

namespace {

const char* const kContainerDevicePath = "/private/var/mobile/Applications/C";

struct Device {
  std::string root;       // ends with "/"
  std::string container;  // the container's location on this machine
};

void MakeDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) std::abort();
}

// A device with two containers: C, where the marker lies, holding a bundle, a staged bundle
// and planted links; and its neighbour B.
const Device& TheDevice() {
  static const Device device = [] {
    // On a memory file system when there is one: every input writes the marker durably.
    std::string templ = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm/vxfuzz-device.XXXXXX"
                                                        : "/tmp/vxfuzz-device.XXXXXX";
    if (!::mkdtemp(templ.data())) std::abort();
    Device d{templ + "/", ""};
    if (!vx::SetDeviceRoot(d.root)) std::abort();
    std::string path = templ;
    for (const char* part : {"private", "var", "mobile", "Applications"}) {
      path += std::string("/") + part;
      MakeDirectory(path);
    }
    MakeDirectory(path + "/B");
    MakeDirectory(path + "/B/B.app");
    d.container = path + "/C";
    for (const char* dir : {"", "/X.app", "/Staging", "/Staging/Payload", "/Staging/Payload/Y.app",
                            "/Other"}) {
      MakeDirectory(d.container + dir);
    }
    if (::symlink("../B", (d.container + "/Link").c_str()) != 0 ||
        ::symlink("/", (d.container + "/Other/Staging").c_str()) != 0 ||
        ::symlink(".", (d.container + "/Self").c_str()) != 0) {
      std::abort();
    }
    return d;
  }();
  return device;
}

std::string PathText(FuzzedDataProvider& input, const Device& device) {
  static const char* const kPieces[] = {"/",       "X.app", "Y.app",   "Staging", "Payload",
                                        "..",      ".",     "Link",    "Self",    "Other",
                                        "B",       "B.app", "C",       "//",      "Z.app"};
  std::string text;
  switch (input.ConsumeIntegralInRange<int>(0, 3)) {
    case 0: text = kContainerDevicePath; break;
    case 1: text = device.container; break;  // as an earlier version recorded it
    case 2: text = "/private/var/mobile/Applications/B"; break;
    default: text = input.ConsumeRandomLengthString(64); break;
  }
  const int pieces = input.ConsumeIntegralInRange<int>(0, 4);
  for (int i = 0; i < pieces; ++i) {
    if (input.ConsumeBool()) {
      text += "/" + std::string(input.PickValueInArray(kPieces));
    } else {
      text += input.ConsumeRandomLengthString(16);
    }
  }
  return text;
}

bool IsDirectoryNotLink(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// What a record that passed must satisfy.
void CheckAccepted(const vx::ContainerInfo& record, const Device& device) {
  const std::string* container = record.at(vx::kContainerPathKey).string();
  if (!container || *container != device.container) std::abort();
  for (const char* key : {vx::kBundlePathKey, vx::kSecondBundlePathKey}) {
    auto it = record.find(key);
    if (it == record.end()) continue;
    const std::string* bundle = it->second.string();
    if (!bundle || bundle->compare(0, container->size() + 1, *container + "/") != 0) std::abort();
    std::string rest = bundle->substr(container->size() + 1);
    const std::string staged = "Staging/Payload/";
    if (rest.compare(0, staged.size(), staged) == 0) {
      if (!IsDirectoryNotLink(*container + "/Staging") ||
          !IsDirectoryNotLink(*container + "/Staging/Payload")) {
        std::abort();
      }
      rest.erase(0, staged.size());
    }
    if (rest.empty() || rest == "." || rest == ".." || rest.find('/') != std::string::npos) {
      std::abort();
    }
    struct stat st {};
    if (::lstat(bundle->c_str(), &st) == 0 && S_ISLNK(st.st_mode)) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Device& device = TheDevice();
  static auto migrator = vx::VXAppMigrator::create();
  if (!migrator) return 0;
  FuzzedDataProvider input(data, size);
  vx::PlistDictionary record{
      {vx::kContainerPathKey, PathText(input, device)},
      {vx::kBundlePathKey, PathText(input, device)},
      {vx::kContainerTypeKey, input.ConsumeBool() ? "App" : "VPNBundle"},
      {vx::kBundleIdentifierKey, "com.fuzz"}};
  if (input.ConsumeBool()) record[vx::kSecondBundlePathKey] = PathText(input, device);
  const std::string marker = device.container + "/com.tarsel.velotrix.container_migrator.plist";
  if (!vx::WritePropertyListFile(marker, vx::PlistValue(record))) return 0;
  if (auto accepted =
          migrator->_loadAndValidateMigrationMarkerAtURL(vx::FileURL::fileURLWithPath(marker))) {
    CheckAccepted(*accepted, device);
  }
  return 0;
}
