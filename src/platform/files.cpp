#include "platform/files.h"

#include <dirent.h>
#include <sys/statvfs.h>

#include "platform/unique.h"

namespace kova {

bool free_space_kb(const std::string& path, int64_t& out_kb) {
  struct statvfs vfs;
  if (::statvfs(path.c_str(), &vfs) != 0) return false;
  out_kb = static_cast<int64_t>(static_cast<double>(vfs.f_bavail) * static_cast<double>(vfs.f_frsize) / 1024.0);
  return true;
}

void make_directories(const std::string& path, mode_t mode) {
  for (size_t end = path.find('/', 1); ; end = path.find('/', end + 1)) {
    (void)::mkdir(path.substr(0, end).c_str(), mode);
    if (end == std::string::npos) return;
  }
}

int get_ave_data_file_size(const std::string& data_dir, int& avg_mb) {
  // Entries are stat'ed by full path, so the process's working directory
  // never changes under the rest of the request.
  UniqueDir dir(::opendir(data_dir.c_str()));
  if (!dir) return 0;
  int64_t sum_mb = 0;
  int64_t count = 0;
  while (const dirent* entry = ::readdir(dir.get())) {
    const std::string name = entry->d_name;
    struct stat st {};
    if (::stat((data_dir + "/" + name).c_str(), &st) != 0) continue;
    const size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot < 1) continue;
    if (name.compare(dot, 4, ".zud") != 0) continue;
    sum_mb += st.st_size / 1024 / 1024;
    ++count;
  }
  if (count > 0) avg_mb = static_cast<int>(sum_mb / count);
  return 1;
}

}  // namespace kova
