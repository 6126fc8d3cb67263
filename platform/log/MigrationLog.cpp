#include "platform/log/MigrationLog.h"

#include "platform/log/Log.h"

namespace vx {

void MigrationLogWrite(const char* file, const char* function, int line, int level,
                       std::string message) {
  LogRecord record;
  record.time = std::chrono::system_clock::now();
  record.log = LogKind::Migration;
  record.level = level;
  record.category = "Transhifter";
  record.function = function ? function : "";
  record.file = file ? file : "";
  record.line = line;
  record.message = std::move(message);
  DispatchLogRecord(record);
}

}  // namespace vx
