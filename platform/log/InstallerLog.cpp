#include "platform/log/InstallerLog.h"

#include "platform/log/Log.h"

namespace vx {

LogHandle* gLogHandle = nullptr;

bool InstallerLogEnabled(int level) {
  const LogHandle* handle = gLogHandle;
  if (!handle) return level <= 5;
  return handle->level >= level;
}

void InstallerLogWrite(int level, const char* function, std::string message) {
  LogRecord record;
  record.time = std::chrono::system_clock::now();
  record.log = LogKind::Installer;
  record.level = level;
  record.function = function ? function : "";
  record.message = std::move(message);
  DispatchLogRecord(record);
}

}  // namespace vx
