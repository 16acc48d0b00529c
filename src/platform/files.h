// Whether a path names something, as stat(2) and lstat(2) see it.
#pragma once

#include <sys/stat.h>

#include <string>

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

}  // namespace kova
