// The fault seam. Every call that changes the file system (in the platform layer and in the
// file manager) passes through `BeforeMutation` first, so that a test, or the host through
// the environment, can make the Nth such call fail with a chosen errno or end the process
// on the spot as a power cut would. Crash safety is proven against this seam.
#pragma once

#include <cstdint>

namespace vx::fault {

enum class Action { Fail, Crash };

// From now on, the `nth` mutating call (counting from 1) fails with `error` (Fail) or ends
// the process with SIGKILL before it takes effect (Crash). Resets the count.
void Arm(uint64_t nth, Action action, int error);
void Disarm();
// Mutating calls made since the process started or the seam was last armed or disarmed.
uint64_t MutationCount();

// Reads VX_FAULT_AT (N), VX_FAULT_ACTION ("fail" or "crash"; default "fail") and
// VX_FAULT_ERRNO (a number or a name such as EIO, ENOSPC; default EIO). Returns false
// with a message in `problem` when a variable is malformed; absent variables arm nothing.
bool ConfigureFromEnvironment(const char** problem);

// Returns 0 when the call may proceed, else the errno it must fail with.
int BeforeMutation(const char* operation);

}  // namespace vx::fault
