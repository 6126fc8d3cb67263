// Scratch space and spawned tools for the benchmarks.
#pragma once

#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace vx::bench {

// `argv` as exec wants it: pointers into the strings, ended by a null pointer. The strings
// must outlive the result.
inline std::vector<char*> ExecArguments(const std::vector<std::string>& argv) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  return args;
}

// A directory under /tmp, removed with everything in it when the benchmark binary ends.
class ScratchDir {
 public:
  ScratchDir() {
    std::string templ = "/tmp/vxbench.XXXXXX";
    if (::mkdtemp(templ.data())) path_ = templ;
  }
  ~ScratchDir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Runs a shell command and returns the first number it prints (0 when it prints none).
inline unsigned long long RunForNumber(const std::string& command) {
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
  unsigned long long value = 0;
  if (pipe && std::fscanf(pipe.get(), "%llu", &value) != 1) value = 0;
  return value;
}

// Runs a shell command and returns its first word of output.
inline std::string RunForWord(const std::string& command) {
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
  char word[256] = {};
  if (!pipe || std::fscanf(pipe.get(), "%255s", word) != 1) return {};
  return word;
}

}  // namespace vx::bench
