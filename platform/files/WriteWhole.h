// Writes for the terminal and the logs. They bypass the fault seam on purpose: a fault
// injected into a run must land on the run's data, never on its report of what happened.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <string_view>

namespace vx {

// Finishes short writes and rides out EINTR; what cannot be written is dropped, since
// there is nowhere left to report it.
inline void WriteWhole(int fd, std::string_view bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

}  // namespace vx
