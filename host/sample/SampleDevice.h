// The built-in sample device: a device directory in the old layout, deterministic for a
// seed, with a manifest of every data file so that a migration can be proven lossless.
#pragma once

#include <cstdint>
#include <string>

namespace vx::sample {

struct SampleDeviceOptions {
  int apps = 24;
  uint64_t seed = 1;
  uint64_t dataBytes = 256 * 1024;  // data per application, spread over files of varied sizes
  uint64_t bundleBytes = 0;  // size of each bundle's executable; 0: a few KiB, varied
};

// The manifest's name, directly in the device directory (outside everything the migration
// reads or writes).
inline constexpr const char* kManifestName = "sample-manifest.json";

// Writes the device into `root` (created if missing; it must hold no old layout yet).
// False with a reason in `problem` on failure.
bool WriteSampleDevice(const std::string& root, const SampleDeviceOptions& options,
                       std::string* problem);

}  // namespace vx::sample
