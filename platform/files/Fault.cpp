#include "platform/files/Fault.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace vx::fault {
namespace {

std::atomic<uint64_t> gCount{0};
std::atomic<uint64_t> gTarget{0};  // 0: disarmed
std::atomic<int> gAction{0};
std::atomic<int> gError{EIO};

void Announce(const char* what, uint64_t n, const char* operation) {
  // Plain write(2): the process may be about to die, and no lock may be taken here.
  std::string line = std::string("vx fault seam: ") + what + " at mutation " + std::to_string(n) +
                     " (" + operation + ")\n";
  ssize_t ignored = write(STDERR_FILENO, line.data(), line.size());
  (void)ignored;
}

int ErrnoFromName(const char* text) {
  static const struct {
    const char* name;
    int value;
  } kNames[] = {{"EIO", EIO},       {"ENOSPC", ENOSPC}, {"EACCES", EACCES}, {"EPERM", EPERM},
                {"EROFS", EROFS},   {"EXDEV", EXDEV},   {"ENOENT", ENOENT}, {"EEXIST", EEXIST},
                {"EBUSY", EBUSY},   {"EDQUOT", EDQUOT}, {"ENOMEM", ENOMEM}, {"ENOTEMPTY", ENOTEMPTY}};
  for (const auto& entry : kNames) {
    if (std::strcmp(entry.name, text) == 0) return entry.value;
  }
  char* end = nullptr;
  long value = std::strtol(text, &end, 10);
  if (end && *end == '\0' && value > 0 && value < 4096) return static_cast<int>(value);
  return 0;
}

}  // namespace

void Arm(uint64_t nth, Action action, int error) {
  gAction = static_cast<int>(action);
  gError = error;
  gCount = 0;
  gTarget = nth;
}

void Disarm() {
  gTarget = 0;
  gCount = 0;
}

uint64_t MutationCount() { return gCount.load(); }

bool ConfigureFromEnvironment(const char** problem) {
  const char* at = std::getenv("VX_FAULT_AT");
  if (!at || !*at) return true;
  // strtoull alone would take "-1" (as a huge count) and leading blanks.
  char* end = nullptr;
  unsigned long long nth = std::strtoull(at, &end, 10);
  if (!std::isdigit(static_cast<unsigned char>(at[0])) || !end || *end != '\0' || nth == 0) {
    if (problem) *problem = "VX_FAULT_AT must be a positive whole number";
    return false;
  }
  Action action = Action::Fail;
  if (const char* a = std::getenv("VX_FAULT_ACTION"); a && *a) {
    if (std::strcmp(a, "crash") == 0) {
      action = Action::Crash;
    } else if (std::strcmp(a, "fail") != 0) {
      if (problem) *problem = "VX_FAULT_ACTION must be \"fail\" or \"crash\"";
      return false;
    }
  }
  int error = EIO;
  if (const char* e = std::getenv("VX_FAULT_ERRNO"); e && *e) {
    error = ErrnoFromName(e);
    if (error == 0) {
      if (problem) *problem = "VX_FAULT_ERRNO must be an errno name (EIO) or number";
      return false;
    }
  }
  Arm(nth, action, error);
  return true;
}

int BeforeMutation(const char* operation) {
  const uint64_t n = ++gCount;
  const uint64_t target = gTarget.load();
  if (target == 0 || n != target) return 0;
  if (static_cast<Action>(gAction.load()) == Action::Crash) {
    Announce("ending the process", n, operation);
    kill(getpid(), SIGKILL);
    _exit(137);  // not reached
  }
  Announce("failing", n, operation);
  return gError.load();
}

}  // namespace vx::fault
