// The remover's state, shared by the one-worker and the many-worker removals.
#pragma once

#include <cerrno>
#include <string>

#include "platform/files/PurgeTree.h"

namespace vx {

struct PurgeTreeState {
  PurgeTreeErrorCallback callback = nullptr;
  void* context = nullptr;
  int reportedError = 0;
  bool reporting = false;
};

// Keeps the first error that counts (a vanished item does not) and asks the caller's
// callback, if any, whether to go on. True when the callback says stop. The many-worker
// remover calls it under its reporting lock: callbacks are made one at a time.
inline bool ReportPurgeError(PurgeTreeState* state, const char* path, int error, int* firstError) {
  if (!*firstError && error != ENOENT) *firstError = error;
  if (!state || !state->callback) return false;
  state->reportedError = error;
  state->reporting = true;
  const PurgeTreeDecision decision = state->callback(state, path, state->context);
  state->reporting = false;
  return decision == PurgeTreeDecision::Stop;
}

// The one-worker removal of `path` (without trailing slashes) after a try to remove it as an
// empty directory failed with `rmdirError`; returns as purgetree does. The many-worker
// removal hands over what it does not walk itself, and the try is not made twice.
int PurgeTreeAfterRmdir(const std::string& path, PurgeTreeState* state, bool recursive,
                        int rmdirError);

}  // namespace vx
