// Every stand-in's record of the descriptors it was started with, so that
// tests can check that the agent passes on none of its own: with
// KOVA_STANDIN_FDS naming a directory, a stand-in writes "<program>.fds"
// there, its open descriptors in ascending order ("0 1 2").
#pragma once

#include <dirent.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace standin {

inline void record_descriptors(const char* program) {
  const char* dir = std::getenv("KOVA_STANDIN_FDS");
  if (dir == nullptr || *dir == '\0') return;
  std::vector<int> open;
  if (DIR* fds = opendir("/proc/self/fd")) {
    while (const dirent* entry = readdir(fds)) {
      if (entry->d_name[0] == '.') continue;
      const int fd = std::atoi(entry->d_name);
      if (fd != dirfd(fds)) open.push_back(fd);
    }
    closedir(fds);
  }
  std::sort(open.begin(), open.end());
  std::string text;
  for (int fd : open) {
    if (!text.empty()) text += ' ';
    text += std::to_string(fd);
  }
  std::ofstream(std::string(dir) + "/" + program + ".fds") << text;
}

}  // namespace standin
