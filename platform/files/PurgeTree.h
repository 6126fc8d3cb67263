// The recursive remover. Removes a file, a symbolic link (never followed) or a whole
// directory tree, iteratively and relative to directory descriptors, with no depth limit.
// An item that cannot be removed is reported through the error callback and the remover
// goes on with the rest.
#pragma once

#include <memory>

namespace vx {

struct PurgeTreeState;

enum class PurgeTreeDecision { Proceed, Stop };

// Called for each item that could not be removed; `path` is the item's full path. An item
// that vanished meanwhile is reported too, with ENOENT, but is no failure of the tree.
// Returning Stop ends the removal there.
using PurgeTreeErrorCallback = PurgeTreeDecision (*)(PurgeTreeState* state, const char* path,
                                                     void* context);

enum class PurgeTreeOption { ErrorCallback, ErrorContext };

PurgeTreeState* purgetree_state_alloc();
void purgetree_state_free(PurgeTreeState* state);
// Sets the callback (value: the PurgeTreeErrorCallback itself, converted with
// reinterpret_cast<const void*>) or the context handed to it.
// Returns 0, or -1 with errno EINVAL for an unknown option.
int purgetree_state_set(PurgeTreeState* state, PurgeTreeOption option, const void* value);
// Inside the callback: the error number of the failure being reported. Returns 0, or -1
// with errno EINVAL when no failure is being reported.
int purgetree_state_get_error(const PurgeTreeState* state, int* error);

struct PurgeTreeStateDeleter {
  void operator()(PurgeTreeState* state) const { purgetree_state_free(state); }
};
using PurgeTreeStateHandle = std::unique_ptr<PurgeTreeState, PurgeTreeStateDeleter>;

// Returns 0 when everything is gone, else -1 with errno: ENOENT when nothing was at `path`,
// otherwise the number of the first failure (each of which also went to the callback).
// Without `recursive` a non-empty directory fails with ENOTEMPTY. A directory that keeps a
// failed descendant stays without a report of its own. At most a few dozen descriptors are
// held whatever the depth.
int purgetree(const char* path, PurgeTreeState* state, bool recursive);

// The same removal by `workers` threads (one: the call above) that take directories from a
// shared queue and empty them at once; a directory goes only after its last entry has, and
// the callback is called by one worker at a time. Which failure comes first, and so the
// number returned, may differ from run to run when several items cannot be removed.
int purgetree(const char* path, PurgeTreeState* state, bool recursive, unsigned workers);

}  // namespace vx
