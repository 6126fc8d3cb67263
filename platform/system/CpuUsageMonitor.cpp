#include "platform/system/CpuUsageMonitor.h"

#include <sys/resource.h>
#include <unistd.h>

#include <map>
#include <mutex>

namespace vx {
namespace {

// The soft limit each process had when it was disabled, until it is restored.
std::mutex gMutex;
std::map<pid_t, rlim_t>& SavedSoftLimits() {
  static auto* limits = new std::map<pid_t, rlim_t>;  // outlives every caller
  return *limits;
}

int PrLimit(pid_t pid, const struct rlimit* newLimit, struct rlimit* oldLimit) {
  // 0 names the calling process to the kernel, and saving under 0 keeps one entry for it.
  return ::prlimit(pid == ::getpid() ? 0 : pid, RLIMIT_CPU, newLimit, oldLimit);
}

}  // namespace

bool CpuUsageMonitorDisable(pid_t pid) {
  std::lock_guard lock(gMutex);
  struct rlimit current {};
  if (PrLimit(pid, nullptr, &current) != 0) return false;
  const pid_t key = pid == ::getpid() ? 0 : pid;
  // A second disable must not record the lifted limit as the one to restore.
  SavedSoftLimits().try_emplace(key, current.rlim_cur);
  if (current.rlim_cur == current.rlim_max) return true;
  const struct rlimit lifted { current.rlim_max, current.rlim_max };
  return PrLimit(pid, &lifted, nullptr) == 0;
}

bool CpuUsageMonitorRestoreDefaults(pid_t pid) {
  std::lock_guard lock(gMutex);
  const pid_t key = pid == ::getpid() ? 0 : pid;
  auto saved = SavedSoftLimits().find(key);
  if (saved == SavedSoftLimits().end()) return true;
  struct rlimit current {};
  if (PrLimit(pid, nullptr, &current) != 0) return false;
  const struct rlimit restored { saved->second, current.rlim_max };
  if (PrLimit(pid, &restored, nullptr) != 0) return false;
  SavedSoftLimits().erase(saved);
  return true;
}

}  // namespace vx
