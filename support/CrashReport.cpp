#include "support/CrashReport.h"

#include <errno.h>
#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vx {
namespace {

__attribute__((section("vx_crash_info"), used)) CrashAnnotation gCrashAnnotation = {5, 0, {}};

// Statically initialised, so that it works however early or late a crash comes, and never
// released: whoever takes it is the one who aborts.
pthread_mutex_t gCrashLock = PTHREAD_MUTEX_INITIALIZER;

// The kernel keeps 15 bytes of a thread's name.
constexpr size_t kThreadNameCapacity = 16;

std::optional<std::string> OwnThreadName() {
  char name[kThreadNameCapacity] = {};
  if (::pthread_getname_np(::pthread_self(), name, sizeof name) != 0 || !*name) {
    return std::nullopt;
  }
  // A thread that never named itself carries the process's name (the first 15 bytes of it).
  const std::string processName =
      std::string(program_invocation_short_name).substr(0, kThreadNameCapacity - 1);
  if (processName == name) return std::nullopt;
  return std::string(name);
}

}  // namespace

const CrashAnnotation& VXCrashAnnotation() { return gCrashAnnotation; }

std::string VXCrashReportText(const ExceptionRecord& exception) {
  std::string report = "** INTERNAL ERROR: Uncaught Exception **\nException: ";
  if (auto thread = OwnThreadName()) report += "<" + *thread + "> ";
  if (exception.name) report += *exception.name + ": ";
  if (exception.reason) report += *exception.reason;
  report += "\nStack:\n";
  for (size_t i = 0; i < exception.callStackSymbols.size(); ++i) {
    if (i) report += "\n";
    report += exception.callStackSymbols[i];
  }
  return report;
}

void VXCrashOnException(const ExceptionRecord& exception) {
  const std::string report = VXCrashReportText(exception);
  ::pthread_mutex_lock(&gCrashLock);
  // Never freed: the crash reporter reads it after the process has stopped.
  char* message = ::strdup(report.c_str());
  gCrashAnnotation.message = reinterpret_cast<uintptr_t>(message);
  std::fwrite(report.data(), 1, report.size(), stderr);
  std::fputc('\n', stderr);
  std::fflush(stderr);
  std::abort();
}

}  // namespace vx
