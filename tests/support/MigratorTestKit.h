// What the plug-in's tests share: the old container root on the test device, and the check
// of a migration-log record.
#pragma once

#include <algorithm>
#include <string>

#include "support/LogCapture.h"
#include "support/TestDevice.h"

namespace vx::test {

inline std::string OldContainer(const std::string& name) {
  return DevicePath("private/var/mobile/Applications/" + name);
}

inline FileURL Dir(const std::string& path) { return FileURL::fileURLWithPath(path, true); }

// Exactly one record says `message`, and it came from the plug-in's `operation` at `level`.
inline bool LoggedOnce(const LogCapture& log, int level, const std::string& message,
                       const std::string& operation) {
  const auto records = log.records();
  const auto same = [&](const LogRecord& r) { return r.message == message; };
  const auto it = std::find_if(records.begin(), records.end(), same);
  return std::count_if(records.begin(), records.end(), same) == 1 &&
         it->log == LogKind::Migration && it->level == level && it->function == operation &&
         it->file == "AppMigrator/AppMigrator" && it->category == "Transhifter";
}

}  // namespace vx::test
