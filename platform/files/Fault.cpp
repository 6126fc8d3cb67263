#include "platform/files/Fault.h"

#include "platform/files/PowerCut.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace vx::fault {
namespace {

std::atomic<uint64_t> gCount{0};
std::atomic<uint64_t> gTarget{0};  // 0: disarmed
std::atomic<int> gAction{0};
std::atomic<int> gError{EIO};
std::atomic<int> gSitesFd{-1};  // VX_FAULT_SITES: where each mutation's call site is listed

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

// The code that asked for a mutation, as "<module>+0x<offset>": the frame just outside the
// system-call wrappers (the exported vx::sys functions), numbered alike in every run of one
// build, so that a sweep can cut each distinct call at least once instead of every Nth call.
std::string CallSite() {
  void* frames[32];
  const int depth = ::backtrace(frames, 32);
  int caller = -1;
  for (int i = 0; i < depth; ++i) {
    Dl_info info{};
    if (::dladdr(frames[i], &info) && info.dli_sname &&
        std::strncmp(info.dli_sname, "_ZN2vx3sys", 10) == 0) {
      caller = i + 1;
    }
  }
  Dl_info info{};
  if (caller <= 0 || caller >= depth || !::dladdr(frames[caller], &info) || !info.dli_fname) {
    return "?";
  }
  const char* slash = std::strrchr(info.dli_fname, '/');
  char offset[32];
  std::snprintf(offset, sizeof offset, "+0x%zx",
                static_cast<size_t>(static_cast<const char*>(frames[caller]) -
                                    static_cast<const char*>(info.dli_fbase)));
  return std::string(slash ? slash + 1 : info.dli_fname) + offset;
}

void ListSite(int fd, uint64_t n, const char* operation) {
  const std::string line = std::to_string(n) + " " + operation + " " + CallSite() + "\n";
  ssize_t ignored = write(fd, line.data(), line.size());  // O_APPEND: one line, whole
  (void)ignored;
}

constexpr uint64_t kAtExit = UINT64_MAX;

void CutAtExit() {
  if (gTarget.load() != kAtExit || static_cast<Action>(gAction.load()) != Action::PowerCut) return;
  Announce("cutting the power", gCount.load(), "at exit");
  powercut::Cut();
}

}  // namespace

void Arm(uint64_t nth, Action action, int error, const PowerCutOptions& power) {
  powercut::Stop();
  if (action == Action::PowerCut) {
    powercut::Start(power.partial ? powercut::Loss::AllButPartOfOneDirectory
                                  : powercut::Loss::Everything,
                    power.seed, power.stashDirectory);
  }
  gAction = static_cast<int>(action);
  gError = error;
  gCount = 0;
  gTarget = nth;
}

void Disarm() {
  powercut::Stop();
  gTarget = 0;
  gCount = 0;
}

uint64_t MutationCount() { return gCount.load(); }

bool ConfigureFromEnvironment(const char** problem) {
  if (const char* sites = std::getenv("VX_FAULT_SITES"); sites && *sites && gSitesFd < 0) {
    gSitesFd = ::open(sites, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (gSitesFd < 0) {
      if (problem) *problem = "VX_FAULT_SITES names a file that cannot be written";
      return false;
    }
  }
  const char* at = std::getenv("VX_FAULT_AT");
  if (!at || !*at) return true;
  // strtoull alone would take "-1" (as a huge count) and leading blanks.
  char* end = nullptr;
  const bool atExit = std::strcmp(at, "exit") == 0;
  unsigned long long nth = atExit ? kAtExit : std::strtoull(at, &end, 10);
  if (!atExit &&
      (!std::isdigit(static_cast<unsigned char>(at[0])) || !end || *end != '\0' || nth == 0)) {
    if (problem) *problem = "VX_FAULT_AT must be a positive whole number or \"exit\"";
    return false;
  }
  Action action = Action::Fail;
  PowerCutOptions power;
  power.seed = nth;
  if (const char* a = std::getenv("VX_FAULT_ACTION"); a && *a) {
    if (std::strcmp(a, "crash") == 0) {
      action = Action::Crash;
    } else if (std::strcmp(a, "power-cut") == 0 || std::strcmp(a, "power-cut-partial") == 0) {
      action = Action::PowerCut;
      power.partial = std::strcmp(a, "power-cut-partial") == 0;
    } else if (std::strcmp(a, "fail") != 0) {
      if (problem) {
        *problem =
            "VX_FAULT_ACTION must be \"fail\", \"crash\", \"power-cut\" or \"power-cut-partial\"";
      }
      return false;
    }
  }
  if (const char* seed = std::getenv("VX_FAULT_SEED"); seed && *seed) {
    char* end = nullptr;
    power.seed = std::strtoull(seed, &end, 10);
    if (!std::isdigit(static_cast<unsigned char>(seed[0])) || !end || *end != '\0') {
      if (problem) *problem = "VX_FAULT_SEED must be a whole number";
      return false;
    }
  }
  if (const char* stash = std::getenv("VX_FAULT_STASH"); stash && *stash) {
    power.stashDirectory = stash;
  }
  int error = EIO;
  if (const char* e = std::getenv("VX_FAULT_ERRNO"); e && *e) {
    error = ErrnoFromName(e);
    if (error == 0) {
      if (problem) *problem = "VX_FAULT_ERRNO must be an errno name (EIO) or number";
      return false;
    }
  }
  Arm(nth, action, error, power);
  // The power may also fail once the run is over, before the kernel wrote back what the run
  // left unsynced: what it reported done must then still be done.
  if (atExit && action == Action::PowerCut) std::atexit(CutAtExit);
  return true;
}

int BeforeMutation(const char* operation) {
  const uint64_t n = ++gCount;
  if (const int sites = gSitesFd.load(); sites >= 0) ListSite(sites, n, operation);
  const uint64_t target = gTarget.load();
  if (target == 0 || n != target) return 0;
  switch (static_cast<Action>(gAction.load())) {
    case Action::Crash:
      Announce("ending the process", n, operation);
      kill(getpid(), SIGKILL);
      _exit(137);  // not reached
    case Action::PowerCut:
      Announce("cutting the power", n, operation);
      powercut::Cut();
    case Action::Fail:
      break;
  }
  Announce("failing", n, operation);
  return gError.load();
}

}  // namespace vx::fault
