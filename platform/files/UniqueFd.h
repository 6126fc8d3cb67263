// Owning handles for descriptors and directory streams: closed on every path.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <utility>

namespace vx {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& o) noexcept : fd_(o.release()) {}
  UniqueFd& operator=(UniqueFd&& o) noexcept {
    reset(o.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  explicit operator bool() const { return valid(); }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

class UniqueDir {
 public:
  UniqueDir() = default;
  explicit UniqueDir(DIR* dir) : dir_(dir) {}
  UniqueDir(UniqueDir&& o) noexcept : dir_(std::exchange(o.dir_, nullptr)) {}
  UniqueDir& operator=(UniqueDir&& o) noexcept {
    reset(std::exchange(o.dir_, nullptr));
    return *this;
  }
  UniqueDir(const UniqueDir&) = delete;
  UniqueDir& operator=(const UniqueDir&) = delete;
  ~UniqueDir() { reset(); }

  DIR* get() const { return dir_; }
  explicit operator bool() const { return dir_ != nullptr; }
  void reset(DIR* dir = nullptr) {
    if (dir_) ::closedir(dir_);
    dir_ = dir;
  }

 private:
  DIR* dir_ = nullptr;
};

}  // namespace vx
