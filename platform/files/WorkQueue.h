// A shared queue of work items and a small pool of workers that take from it, for walks
// over large trees: each item is one directory, and handling it may queue more. The walk
// ends when the queue is empty and no worker holds an item, or when one of them stops it.
// With one worker everything runs on the caller's thread, in queue order.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace vx {

// Workers a walk uses when asked for "as many as there are cores".
unsigned DefaultWorkerCount();

template <typename Item>
class WorkQueue {
 public:
  void Push(Item item) {
    {
      std::lock_guard lock(mutex_);
      if (stopped_) return;
      items_.push_back(std::move(item));
    }
    ready_.notify_one();
  }

  // No further item is handed out; items being handled run to their end.
  void Stop() {
    {
      std::lock_guard lock(mutex_);
      stopped_ = true;
      items_.clear();
    }
    ready_.notify_all();
  }

  bool stopped() const {
    std::lock_guard lock(mutex_);
    return stopped_;
  }

  // Hands every item to `work` on `workers` threads, the caller's being one of them, and
  // returns when all is done. A thread that cannot be started leaves its share to the others.
  void Run(unsigned workers, const std::function<void(Item&)>& work) {
    std::vector<std::thread> threads;
    for (unsigned i = 1; i < workers; ++i) {
      try {
        threads.emplace_back([this, &work] { Drain(work); });
      } catch (const std::system_error&) {
        break;
      }
    }
    Drain(work);
    for (std::thread& thread : threads) thread.join();
  }

 private:
  void Drain(const std::function<void(Item&)>& work) {
    std::unique_lock lock(mutex_);
    for (;;) {
      ready_.wait(lock, [this] { return stopped_ || !items_.empty() || busy_ == 0; });
      if (stopped_ || items_.empty()) break;  // busy_ == 0: nothing can come any more
      Item item = std::move(items_.front());
      items_.pop_front();
      ++busy_;
      lock.unlock();
      work(item);
      lock.lock();
      --busy_;
      if (busy_ == 0 && items_.empty()) ready_.notify_all();
    }
    ready_.notify_all();
  }

  mutable std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<Item> items_;
  size_t busy_ = 0;
  bool stopped_ = false;
};

}  // namespace vx
