#include "host/ProgressBar.h"
#include "platform/files/WriteWhole.h"
#include "platform/log/EscapedText.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>

namespace vx::host {
namespace {

constexpr auto kRedrawInterval = std::chrono::milliseconds(250);
// Below this much done the pace says little; the plug-in's own estimate is better.
constexpr float kFractionWorthExtrapolating = 0.05f;

std::string Clock(std::chrono::seconds s) {
  const long total = static_cast<long>(s.count());
  char text[32];
  std::snprintf(text, sizeof text, "%ld:%02ld", total / 60, total % 60);
  return text;
}

}  // namespace

std::string RenderProgressLine(std::string_view label, float fraction,
                               std::chrono::seconds elapsed,
                               std::optional<std::chrono::seconds> remaining, int width) {
  fraction = std::isfinite(fraction) ? std::clamp(fraction, 0.0f, 1.0f) : 0.0f;
  char percent[8];
  std::snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(fraction * 100.0f));
  std::string tail = std::string(" ") + percent + "  " + Clock(elapsed);
  tail += remaining ? "  ~" + Clock(*remaining) + " left" : std::string("");

  // The label names what moves (a plug-in's choice): escaped, and cut between characters.
  std::string head = EscapedText(label);
  size_t keep = std::min(head.size(), static_cast<size_t>(std::max(0, width / 3)));
  while (keep > 0 && keep < head.size() && (static_cast<unsigned char>(head[keep]) & 0xC0) == 0x80) {
    --keep;
  }
  head.resize(keep);
  const int barWidth = width - static_cast<int>(head.size() + tail.size()) - 3;
  if (barWidth < 5) return (head + tail).substr(0, std::max(0, width));
  const int filled = static_cast<int>(std::lround(fraction * static_cast<float>(barWidth)));
  return head + " [" + std::string(filled, '#') + std::string(barWidth - filled, '.') + "]" +
         tail;
}

std::optional<std::chrono::seconds> EstimateRemaining(float fraction,
                                                      std::chrono::duration<double> elapsed,
                                                      double estimatedSeconds) {
  using std::chrono::seconds;
  if (!std::isfinite(fraction) || fraction >= 1.0f) return seconds(0);
  double left;
  if (fraction >= kFractionWorthExtrapolating) {
    left = elapsed.count() * (1.0 - fraction) / fraction;
  } else if (estimatedSeconds > 0) {
    left = std::max(0.0, estimatedSeconds - elapsed.count());
  } else {
    return std::nullopt;
  }
  return seconds(static_cast<long>(std::ceil(left)));
}

int TerminalWidth(int fd) {
  winsize size{};
  if (ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return 80;
}

ProgressBar::ProgressBar(std::string label, std::function<float()> progress,
                         double estimatedSeconds, int fd)
    : label_(std::move(label)),
      progress_(std::move(progress)),
      estimatedSeconds_(estimatedSeconds),
      fd_(fd),
      start_(std::chrono::steady_clock::now()),
      thread_([this](std::stop_token stop) { Run(stop); }) {}

ProgressBar::~ProgressBar() {
  thread_.request_stop();
  thread_.join();
  Draw(true);
}

void ProgressBar::Run(std::stop_token stop) {
  while (!stop.stop_requested()) {
    Draw(false);
    std::unique_lock lock(mutex_);
    wake_.wait_for(lock, stop, kRedrawInterval, [] { return false; });
  }
}

void ProgressBar::Draw(bool final) {
  const auto elapsed = std::chrono::steady_clock::now() - start_;
  const float fraction = progress_();
  const auto remaining = final ? std::nullopt
                               : EstimateRemaining(fraction, elapsed, estimatedSeconds_);
  // One column short of the width, so that the cursor never wraps to the next line.
  std::string line = "\r" +
                     RenderProgressLine(label_, fraction,
                                        std::chrono::duration_cast<std::chrono::seconds>(elapsed),
                                        remaining, TerminalWidth(fd_) - 1) +
                     "\033[K";
  if (final) line += "\n";
  WriteWhole(fd_, line);
}

}  // namespace vx::host
