// The mutating calls a run made, as the fault seam lists them under VX_FAULT_SITES, for
// sweeps that cut each distinct place in the code instead of every call.
#pragma once

#include <string>
#include <vector>

namespace vx::test {

struct MutationSite {
  int n = 0;              // the call's number in the run, from 1
  std::string operation;  // "mkdir", "renameat", ...
  std::string site;       // module and offset of the code that made it
};

std::vector<MutationSite> ReadFaultSites(const std::string& file);

// The numbers of the first call made at each distinct site (operation and code), ascending.
std::vector<int> FirstCallAtEachSite(const std::vector<MutationSite>& calls);

// Where sweeps cut: tmpfs when it keeps user attributes ("/dev/shm"), since a sync costs
// nothing there and the power-cut journal, not the disk, decides what a cut keeps; else ""
// (the default temporary directory).
std::string SweepScratch();

}  // namespace vx::test
