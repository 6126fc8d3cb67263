// A temporary directory for one test, removed with everything in it afterwards.
#pragma once

#include <memory>
#include <string>

namespace vx::test {

class TempDir {
 public:
  // Under $TMPDIR (or /tmp); `where` picks another parent, such as /dev/shm.
  explicit TempDir(const std::string& where = "");
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& relative) const { return path_ + "/" + relative; }

 private:
  std::string path_;
};

// A temporary directory on another file system than `here` (in memory, under /dev/shm), or
// nothing with `*why` set where the machine offers none writable: the test skips then.
std::unique_ptr<TempDir> TempDirOnAnotherFileSystem(const std::string& here, std::string* why);

// Small file-system helpers for arranging a tree; each aborts the test on failure.
void WriteFile(const std::string& path, const std::string& content);
std::string ReadFile(const std::string& path);
void MakeDirs(const std::string& path);
void MakeSymlink(const std::string& target, const std::string& linkPath);
bool Exists(const std::string& path);  // lstat: a dangling link exists

// True when the process runs as root; tests that need an ordinary user skip then.
bool RunningAsRoot();

}  // namespace vx::test
