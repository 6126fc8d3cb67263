#include "platform/DeviceRoot.h"

#include <sys/stat.h>

#include <cstdlib>
#include <mutex>

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
  const std::string& root = DeviceRoot();
  std::string_view relative = devicePath;
  while (!relative.empty() && relative.front() == '/') relative.remove_prefix(1);
  return FileURL::fileURLWithPath(root + std::string(relative), isDirectory);
}

}  // namespace vx
