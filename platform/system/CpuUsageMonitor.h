// The platform's CPU-usage watchdog. On Linux the kernel's watchdog is the CPU-time limit
// (RLIMIT_CPU): a process that exceeds its soft limit is sent SIGXCPU and, at the hard limit,
// SIGKILL. "Disabling" the monitor lifts the soft limit as far as the hard limit allows, so
// that a long burst of legitimate work is not killed; "restoring" puts back the soft limit
// the process had when the monitor was disabled. The hard limit is never touched, because an
// unprivileged process could not raise it again.
#pragma once

#include <sys/types.h>

namespace vx {

// Both return false with errno set when the limit of `pid` cannot be read or changed (an
// unknown process, or one the caller may not change). Restoring without an earlier disable
// of the same process changes nothing and succeeds.
bool CpuUsageMonitorDisable(pid_t pid);
bool CpuUsageMonitorRestoreDefaults(pid_t pid);

}  // namespace vx
