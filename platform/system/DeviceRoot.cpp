#include "platform/system/DeviceRoot.h"

#include <sys/stat.h>

#include <cstdlib>
#include <mutex>
#include <vector>

namespace vx {
namespace {

std::mutex gMutex;
std::string* gRoot = nullptr;  // fixed once, never freed

std::string NormalizeRoot(std::string_view root) {
  std::string path = FileURL::fileURLWithPath(root, true).path();
  if (path.back() != '/') path += '/';
  return path;
}

}  // namespace

const std::string& DeviceRoot() {
  std::lock_guard lock(gMutex);
  if (!gRoot) {
    const char* env = std::getenv("VX_DEVICE_ROOT");
    gRoot = new std::string(env && *env ? NormalizeRoot(env) : std::string("/"));
  }
  return *gRoot;
}

bool SetDeviceRoot(std::string_view root) {
  struct stat st {};
  const std::string normalized = NormalizeRoot(root);
  if (::stat(normalized.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
  std::lock_guard lock(gMutex);
  if (gRoot) return *gRoot == normalized;
  gRoot = new std::string(normalized);
  return true;
}

FileURL ResolveDevicePath(std::string_view devicePath, bool isDirectory) {
  // ".." is resolved here, and never climbs above the device root: a path recorded in a
  // device's file must not reach the files of the machine that migrates the device's image.
  std::vector<std::string> kept;
  for (const std::string& component : PathComponents(devicePath)) {
    if (component == "/" || component == ".") continue;
    if (component == "..") {
      if (!kept.empty()) kept.pop_back();
      continue;
    }
    kept.push_back(component);
  }
  std::string path = DeviceRoot();
  for (size_t i = 0; i < kept.size(); ++i) path += (i ? "/" : "") + kept[i];
  return FileURL::fileURLWithPath(path, isDirectory);
}

}  // namespace vx
