#include "support/RunProgram.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/files/UniqueFd.h"

extern char** environ;

namespace vx::test {
namespace {

// The child's standard streams are memory files rather than pipes: a child can then never
// block on a full pipe while we wait for it, and an early exit cannot raise SIGPIPE in us.
UniqueFd MemoryFile(const std::string& content) {
  UniqueFd fd(::memfd_create("RunProgram", MFD_CLOEXEC));
  const auto size = static_cast<ssize_t>(content.size());
  if (fd && ::pwrite(fd.get(), content.data(), content.size(), 0) != size) fd.reset();
  return fd;
}

std::string ReadAll(const UniqueFd& fd) {
  std::string text;
  char buffer[65536];
  for (ssize_t r; (r = ::pread(fd.get(), buffer, sizeof buffer, text.size())) > 0;) {
    text.append(buffer, static_cast<size_t>(r));
  }
  return text;
}

std::vector<std::string> ChildEnvironment(const RunOptions& options) {
  std::map<std::string, std::string> variables;
  for (char** e = environ; options.inheritEnvironment && e && *e; ++e) {
    const std::string entry = *e;
    if (const size_t equals = entry.find('='); equals != std::string::npos) {
      variables[entry.substr(0, equals)] = entry.substr(equals + 1);
    }
  }
  for (const auto& [name, value] : options.environment) {
    variables.erase(name);
    if (value) variables.emplace(name, *value);
  }
  std::vector<std::string> out;
  for (const auto& [name, value] : variables) out.push_back(name + "=" + value);
  return out;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> out;
  for (std::string& t : texts) out.push_back(t.data());
  out.push_back(nullptr);
  return out;
}

// False when the timeout passed before the child ended.
bool AwaitExit(pid_t pid, std::chrono::milliseconds timeout) {
  const UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  if (!process) return true;  // the caller's waitpid blocks instead
  pollfd ended{process.get(), POLLIN, 0};
  // An interruption restarts the whole wait: the timeout only guards against a hung child.
  int ready;
  while ((ready = ::poll(&ended, 1, static_cast<int>(timeout.count()))) < 0 && errno == EINTR) {
  }
  return ready != 0;
}

}  // namespace

std::string RunResult::describe() const {
  std::string what = !started   ? "not started"
                     : timedOut ? "timed out"
                     : signal   ? "killed by signal " + std::to_string(signal)
                                : "exit status " + std::to_string(exitStatus);
  return what + "\n--- stdout ---\n" + out + "--- stderr ---\n" + err;
}

RunResult RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                     const RunOptions& options) {
  RunResult result;
  std::vector<std::string> args{program};
  args.insert(args.end(), arguments.begin(), arguments.end());
  std::vector<std::string> environment = ChildEnvironment(options);
  std::vector<char*> argv = Pointers(args), envp = Pointers(environment);

  const UniqueFd in = MemoryFile(options.input), out = MemoryFile(""), err = MemoryFile("");
  if (!in || !out || !err) {
    result.err = std::string("RunProgram: memfd: ") + std::strerror(errno);
    return result;
  }
  // Spawning rather than forking: the parent may have other threads, and a program or
  // working directory that cannot be used comes back as an error here.
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in.get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err.get(), STDERR_FILENO);
  if (options.workingDirectory) {
    posix_spawn_file_actions_addchdir_np(&actions, options.workingDirectory->c_str());
  }
  pid_t pid = -1;
  const int spawned =
      ::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    result.err = "RunProgram: " + program + ": " + std::strerror(spawned);
    return result;
  }

  result.started = true;
  if (!AwaitExit(pid, options.timeout)) {
    result.timedOut = true;
    ::kill(pid, SIGKILL);
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  result.out = ReadAll(out);
  result.err = ReadAll(err);
  return result;
}

}  // namespace vx::test
