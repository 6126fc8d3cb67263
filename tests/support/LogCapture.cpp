#include "support/LogCapture.h"

namespace vx::test {

class LogCapture::Sink : public LogSink {
 public:
  void Write(const LogRecord& record) override {
    std::lock_guard lock(mutex);
    records.push_back(record);
  }
  mutable std::mutex mutex;
  std::vector<LogRecord> records;
};

LogCapture::LogCapture() : sink_(std::make_shared<Sink>()) { AddLogSink(sink_); }

LogCapture::~LogCapture() { RemoveLogSink(sink_.get()); }

std::vector<LogRecord> LogCapture::records() const {
  std::lock_guard lock(sink_->mutex);
  return sink_->records;
}

std::vector<std::string> LogCapture::messages(int level) const {
  std::vector<std::string> out;
  for (const LogRecord& r : records()) {
    if (level < 0 || r.level == level) out.push_back(r.message);
  }
  return out;
}

bool LogCapture::contains(const std::string& text, int level) const {
  return count(text, level) > 0;
}

size_t LogCapture::count(const std::string& text, int level) const {
  size_t n = 0;
  for (const std::string& m : messages(level)) n += m.find(text) != std::string::npos;
  return n;
}

void LogCapture::clear() {
  std::lock_guard lock(sink_->mutex);
  sink_->records.clear();
}

}  // namespace vx::test
