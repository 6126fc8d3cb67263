#include "platform/system/DispatchQueue.h"

#include <pthread.h>

namespace vx {

DispatchQueue::DispatchQueue(std::string label)
    : label_(std::move(label)), worker_([this] { run(); }) {}

DispatchQueue::~DispatchQueue() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_one();
  worker_.join();
}

void DispatchQueue::async(Job job) {
  {
    std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
  }
  wake_.notify_one();
}

void DispatchQueue::run() {
  if (!label_.empty()) ::pthread_setname_np(::pthread_self(), label_.substr(0, 15).c_str());
  for (;;) {
    Job job;
    {
      std::unique_lock lock(mutex_);
      wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
      if (jobs_.empty()) return;  // stopping, and nothing left to drain
      job = std::move(jobs_.front());
      jobs_.pop_front();
    }
    if (job) job();
  }
}

}  // namespace vx
