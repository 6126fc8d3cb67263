#include "platform/log/LogSinks.h"
#include "platform/files/WriteWhole.h"
#include "platform/log/EscapedText.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

namespace vx {
namespace {

const char* LevelWord(int level) {
  if (level <= 3) return "error";
  if (level <= 5) return "notice";
  return "debug";
}

}  // namespace

std::string FormatLogTime(std::chrono::system_clock::time_point time) {
  using namespace std::chrono;
  const auto sinceEpoch = time.time_since_epoch();
  const auto whole = floor<seconds>(sinceEpoch);
  const auto millis = duration_cast<milliseconds>(sinceEpoch - whole).count();
  const std::time_t t = static_cast<std::time_t>(whole.count());
  std::tm utc{};
  gmtime_r(&t, &utc);
  char text[96];  // room for any int the fields could hold
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900,
                utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                static_cast<int>(millis));
  return text;
}

std::string FormatTextLogLine(const LogRecord& record) {
  std::string line = FormatLogTime(record.time) + " <" + std::to_string(record.level) + "> ";
  if (record.category) line += "[" + *record.category + "] ";
  if (record.file) {
    line += *record.file;
    if (record.line) line += ":" + std::to_string(*record.line);
    line += " ";
  }
  return line + record.function + ": " + EscapedText(record.message) + "\n";
}

std::string FormatTerminalLogLine(const LogRecord& record) {
  std::string line = LevelWord(record.level);
  line += ": ";
  // Detail is only useful with the operation that wrote it.
  if (record.level > 5 && !record.function.empty()) line += record.function + ": ";
  return line + EscapedText(record.message) + "\n";
}

std::string FormatJsonLogLine(const LogRecord& record) {
  nlohmann::ordered_json object;
  object["time"] = FormatLogTime(record.time);
  object["log"] = record.log == LogKind::Installer ? "installer" : "migration";
  object["level"] = record.level;
  object["category"] = record.category ? nlohmann::ordered_json(*record.category) : nullptr;
  object["function"] = record.function;
  object["file"] = record.file ? nlohmann::ordered_json(*record.file) : nullptr;
  object["line"] = record.line ? nlohmann::ordered_json(*record.line) : nullptr;
  object["message"] = record.message;
  // Paths are bytes, not always UTF-8: replace what cannot be encoded rather than throw.
  return object.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

std::unique_ptr<LineWriter> LineWriter::OpenForAppending(const std::string& path, int* error) {
  UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  if (!fd) {
    if (error) *error = errno;
    return nullptr;
  }
  return std::make_unique<LineWriter>(std::move(fd));
}

void LineWriter::WriteLine(const std::string& line) {
  std::lock_guard lock(mutex_);
  WriteWhole(fd_.get(), line);
}

std::shared_ptr<TextLogFileSink> TextLogFileSink::Open(const std::string& path, LogKind log,
                                                       int* error) {
  auto out = LineWriter::OpenForAppending(path, error);
  if (!out) return nullptr;
  return std::shared_ptr<TextLogFileSink>(new TextLogFileSink(std::move(out), log));
}

void TextLogFileSink::Write(const LogRecord& record) {
  if (record.log == log_) out_->WriteLine(FormatTextLogLine(record));
}

std::shared_ptr<JsonLinesLogSink> JsonLinesLogSink::Open(const std::string& path, int* error) {
  auto out = LineWriter::OpenForAppending(path, error);
  if (!out) return nullptr;
  return std::shared_ptr<JsonLinesLogSink>(new JsonLinesLogSink(std::move(out)));
}

void JsonLinesLogSink::Write(const LogRecord& record) {
  out_->WriteLine(FormatJsonLogLine(record));
}

TerminalLogSink::TerminalLogSink(int fd, int maxLevel, bool eraseLine)
    : fd_(fd), maxLevel_(maxLevel), eraseLine_(eraseLine) {}

void TerminalLogSink::Write(const LogRecord& record) {
  if (record.level > maxLevel_) return;
  std::string line = FormatTerminalLogLine(record);
  if (eraseLine_) line.insert(0, "\r\033[K");
  std::lock_guard lock(mutex_);
  WriteWhole(fd_, line);
}

}  // namespace vx
