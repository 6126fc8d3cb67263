#include "support/FaultSites.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <map>
#include <set>
#include <sstream>

#include "support/TempDir.h"

namespace vx::test {

std::vector<MutationSite> ReadFaultSites(const std::string& file) {
  std::vector<MutationSite> calls;
  std::istringstream lines(ReadFile(file));
  MutationSite call;
  while (lines >> call.n >> call.operation >> call.site) calls.push_back(call);
  return calls;
}

std::vector<int> FirstCallAtEachSite(const std::vector<MutationSite>& calls) {
  std::map<std::string, int> first;
  for (const MutationSite& call : calls) first.try_emplace(call.operation + " " + call.site, call.n);
  std::set<int> cuts;
  for (const auto& [where, at] : first) cuts.insert(at);
  return {cuts.begin(), cuts.end()};
}

std::string SweepScratch() {
  const std::string probe = "/dev/shm/vx-sweep-probe-" + std::to_string(::getpid());
  const int fd = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return "";
  const bool attributes = ::fsetxattr(fd, "user.vx.probe", "1", 1, 0) == 0;
  ::close(fd);
  ::unlink(probe.c_str());
  return attributes ? "/dev/shm" : "";
}

}  // namespace vx::test
