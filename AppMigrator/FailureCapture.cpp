#include "AppMigrator/FailureCapture.h"

namespace vx {

class FailureCapture::Sink final : public LogSink {
 public:
  void Write(const LogRecord& record) override {
    if (record.log != LogKind::Migration || record.level > 3) return;
    std::lock_guard lock(mutex_);
    if (first_.empty()) first_ = record.message;
  }
  std::string first() const {
    std::lock_guard lock(mutex_);
    return first_;
  }

 private:
  mutable std::mutex mutex_;
  std::string first_;
};

FailureCapture::FailureCapture() : sink_(std::make_shared<Sink>()) { AddLogSink(sink_); }

FailureCapture::~FailureCapture() { RemoveLogSink(sink_.get()); }

std::string FailureCapture::first() const { return sink_->first(); }

}  // namespace vx
