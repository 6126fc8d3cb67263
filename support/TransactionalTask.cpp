#include "support/TransactionalTask.h"

#include "platform/system/ProcessTransaction.h"

namespace vx {

void VXRunTransactionalTask(DispatchQueue& queue, std::function<void()> task) {
  ProcessTransactionBegin();
  queue.async([task = std::move(task)] {
    if (task) task();
    ProcessTransactionEnd();
  });
}

}  // namespace vx
