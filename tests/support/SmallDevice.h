// A sample device of a few applications written for one test, with the writer's complaint as
// the failure.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "host/sample/SampleDevice.h"

namespace vx::test {

inline ::testing::AssertionResult WriteSmallDevice(const std::string& root, int apps,
                                                   uint64_t dataBytes) {
  sample::SampleDeviceOptions options;
  options.apps = apps;
  options.dataBytes = dataBytes;
  std::string problem;
  if (sample::WriteSampleDevice(root, options, &problem)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << problem;
}

}  // namespace vx::test
