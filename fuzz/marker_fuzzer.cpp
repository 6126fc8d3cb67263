// A migration marker is read back from a container a crash may have left in any state.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

#include "AppMigrator/VXAppMigrator.h"
#include "platform/files/AtomicFile.h"
#include "platform/system/DeviceRoot.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The device lives in a directory of its own: the plug-in's creation makes directories of
  // the layout, which must not land in the machine's own /private.
  static const std::string dir = [] {
    std::string templ = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm/vxfuzz.XXXXXX" : "/tmp/vxfuzz.XXXXXX";
    if (!::mkdtemp(templ.data()) || !vx::SetDeviceRoot(templ)) std::abort();
    return templ;
  }();
  static auto migrator = vx::VXAppMigrator::create();
  const std::string marker = dir + "/com.tarsel.velotrix.container_migrator.plist";
  if (!vx::WriteFileAtomically(marker, std::span<const uint8_t>(data, size), nullptr)) return 0;
  if (migrator) (void)migrator->_loadAndValidateMigrationMarkerAtURL(vx::FileURL::fileURLWithPath(marker));
  return 0;
}
