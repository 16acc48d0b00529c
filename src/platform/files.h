// File-system facts and helpers that several subsystems share.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/unique.h"

namespace kova {

// True when `path` names an existing file or directory (links followed).
inline bool file_exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

// True when `path` itself exists, even as a link whose target is missing:
// the test for directories an admin configured (a dangling data link still
// names the directory the admin meant).
inline bool path_exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

// Kilobytes available to unprivileged users on the file system holding
// `path`; false when it cannot be queried.
[[nodiscard]] bool free_space_kb(const std::string& path, int64_t& out_kb);

// Creates `path` and its missing parents with `mode` (less the umask), as
// mkdir -p does. Directories that already exist keep their mode.
void make_directories(const std::string& path, mode_t mode);

// The average size in whole megabytes of the collector's data files (names
// whose last extension begins ".zud") in data_dir. Returns 1 and leaves
// avg_mb untouched when there are none; 0 when the directory cannot be
// read.
[[nodiscard]] int get_ave_data_file_size(const std::string& data_dir, int& avg_mb);

// Replaces the file at `path` with `content` so that a reader sees either
// the old file or the whole new one, never a part: the text is written to a
// temporary file in the same directory and renamed over `path`. A new file
// gets `mode` less the umask. Returns 0, or errno of the step that failed
// (the temporary file is then removed and `path` left as it was).
[[nodiscard]] int replace_file(const std::string& path, std::string_view content, mode_t mode = 0666);

// True when `path` is `root` or lies below it. Both are made absolute and
// freed of ".", ".." and repeated "/" first; links are not followed (pass
// resolved_path() results to compare what they point at).
// `path` made absolute against the working directory and freed, by its
// text alone, of "." and empty components and of each ".." with the
// component before it (never above "/"); "" when it cannot be.
std::string normal_path(const std::string& path);

[[nodiscard]] bool path_inside(const std::string& path, const std::string& root);

// `path` with every link resolved, as far as it exists; the part that does
// not exist yet is appended as written, less ".." and ".".
std::string resolved_path(const std::string& path);

// Creates the file at `path` with `content`, whole or not at all: written to
// a temporary file first, then linked into place, which fails with EEXIST
// when `path` exists. Returns 0 or errno.
[[nodiscard]] int create_file_exclusive(const std::string& path, std::string_view content, mode_t mode);

// An exclusive advisory lock on a work file's name, held for the object's
// lifetime: requests that make, send and remove the same work file take
// turns, so that none sends, truncates or deletes another's. The locks
// live in one file per directory, ".kova_work.lock", each on a byte chosen
// by the name, so that requests for other names go on side by side (two
// names that land on one byte merely take turns). Where that file cannot
// be opened (a directory the account may not write) nothing is locked.
class WorkFileLock {
 public:
  WorkFileLock() = default;
  // Waits for the turn of the file at `path`.
  explicit WorkFileLock(const std::string& path);
  bool held() const { return fd_.valid(); }

 private:
  UniqueFd fd_;
};

// Copies the file `from` to `to`, which must not exist yet, with the same
// permission bits; the copy appears whole or not at all. Returns 0 or errno.
[[nodiscard]] int copy_file_exclusive(const std::string& from, const std::string& to);

}  // namespace kova
