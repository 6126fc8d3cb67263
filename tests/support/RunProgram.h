// Runs a program as a child process and collects what it printed and how it ended, for
// tests that drive the built programs from outside.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vx::test {

struct RunOptions {
  // Changes to the inherited environment: a value sets the variable, nullopt removes it.
  std::map<std::string, std::optional<std::string>> environment;
  bool inheritEnvironment = true;
  std::optional<std::string> workingDirectory;
  std::string input;  // given on standard input, which is then closed
  // The child is killed (SIGKILL) when it runs longer.
  std::chrono::milliseconds timeout = std::chrono::seconds(120);
};

struct RunResult {
  bool started = false;   // false: the program could not be run at all (see `out`/`err`)
  int exitStatus = -1;    // when it exited
  int signal = 0;         // when a signal ended it
  bool timedOut = false;
  std::string out;
  std::string err;

  bool exited() const { return started && signal == 0 && exitStatus >= 0; }
  // For failure messages: status, then both outputs.
  std::string describe() const;
};

// `arguments` excludes the program itself; argv[0] is `program`.
RunResult RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                     const RunOptions& options = {});

}  // namespace vx::test
