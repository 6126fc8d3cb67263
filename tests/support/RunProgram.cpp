#include "support/RunProgram.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/UniqueFd.h"

extern char** environ;

namespace vx::test {
namespace {

struct Pipe {
  UniqueFd read;
  UniqueFd write;
  bool open() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return false;
    read.reset(fds[0]);
    write.reset(fds[1]);
    return true;
  }
};

std::vector<std::string> ChildEnvironment(const RunOptions& options) {
  std::map<std::string, std::string> variables;
  if (options.inheritEnvironment) {
    for (char** e = environ; e && *e; ++e) {
      const std::string entry = *e;
      const size_t equals = entry.find('=');
      if (equals == std::string::npos) continue;
      variables[entry.substr(0, equals)] = entry.substr(equals + 1);
    }
  }
  for (const auto& [name, value] : options.environment) {
    if (value) {
      variables[name] = *value;
    } else {
      variables.erase(name);
    }
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

// Only async-signal-safe calls from here to exec: the parent may have other threads.
[[noreturn]] void BecomeChild(const std::string& program, char** argv, char** envp,
                              const RunOptions& options, Pipe& in, Pipe& out, Pipe& err) {
  if (::dup2(in.read.get(), STDIN_FILENO) < 0 || ::dup2(out.write.get(), STDOUT_FILENO) < 0 ||
      ::dup2(err.write.get(), STDERR_FILENO) < 0) {
    _exit(127);
  }
  if (options.workingDirectory && ::chdir(options.workingDirectory->c_str()) != 0) _exit(127);
  ::execve(program.c_str(), argv, envp);
  const char message[] = "RunProgram: exec failed\n";
  ssize_t ignored = ::write(STDERR_FILENO, message, sizeof message - 1);
  (void)ignored;
  _exit(127);
}

// Feeds the input and drains both outputs together, so that a child filling one pipe never
// blocks while we wait on the other. False when the deadline passed first.
bool Exchange(Pipe& in, Pipe& out, Pipe& err, const std::string& input, RunResult& result,
              std::chrono::steady_clock::time_point deadline) {
  size_t written = 0;
  if (input.empty()) in.write.reset();
  char buffer[65536];
  while (out.read || err.read) {
    pollfd fds[3];
    nfds_t n = 0;
    auto watch = [&](UniqueFd& fd, short events) {
      if (fd) fds[n++] = pollfd{fd.get(), events, 0};
    };
    watch(out.read, POLLIN);
    watch(err.read, POLLIN);
    watch(in.write, POLLOUT);
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    if (::poll(fds, n, static_cast<int>(left.count())) < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    for (nfds_t i = 0; i < n; ++i) {
      if (!fds[i].revents) continue;
      if (fds[i].fd == in.write.get()) {
        const ssize_t w = ::write(in.write.get(), input.data() + written, input.size() - written);
        if (w > 0) written += static_cast<size_t>(w);
        if (w < 0 || written == input.size()) in.write.reset();
        continue;
      }
      UniqueFd& source = fds[i].fd == out.read.get() ? out.read : err.read;
      const ssize_t r = ::read(source.get(), buffer, sizeof buffer);
      if (r > 0) {
        (&source == &out.read ? result.out : result.err).append(buffer, static_cast<size_t>(r));
      } else if (r == 0 || errno != EINTR) {
        source.reset();
      }
    }
  }
  return true;
}

}  // namespace

std::string RunResult::describe() const {
  std::string what = !started    ? "not started"
                     : timedOut  ? "timed out"
                     : signal    ? "killed by signal " + std::to_string(signal)
                                 : "exit status " + std::to_string(exitStatus);
  return what + "\n--- stdout ---\n" + out + "--- stderr ---\n" + err;
}

RunResult RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                     const RunOptions& options) {
  RunResult result;
  std::vector<std::string> args{program};
  args.insert(args.end(), arguments.begin(), arguments.end());
  std::vector<std::string> environment = ChildEnvironment(options);
  std::vector<char*> argv = Pointers(args);
  std::vector<char*> envp = Pointers(environment);

  Pipe in, out, err;
  if (!in.open() || !out.open() || !err.open()) {
    result.err = std::string("RunProgram: pipe: ") + std::strerror(errno);
    return result;
  }
  const pid_t pid = ::fork();
  if (pid < 0) {
    result.err = std::string("RunProgram: fork: ") + std::strerror(errno);
    return result;
  }
  if (pid == 0) BecomeChild(program, argv.data(), envp.data(), options, in, out, err);

  result.started = true;
  in.read.reset();
  out.write.reset();
  err.write.reset();
  // A child that exits early must not kill us with SIGPIPE while we feed it.
  struct sigaction ignore {}, previous {};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &ignore, &previous);
  const auto deadline = std::chrono::steady_clock::now() + options.timeout;
  if (!Exchange(in, out, err, options.input, result, deadline)) {
    result.timedOut = true;
    ::kill(pid, SIGKILL);
  }
  ::sigaction(SIGPIPE, &previous, nullptr);

  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  return result;
}

}  // namespace vx::test
