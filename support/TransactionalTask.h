// Runs a task asynchronously while the process counts as busy: from the call until the
// task has returned, an open process transaction keeps the process from looking idle.
#pragma once

#include <functional>

#include "platform/system/DispatchQueue.h"

namespace vx {

// The transaction begins on the caller's thread before the task is queued, so there is no
// moment between the call and the task's end at which the process looks idle.
void VXRunTransactionalTask(DispatchQueue& queue, std::function<void()> task);

}  // namespace vx
