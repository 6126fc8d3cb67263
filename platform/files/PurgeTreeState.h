// The remover's state, shared by the one-worker and the many-worker removals.
#pragma once

#include "platform/files/PurgeTree.h"

namespace vx {

struct PurgeTreeState {
  PurgeTreeErrorCallback callback = nullptr;
  void* context = nullptr;
  int reportedError = 0;
  bool reporting = false;
};

}  // namespace vx
