// Open transactions keep the process from being treated as idle: a host that would stop an
// idle process (or a test) reads the count and waits while it is above 0.
#pragma once

#include <cstdint>

namespace vx {

void ProcessTransactionBegin();
// Ends one transaction begun earlier, on any thread.
void ProcessTransactionEnd();
// The number of transactions open now.
int64_t ProcessTransactionCount();

}  // namespace vx
