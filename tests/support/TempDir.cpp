#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace vx::test {

TempDir::TempDir(const std::string& where) {
  std::string parent = where;
  if (parent.empty()) {
    const char* tmp = std::getenv("TMPDIR");
    parent = tmp && *tmp ? tmp : "/tmp";
  }
  std::string templ = parent + "/vxtest.XXXXXX";
  if (!::mkdtemp(templ.data())) {
    ADD_FAILURE() << "mkdtemp in " << parent << " failed";
    return;
  }
  // Resolve the parent's links, so that real paths and test paths agree.
  path_ = std::filesystem::canonical(templ).string();
}

TempDir::~TempDir() {
  if (path_.empty()) return;
  std::error_code ec;
  // Give back permissions a test took away, so that everything can be removed.
  for (auto it = std::filesystem::recursive_directory_iterator(
           path_, std::filesystem::directory_options::skip_permission_denied, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    if (it->is_directory(ec) && !it->is_symlink(ec)) ::chmod(it->path().c_str(), 0755);
  }
  ::chmod(path_.c_str(), 0755);
  std::filesystem::remove_all(path_, ec);
}

std::unique_ptr<TempDir> TempDirOnAnotherFileSystem(const std::string& here, std::string* why) {
  constexpr const char* kOther = "/dev/shm";
  struct stat other {}, ours {};
  if (::stat(kOther, &other) != 0 || !S_ISDIR(other.st_mode)) {
    *why = std::string(kOther) + " is not a directory here";
    return nullptr;
  }
  if (::stat(here.c_str(), &ours) != 0 || ours.st_dev == other.st_dev) {
    *why = std::string(kOther) + " is on the same file system as " + here;
    return nullptr;
  }
  // Only making a directory tells: root passes every access check, even on a file system
  // mounted read-only.
  std::string probe = std::string(kOther) + "/vxprobe.XXXXXX";
  if (!::mkdtemp(probe.data())) {
    *why = std::string("cannot make a directory in ") + kOther + ": " + std::strerror(errno);
    return nullptr;
  }
  ::rmdir(probe.c_str());
  return std::make_unique<TempDir>(kOther);
}

void WriteFile(const std::string& path, const std::string& content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream out(path, std::fstream::binary | std::fstream::trunc);
  out << content;
  ASSERT_TRUE(out.good()) << "cannot write " << path;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::fstream::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

void MakeDirs(const std::string& path) {
  std::error_code ec;
  std::filesystem::create_directories(path, ec);
  ASSERT_FALSE(ec) << "cannot create " << path << ": " << ec.message();
}

void MakeSymlink(const std::string& target, const std::string& linkPath) {
  ASSERT_EQ(::symlink(target.c_str(), linkPath.c_str()), 0) << "symlink " << linkPath;
}

bool Exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

bool RunningAsRoot() { return ::geteuid() == 0; }

}  // namespace vx::test
