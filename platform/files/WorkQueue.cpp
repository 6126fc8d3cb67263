#include "platform/files/WorkQueue.h"

#include <sched.h>

namespace vx {

unsigned DefaultWorkerCount() {
  // The cores this process may run on, which a container or taskset may hold below the
  // machine's count.
  cpu_set_t set;
  CPU_ZERO(&set);
  int count = 0;
  if (::sched_getaffinity(0, sizeof set, &set) == 0) count = CPU_COUNT(&set);
  if (count <= 0) count = static_cast<int>(std::thread::hardware_concurrency());
  if (count <= 0) count = 1;
  return count > 64 ? 64u : static_cast<unsigned>(count);
}

}  // namespace vx
