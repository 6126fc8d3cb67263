// Proves a migrated sample device against its manifest: every data file of every
// application is in that application's data container with the same bytes, every shared
// group's files are in its group container once, and every application is installed for
// real (not as a placeholder).
#pragma once

#include <string>
#include <vector>

namespace vx::sample {

struct ManifestReport {
  size_t applications = 0;
  size_t applicationsInstalled = 0;  // real bundles, not placeholders
  size_t files = 0;
  size_t filesVerified = 0;
  uint64_t bytesVerified = 0;
  std::vector<std::string> problems;  // one line each, empty when the device is whole
  bool ok() const { return problems.empty() && files == filesVerified; }
};

ManifestReport CheckMigratedDevice(const std::string& root);

}  // namespace vx::sample
