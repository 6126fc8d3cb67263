#include "platform/log/Log.h"

#include <algorithm>
#include <mutex>
#include <vector>

namespace vx {
namespace {

struct SinkList {
  std::mutex mutex;
  std::vector<std::shared_ptr<LogSink>> sinks;
};

SinkList& Sinks() {
  static SinkList* list = new SinkList;  // never destroyed: threads may log during exit
  return *list;
}

}  // namespace

void AddLogSink(std::shared_ptr<LogSink> sink) {
  std::lock_guard lock(Sinks().mutex);
  Sinks().sinks.push_back(std::move(sink));
}

void RemoveLogSink(const LogSink* sink) {
  std::lock_guard lock(Sinks().mutex);
  auto& v = Sinks().sinks;
  v.erase(std::remove_if(v.begin(), v.end(), [&](const auto& s) { return s.get() == sink; }),
          v.end());
}

void RemoveAllLogSinks() {
  std::lock_guard lock(Sinks().mutex);
  Sinks().sinks.clear();
}

void DispatchLogRecord(const LogRecord& record) {
  std::vector<std::shared_ptr<LogSink>> sinks;
  {
    std::lock_guard lock(Sinks().mutex);
    sinks = Sinks().sinks;
  }
  for (const auto& sink : sinks) sink->Write(record);
}

}  // namespace vx
