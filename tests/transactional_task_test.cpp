// The task runner and the serial queue beneath it.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "platform/system/DispatchQueue.h"
#include "platform/system/ProcessTransaction.h"
#include "support/TransactionalTask.h"

namespace vx {
namespace {

TEST(TransactionalTaskTest, ProcessIsBusyFromTheCallUntilTheTaskEnds) {
  const int64_t idle = ProcessTransactionCount();
  std::promise<void> gate;
  std::shared_future<void> opened = gate.get_future().share();
  int64_t countInTask = -1;
  std::thread::id taskThread;
  {
    DispatchQueue queue("vx.test.tasks");
    // Holding the worker shows that the count rises before the task has even started.
    queue.async([opened] { opened.wait(); });
    VXRunTransactionalTask(queue, [&] {
      countInTask = ProcessTransactionCount();
      taskThread = std::this_thread::get_id();
    });
    EXPECT_EQ(ProcessTransactionCount(), idle + 1);
    EXPECT_EQ(countInTask, -1);
    gate.set_value();
    std::promise<int64_t> after;
    queue.async([&] { after.set_value(ProcessTransactionCount()); });
    EXPECT_EQ(after.get_future().get(), idle);
  }
  EXPECT_EQ(countInTask, idle + 1);
  EXPECT_NE(taskThread, std::this_thread::get_id());
  // An empty task still ends its transaction.
  {
    DispatchQueue queue("vx.test.empty");
    VXRunTransactionalTask(queue, nullptr);
  }
  EXPECT_EQ(ProcessTransactionCount(), idle);
}

TEST(TransactionalTaskTest, QueueRunsInOrderOnOneNamedThreadAndDrainsOnDestruction) {
  std::vector<int> order;
  std::vector<std::thread::id> threads;
  std::string workerName;
  {
    DispatchQueue queue("vx.test.a-long-queue-label");
    for (int i = 0; i < 50; ++i) {
      queue.async([&, i] {
        order.push_back(i);
        threads.push_back(std::this_thread::get_id());
        // Jobs queued by a job while the queue is being destroyed still run.
        if (i == 49) queue.async([&] { order.push_back(50); });
      });
    }
    queue.async([&] {
      char name[16] = {};
      ::pthread_getname_np(::pthread_self(), name, sizeof name);
      workerName = name;
    });
  }
  ASSERT_EQ(order.size(), 51u);
  for (int i = 0; i <= 50; ++i) EXPECT_EQ(order[i], i);
  for (const auto& id : threads) EXPECT_EQ(id, threads.front());
  EXPECT_EQ(workerName, "vx.test.a-long-");
}

}  // namespace
}  // namespace vx
