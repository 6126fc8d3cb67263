#include "support/ResourceAssertion.h"

#include <unistd.h>

#include <atomic>

#include "platform/system/CpuUsageMonitor.h"

namespace vx {
namespace {

// Sequentially consistent read-modify-writes: only the thread that moves the count across
// 0/1 talks to the monitor, and every thread agrees on which one that was.
std::atomic<int32_t> gAssertionCount{0};

}  // namespace

void VXAssertHighResourceUsage() {
  if (gAssertionCount.fetch_add(1, std::memory_order_seq_cst) + 1 == 1) {
    CpuUsageMonitorDisable(::getpid());
  }
}

void VXClearResourceAssertion() {
  if (gAssertionCount.fetch_sub(1, std::memory_order_seq_cst) - 1 == 0) {
    CpuUsageMonitorRestoreDefaults(::getpid());
  }
}

int32_t VXHighResourceAssertionCount() { return gAssertionCount.load(std::memory_order_seq_cst); }

}  // namespace vx
