// The device every test of this binary shares. The shared configuration and workspace are
// process-wide and fixed to one device root, so the test binary roots them at a temporary
// directory of its own (made before any test runs) and each test that uses the device starts
// from an empty one.
#pragma once

#include <string>

namespace vx::test {

// The device root, ending with "/".
const std::string& TestDeviceRoot();
// <root>/<relative>, for arranging files on the device.
std::string DevicePath(const std::string& relative);
// Removes everything under the device root; the root itself stays.
void ResetTestDevice();

}  // namespace vx::test
