// platform/log: the device's logging service, the installer and migration logs and the sinks
// their records reach. Uses platform/files and the shared types.
//
// The log service: records from both logs go to whatever sinks the host installs.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace vx {

enum class LogKind { Installer, Migration };

struct LogRecord {
  std::chrono::system_clock::time_point time;
  LogKind log = LogKind::Installer;
  int level = 5;
  std::optional<std::string> category;
  std::string function;  // the operation name the code gives the log
  std::optional<std::string> file;
  std::optional<int> line;
  std::string message;
};

class LogSink {
 public:
  virtual ~LogSink() = default;
  // Called from any thread; a sink serialises its own output.
  virtual void Write(const LogRecord& record) = 0;
};

void AddLogSink(std::shared_ptr<LogSink> sink);
void RemoveLogSink(const LogSink* sink);
void RemoveAllLogSinks();
void DispatchLogRecord(const LogRecord& record);

}  // namespace vx
