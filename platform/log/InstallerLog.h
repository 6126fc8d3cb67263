// The installer log of the shared layer. A write is made only when the level passes the
// handle's threshold, and the test comes before any argument is computed.
#pragma once

#include <string>

#include "support/types/Format.h"

namespace vx {

struct LogHandle {
  int level = 5;  // messages up to this level are written
};

// Exported; the shared layer never assigns it, so it may be absent. A host that wants
// debugging detail (level 7) installs a handle with that threshold.
extern LogHandle* gLogHandle;

// Levels 3 and 5 pass when there is no handle; level 7 needs a handle that allows it.
bool InstallerLogEnabled(int level);
void InstallerLogWrite(int level, const char* function, std::string message);

}  // namespace vx

#define VX_INSTALLER_LOG(level, function, ...)                                   \
  do {                                                                           \
    if (::vx::InstallerLogEnabled(level))                                        \
      ::vx::InstallerLogWrite((level), (function), ::vx::Format(__VA_ARGS__));   \
  } while (0)
