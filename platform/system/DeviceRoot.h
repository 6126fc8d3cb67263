// platform/system: the device's system services: where its file system lives (the device
// root), the recorded system version, CPU accounting, transactions and dispatch queues.
// Uses platform/files and the shared types.
//
// The device root: the directory under which the device's file system lives. It is "/" on
// a real device; a device image can live under any directory (the host's --root, or the
// environment variable VX_DEVICE_ROOT). Every fixed location of the layout is derived from it.
#pragma once

#include <string>
#include <string_view>

#include "support/types/FileURL.h"

namespace vx {

// The root as a directory path ending with "/". Fixed at first use: from SetDeviceRoot if it
// was called before, else VX_DEVICE_ROOT, else "/".
const std::string& DeviceRoot();

// Sets the root before anything asked for it; false when the root is already fixed to
// another directory, or when `root` does not name an existing directory.
bool SetDeviceRoot(std::string_view root);

// Resolves a device path, an absolute path as the device's own files record it (the old
// install map's group containers, the safe harbors), to the location where it lies under
// the device root: /private/var/x becomes <root>/private/var/x. This is the one place that
// rule lives.
FileURL ResolveDevicePath(std::string_view devicePath, bool isDirectory = false);

}  // namespace vx
