// Move-only owners of descriptors, directory streams and stdio streams.
// Destructors close quietly; close() reports the result where it matters.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

namespace kova {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
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
  // Closes now; returns close(2)'s result (0 when nothing was open).
  int close() {
    int fd = release();
    return fd >= 0 ? ::close(fd) : 0;
  }

 private:
  int fd_ = -1;
};

class UniqueDir {
 public:
  UniqueDir() = default;
  explicit UniqueDir(DIR* dir) : dir_(dir) {}
  UniqueDir(UniqueDir&& other) noexcept : dir_(std::exchange(other.dir_, nullptr)) {}
  UniqueDir& operator=(UniqueDir&& other) noexcept {
    if (this != &other) {
      reset();
      dir_ = std::exchange(other.dir_, nullptr);
    }
    return *this;
  }
  UniqueDir(const UniqueDir&) = delete;
  UniqueDir& operator=(const UniqueDir&) = delete;
  ~UniqueDir() { reset(); }

  DIR* get() const { return dir_; }
  explicit operator bool() const { return dir_ != nullptr; }
  void reset() {
    if (dir_ != nullptr) ::closedir(dir_);
    dir_ = nullptr;
  }

 private:
  DIR* dir_ = nullptr;
};

// A stream over the entries of the directory open as `dir_fd`, which stays
// the caller's (the stream reads a close-on-exec duplicate). Empty, with
// errno from the step that failed, when `dir_fd` is -1 or a step fails.
inline UniqueDir list_directory(int dir_fd) {
  UniqueFd copy(dir_fd >= 0 ? ::fcntl(dir_fd, F_DUPFD_CLOEXEC, 0) : -1);
  DIR* dir = copy ? ::fdopendir(copy.get()) : nullptr;
  if (dir != nullptr) {
    copy.release();
  } else {
    const int error = errno;
    copy.reset();
    errno = error;
  }
  return UniqueDir(dir);
}

class UniqueFile {
 public:
  UniqueFile() = default;
  explicit UniqueFile(std::FILE* file) : file_(file) {}
  UniqueFile(UniqueFile&& other) noexcept : file_(std::exchange(other.file_, nullptr)) {}
  UniqueFile& operator=(UniqueFile&& other) noexcept {
    if (this != &other) {
      reset();
      file_ = std::exchange(other.file_, nullptr);
    }
    return *this;
  }
  UniqueFile(const UniqueFile&) = delete;
  UniqueFile& operator=(const UniqueFile&) = delete;
  ~UniqueFile() { reset(); }

  std::FILE* get() const { return file_; }
  explicit operator bool() const { return file_ != nullptr; }
  void reset() {
    if (std::FILE* f = std::exchange(file_, nullptr)) std::fclose(f);
  }
  // Closes now; returns fclose(3)'s result, so a failed final flush is seen.
  int close() {
    std::FILE* f = std::exchange(file_, nullptr);
    return f != nullptr ? std::fclose(f) : 0;
  }

 private:
  std::FILE* file_ = nullptr;
};

}  // namespace kova
