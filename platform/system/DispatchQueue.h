// A serial work queue: one worker thread runs the jobs one after another, in the order they
// were queued. Destroying the queue runs every job still queued (including jobs that those
// jobs queue) and then joins the worker, so no job is ever dropped.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace vx {

class DispatchQueue {
 public:
  using Job = std::function<void()>;

  // The label names the worker thread (the first 15 bytes: the kernel keeps no more), so
  // that a crash report or a debugger shows where a job ran.
  explicit DispatchQueue(std::string label);
  ~DispatchQueue();
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  // Queues the job and returns at once. A job must not throw.
  void async(Job job);

  const std::string& label() const { return label_; }

 private:
  void run();

  const std::string label_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Job> jobs_;
  bool stopping_ = false;
  std::thread worker_;  // last: it starts once everything it uses exists
};

}  // namespace vx
