// A one-line progress display on a terminal, redrawn a few times a second from its own
// thread while the caller's thread does the work.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace vx::host {

// The line itself: label, bar, percentage, elapsed time and, when known, what is left.
// Fits in `width` columns.
std::string RenderProgressLine(std::string_view label, float fraction,
                               std::chrono::seconds elapsed,
                               std::optional<std::chrono::seconds> remaining, int width);

// What is left, judged from the pace so far once there is some, else from the estimate.
std::optional<std::chrono::seconds> EstimateRemaining(float fraction,
                                                      std::chrono::duration<double> elapsed,
                                                      double estimatedSeconds);

class ProgressBar {
 public:
  // `progress` is called from the bar's thread, so it must be safe to call concurrently
  // with the work. `fd` is borrowed.
  ProgressBar(std::string label, std::function<float()> progress, double estimatedSeconds,
              int fd);
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

 private:
  void Run(std::stop_token stop);
  void Draw(bool final);

  std::string label_;
  std::function<float()> progress_;
  double estimatedSeconds_;
  int fd_;
  std::chrono::steady_clock::time_point start_;
  std::mutex mutex_;
  std::condition_variable_any wake_;
  std::jthread thread_;  // last, so that it stops before the members it uses go
};

// The width of the terminal on `fd`, or 80 when it does not say.
int TerminalWidth(int fd);

}  // namespace vx::host
