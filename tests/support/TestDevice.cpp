#include "support/TestDevice.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "platform/system/DeviceRoot.h"

namespace vx::test {
namespace {

// Made before main, so that nothing in the process can fix the device root to "/" first.
const std::string& Root() {
  static const std::string root = [] {
    std::string templ = std::filesystem::temp_directory_path().string() + "/vxdevice.XXXXXX";
    if (!::mkdtemp(templ.data())) std::abort();
    std::string canonical = std::filesystem::canonical(templ).string();
    if (!SetDeviceRoot(canonical)) std::abort();
    return canonical + "/";
  }();
  return root;
}

const bool kRootFixed = !Root().empty();

struct RemoveAtExit {
  ~RemoveAtExit() {
    std::error_code ec;
    std::filesystem::remove_all(Root(), ec);
  }
} gRemoveAtExit;

}  // namespace

const std::string& TestDeviceRoot() { return Root(); }

std::string DevicePath(const std::string& relative) {
  std::string r = relative;
  while (!r.empty() && r.front() == '/') r.erase(0, 1);
  return Root() + r;
}

void ResetTestDevice() {
  (void)kRootFixed;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(Root(), ec)) {
    std::filesystem::remove_all(entry.path(), ec);
  }
}

}  // namespace vx::test
