// A counted, process-wide assertion that heavy work is running: while at least one is
// held, the platform's CPU-usage watchdog leaves the process alone.
#pragma once

#include <cstdint>

namespace vx {

// The first assertion disables the watchdog for this process; further ones only count.
void VXAssertHighResourceUsage();
// The clearing that brings the count back to 0 restores the watchdog's limits. Calls must
// pair with VXAssertHighResourceUsage: the count is not kept from going below 0.
void VXClearResourceAssertion();

// The number of assertions held now, for diagnostics.
int32_t VXHighResourceAssertionCount();

}  // namespace vx
