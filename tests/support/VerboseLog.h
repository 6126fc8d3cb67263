// Lets the installer log's debugging detail (level 7) through while it lives.
#pragma once

#include "platform/log/InstallerLog.h"

namespace vx::test {

class VerboseLog {
 public:
  VerboseLog() : saved_(gLogHandle) { gLogHandle = &handle_; }
  ~VerboseLog() { gLogHandle = saved_; }
  VerboseLog(const VerboseLog&) = delete;
  VerboseLog& operator=(const VerboseLog&) = delete;

 private:
  LogHandle handle_{7};
  LogHandle* saved_;
};

}  // namespace vx::test
