// Collects the log records written while it lives, for tests that check messages.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/log/Log.h"

namespace vx::test {

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogRecord> records() const;
  // Messages (optionally of one level) in the order written.
  std::vector<std::string> messages(int level = -1) const;
  // True when some message contains `text` (at `level`, if given).
  bool contains(const std::string& text, int level = -1) const;
  size_t count(const std::string& text, int level = -1) const;
  void clear();

 private:
  class Sink;
  std::shared_ptr<Sink> sink_;
};

}  // namespace vx::test
