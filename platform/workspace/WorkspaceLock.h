// How processes share one workspace. Each keeps its own index of the containers and trusts
// it only while the generation stamp is the one it last saw; every writer takes the lock
// and moves the stamp on before it changes anything, so a reader elsewhere notices the
// change, and a writer that dies half-way has still moved it.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/files/UniqueFd.h"
#include "platform/workspace/WorkspaceLayout.h"
#include "support/types/InstallerError.h"

namespace vx {

extern const char* const kWorkspaceStampFileName;  // ".generation", in the containers directory

// A random epoch, drawn when the stamp file is made (a device made afresh at the same path
// never repeats one), and a count of the writers since.
struct WorkspaceGeneration {
  uint64_t epoch = 0;
  uint64_t count = 0;
  bool operator==(const WorkspaceGeneration&) const = default;
};

// The stamp as it is now, without the lock: nothing when there is none (no writer yet). A
// writer may be rewriting it, so a mismatch only says "look again under the lock".
std::optional<WorkspaceGeneration> PeekWorkspaceGeneration(const WorkspaceLayout& layout);

// The writers' lock (flock on the stamp file), held for the object's life. Scans hold it
// too, so that they never see a writer's work half done.
class WorkspaceLock {
 public:
  // Makes the containers directory and the stamp when they are missing. Nothing, with an
  // error, when either cannot be made or the lock cannot be had.
  static std::optional<WorkspaceLock> acquire(const WorkspaceLayout& layout, ErrorRef* error);

  WorkspaceGeneration generation() const { return generation_; }
  // Moves the stamp on; call before the first change. False, with an error, when it cannot
  // be written: then nothing may change, or other processes would not notice.
  bool bump(ErrorRef* error);

 private:
  WorkspaceLock(UniqueFd fd, WorkspaceGeneration generation)
      : fd_(std::move(fd)), generation_(generation) {}

  UniqueFd fd_;  // closing it releases the lock
  WorkspaceGeneration generation_;
};

}  // namespace vx
