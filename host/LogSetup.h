// Wires the two logs to their sinks for one command of the host, from its flags.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/log/InstallerLog.h"
#include "platform/log/Log.h"

namespace vx::host {

struct LogOptions {
  bool verbose = false;  // level 7 of the installer log, and on standard error
  bool quiet = false;    // only failures on standard error
  std::optional<std::string> jsonPath;
  // Standard error carries a progress bar that log lines must clear first.
  bool terminalHasProgressBar = false;
};

// The sinks of one command; they are taken down, and the installer log's handle restored,
// when it goes.
class LogSetup {
 public:
  // The text logs go where the device keeps them: the installer log in the configuration's
  // log directory, the migration log in <home>/Library/Logs/Transhift. They are a
  // convenience, so failing to open one is only a warning on standard error; a JSON log the
  // caller asked for is not, and makes this return nothing with `*problem` set.
  static std::unique_ptr<LogSetup> Install(const LogOptions& options, std::string* problem);
  // Where the two text logs of the device are, as this machine reaches them.
  static std::string InstallerLogPath();
  static std::string MigrationLogPath();
  ~LogSetup();
  LogSetup(const LogSetup&) = delete;
  LogSetup& operator=(const LogSetup&) = delete;

 private:
  LogSetup() = default;
  void Add(std::shared_ptr<LogSink> sink);

  std::vector<std::shared_ptr<LogSink>> sinks_;
  LogHandle handle_;
  LogHandle* previousHandle_ = nullptr;
  bool ownsHandle_ = false;
};

}  // namespace vx::host
