#include "platform/system_facts.h"

#include <dirent.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string_view>

#include "base/log.h"
#include "platform/unique.h"

namespace kova {

int processor_count() { return static_cast<int>(sysconf(_SC_NPROCESSORS_CONF)); }

long long physical_memory_bytes() {
  long pages = sysconf(_SC_PHYS_PAGES);
  long page_size = sysconf(_SC_PAGESIZE);
  if (pages <= 0 || page_size <= 0) return 0;
  return static_cast<long long>(pages) * page_size;
}

bool is_whole_disk(const char* name) {
  std::string_view entry(name);
  if (entry.empty() || entry[0] == '.') return false;
  for (std::string_view virtual_prefix : {"loop", "ram", "zram", "dm-"})
    if (entry.starts_with(virtual_prefix)) return false;
  return true;
}

int disk_count(const char* block_dir) {
  UniqueDir dir(::opendir(block_dir));
  if (!dir) return 0;
  int count = 0;
  while (dirent* entry = ::readdir(dir.get()))
    if (is_whole_disk(entry->d_name)) ++count;
  return count;
}

std::string platform_name(const char* product_file) {
  UniqueFile file(std::fopen(product_file, "re"));
  char line[256] = {};
  if (file && std::fgets(line, sizeof line, file.get()) != nullptr) {
    std::string_view name(line);
    while (!name.empty() && (name.back() == '\n' || name.back() == ' ')) name.remove_suffix(1);
    if (!name.empty()) return std::string(name);
  }
  utsname uts;
  if (::uname(&uts) != 0) return {};
  return uts.machine;
}

std::string host_serial() {
  // gethostid's value is 32 bits wide even where long is 64.
  return string_printf("%08lx", static_cast<unsigned long>(gethostid()) & 0xffffffffUL);
}

}  // namespace kova
