#include "platform/system/ProcessTransaction.h"

#include <atomic>

namespace vx {
namespace {

std::atomic<int64_t> gOpenTransactions{0};

}  // namespace

void ProcessTransactionBegin() { gOpenTransactions.fetch_add(1, std::memory_order_seq_cst); }

void ProcessTransactionEnd() { gOpenTransactions.fetch_sub(1, std::memory_order_seq_cst); }

int64_t ProcessTransactionCount() { return gOpenTransactions.load(std::memory_order_seq_cst); }

}  // namespace vx
