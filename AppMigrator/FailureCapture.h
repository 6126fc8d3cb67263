// The first failure the plug-in logs while one item of the old root is handled: the reason
// the report gives for it. Every failure is logged where it arises, so listening to the log
// for the length of the item finds it without threading a reason through every step.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "platform/log/Log.h"

namespace vx {

class FailureCapture {
 public:
  FailureCapture();
  ~FailureCapture();
  FailureCapture(const FailureCapture&) = delete;
  FailureCapture& operator=(const FailureCapture&) = delete;

  // Empty when nothing failed.
  std::string first() const;

 private:
  class Sink;
  std::shared_ptr<Sink> sink_;
};

}  // namespace vx
