// The migration log of the plug-in: every line names its source file, operation, line,
// the category "Transhifter" and a level (3 failures, 5 progress notes).
#pragma once

#include <string>

#include "support/types/Format.h"

namespace vx {

void MigrationLogWrite(const char* file, const char* function, int line, int level,
                       std::string message);

}  // namespace vx

#define VX_MIGRATION_LOG(level, function, ...)                                        \
  ::vx::MigrationLogWrite("AppMigrator/AppMigrator", (function), __LINE__, (level), \
                          ::vx::Format(__VA_ARGS__))
