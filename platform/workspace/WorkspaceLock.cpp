#include "platform/workspace/WorkspaceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "filemanager/VXFileManager.h"
#include "platform/files/Sys.h"
#include "support/errors/ErrorMakers.h"

namespace vx {

const char* const kWorkspaceStampFileName = ".generation";

namespace {

constexpr const char* kFunction = "WorkspaceLock";
constexpr size_t kStampSize = 2 * sizeof(uint64_t);

std::string StampPath(const WorkspaceLayout& layout) {
  return layout.containersDirectory().URLByAppendingPathComponent(kWorkspaceStampFileName).path();
}

// A short or torn stamp reads as a generation no reader has cached.
WorkspaceGeneration ReadStamp(int fd) {
  uint64_t words[2] = {0, 0};
  ssize_t n;
  do {
    n = ::pread(fd, words, kStampSize, 0);
  } while (n < 0 && errno == EINTR);
  if (n != static_cast<ssize_t>(kStampSize)) return {};
  return {words[0], words[1]};
}

uint64_t NewEpoch() {
  uint64_t epoch = 0;
  if (::getrandom(&epoch, sizeof epoch, GRND_NONBLOCK) != sizeof epoch) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    epoch = (static_cast<uint64_t>(now.tv_sec) << 32) ^ static_cast<uint64_t>(now.tv_nsec) ^
            (static_cast<uint64_t>(::getpid()) << 16);
  }
  return epoch | 1;  // never the zero of a stamp that was never written
}

ErrorRef Failure(int line, int e, const char* what, const std::string& path) {
  return PosixError(kFunction, line, e, "Failed to %s %s: %s", what, path, std::strerror(e));
}

}  // namespace

std::optional<WorkspaceGeneration> PeekWorkspaceGeneration(const WorkspaceLayout& layout) {
  UniqueFd fd(::open(StampPath(layout).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) return std::nullopt;
  return ReadStamp(fd.get());
}

std::optional<WorkspaceLock> WorkspaceLock::acquire(const WorkspaceLayout& layout,
                                                    ErrorRef* error) {
  if (!MakeDurableDirectory(layout.containersDirectory(), 0755, error)) return std::nullopt;
  const std::string path = StampPath(layout);
  UniqueFd fd(sys::Open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!fd) {
    SetError(error, Failure(__LINE__, errno, "open", path));
    return std::nullopt;
  }
  int locked;
  do {
    locked = ::flock(fd.get(), LOCK_EX);
  } while (locked != 0 && errno == EINTR);
  if (locked != 0) {
    SetError(error, Failure(__LINE__, errno, "lock", path));
    return std::nullopt;
  }
  WorkspaceGeneration generation = ReadStamp(fd.get());
  if (generation.epoch == 0) generation = {NewEpoch(), 0};
  return WorkspaceLock(std::move(fd), generation);
}

bool WorkspaceLock::bump(ErrorRef* error) {
  const WorkspaceGeneration next{generation_.epoch, generation_.count + 1};
  const uint64_t words[2] = {next.epoch, next.count};
  // Not synced: the stamp only has to tell live processes apart; after a power cut every
  // process starts with a scan anyway.
  if (::lseek(fd_.get(), 0, SEEK_SET) != 0 || !sys::WriteAll(fd_.get(), words, kStampSize)) {
    SetError(error, Failure(__LINE__, errno, "write", kWorkspaceStampFileName));
    return false;
  }
  generation_ = next;
  return true;
}

}  // namespace vx
