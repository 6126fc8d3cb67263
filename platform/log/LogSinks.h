// Where the two logs go: a text file per log, standard error in a short human form, and a
// JSON-lines file for machines. Log files are not data: they are written with plain
// write(2), outside the fault seam, so that a fault injected into a run never lands on a
// log line and the log still tells what happened.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include "platform/files/UniqueFd.h"
#include "platform/log/Log.h"

namespace vx {

// ISO 8601 in UTC with milliseconds: 2024-03-05T07:08:09.010Z.
std::string FormatLogTime(std::chrono::system_clock::time_point time);

// One line each, ending with "\n"; the message is escaped (EscapedText), so that a record
// never spans two lines and no byte of a device's names reaches a terminal raw.
std::string FormatTextLogLine(const LogRecord& record);
std::string FormatTerminalLogLine(const LogRecord& record);
// Exactly the keys time, log, level, category, function, file, line, message; absent
// category, file and line are null.
std::string FormatJsonLogLine(const LogRecord& record);

// A descriptor that takes whole lines from any thread: each line is one write(2), and a
// short write is finished before another line may start.
class LineWriter {
 public:
  explicit LineWriter(UniqueFd fd) : fd_(std::move(fd)) {}
  // Opens `path` for appending, creating it (mode 0644); nullptr with `*error` on failure.
  static std::unique_ptr<LineWriter> OpenForAppending(const std::string& path, int* error);
  void WriteLine(const std::string& line);
  int fd() const { return fd_.get(); }

 private:
  std::mutex mutex_;
  UniqueFd fd_;
};

// The text log of one of the two logs: it takes only that log's records.
class TextLogFileSink : public LogSink {
 public:
  static std::shared_ptr<TextLogFileSink> Open(const std::string& path, LogKind log, int* error);
  void Write(const LogRecord& record) override;

 private:
  TextLogFileSink(std::unique_ptr<LineWriter> out, LogKind log)
      : out_(std::move(out)), log_(log) {}
  std::unique_ptr<LineWriter> out_;
  LogKind log_;
};

// Both logs, one JSON object per line.
class JsonLinesLogSink : public LogSink {
 public:
  static std::shared_ptr<JsonLinesLogSink> Open(const std::string& path, int* error);
  void Write(const LogRecord& record) override;

 private:
  explicit JsonLinesLogSink(std::unique_ptr<LineWriter> out) : out_(std::move(out)) {}
  std::unique_ptr<LineWriter> out_;
};

// Records up to `maxLevel` (3 failures, 5 notices, 7 detail), for a person watching.
class TerminalLogSink : public LogSink {
 public:
  // `fd` is borrowed, not closed. With `eraseLine`, each record first clears the terminal
  // line, so that a progress bar drawn there does not run into the message.
  TerminalLogSink(int fd, int maxLevel, bool eraseLine);
  void Write(const LogRecord& record) override;

 private:
  std::mutex mutex_;
  int fd_;
  int maxLevel_;
  bool eraseLine_;
};

}  // namespace vx
