// Proves a migrated sample device against its manifest: every data file of every
// application is in that application's data container with the same bytes, every shared
// group's files are in its group container once, and every application is installed for
// real (not as a placeholder, which is reported apart).
#pragma once

#include <string>
#include <vector>

namespace vx::sample {

// One application of the manifest, as the workspace now has it.
struct ApplicationResult {
  std::string identifier;
  std::string kind;  // the workspace's bundle type ("User", "Placeholder", "System", ...), or ""
  size_t files = 0;
  size_t filesVerified = 0;
  uint64_t bytesVerified = 0;
};

struct ManifestReport {
  std::vector<ApplicationResult> perApplication;
  size_t applications = 0;
  size_t applicationsInstalled = 0;  // real bundles, not placeholders
  size_t files = 0;
  size_t filesVerified = 0;
  uint64_t bytesVerified = 0;
  // Applications that kept only their placeholder: their data is whole, but their bundle
  // could not be installed (a run removes the old container all the same).
  std::vector<std::string> placeholdersOnly;
  std::vector<std::string> problems;  // one line each, empty when no byte of data was lost
  bool ok() const { return problems.empty() && files == filesVerified; }
};

ManifestReport CheckMigratedDevice(const std::string& root);

}  // namespace vx::sample
