// The fault seam. Every call that changes the file system (in the platform layer and in the
// file manager) passes through `BeforeMutation` first, so that a test, or the host through
// the environment, can make the Nth such call fail with a chosen errno, end the process on
// the spot as a crash would, or cut the power there: end it and roll the tree back to what
// was synced (PowerCut.h). Crash safety and durability are proven against this seam.
#pragma once

#include <cstdint>
#include <string>

namespace vx::fault {

enum class Action { Fail, Crash, PowerCut };

struct PowerCutOptions {
  // Whether one directory's unsynced operations survive in part (else none does).
  bool partial = false;
  uint64_t seed = 0;          // chooses that directory and how much of it survives
  std::string stashDirectory;  // empty: a new one under $TMPDIR
};

// From now on, the `nth` mutating call (counting from 1) fails with `error` (Fail), ends
// the process with SIGKILL before it takes effect (Crash), or does so after rolling back
// everything unsynced since now (PowerCut). Resets the count.
void Arm(uint64_t nth, Action action, int error, const PowerCutOptions& power = {});
void Disarm();
// Mutating calls made since the process started or the seam was last armed or disarmed.
uint64_t MutationCount();

// Reads VX_FAULT_AT (N, or "exit": a power cut as the process ends), VX_FAULT_ACTION ("fail", "crash", "power-cut" or
// "power-cut-partial"; default "fail"), VX_FAULT_ERRNO (a number or a name such as EIO,
// ENOSPC; default EIO), and for a power cut VX_FAULT_SEED (default N), VX_FAULT_STASH and
// VX_FAULT_TRACE (non-empty: the cut lists what it undoes). VX_FAULT_SITES=FILE, armed or
// not, appends a line "N operation site" to FILE for every mutating call, the site naming the
// code that made it (module and offset), for sweeps that cut every distinct call.
// Returns false with a message in `problem` when a variable is malformed; absent variables
// arm nothing.
bool ConfigureFromEnvironment(const char** problem);

// Returns 0 when the call may proceed, else the errno it must fail with.
int BeforeMutation(const char* operation);

}  // namespace vx::fault
