// The process table as the process file system shows it: of each process
// its id, its short name and its zone. A zone is a PID namespace, named by
// the inode of its /proc/<pid>/ns/pid link.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kova {

// The calling process's zone; 0 when its link cannot be read.
unsigned long long getzoneid();

// The most of a program's name that the process table keeps.
inline constexpr std::size_t kShortNameMax = 15;

// The facts the lookups use of one process.
struct ProcInfo {
  int pid = 0;
  std::string fname;            // short executable name, at most 15 characters
  unsigned long long zone = 0;  // 0: the process's link could not be read
};

// True when a /proc entry is a process's directory: only digits. The
// others ("self", "net", "meminfo", ...) are the kernel's own files.
bool is_process_entry(const char* name);

// The record file of the process whose directory is proc_dir ("/proc/42").
std::string proc_info_path(const std::string& proc_dir);

// Fills info from fd, open on proc_info_path(proc_dir), with a single read,
// and its zone from proc_dir. 1: filled; 0: nothing read (no bytes, a
// record of another form, or a process that has ended and awaits reaping);
// -1: the read failed, errno says why.
[[nodiscard]] int read_proc_info(int fd, const std::string& proc_dir, ProcInfo& info);

// Parses "pid (name) state ...": the name is what lies between the first
// "(" and the last ")" (it may hold both), cut to 15 characters. Leaves
// info.zone alone; false when the record has no such form.
[[nodiscard]] bool parse_proc_info(std::string_view record, ProcInfo& info);

// True when the process lies in `zone`. A process whose link could not be
// read counts as lying in it.
bool in_zone(const ProcInfo& info, unsigned long long zone);

// The command line of the process whose directory is proc_dir, one entry
// an argument; empty when it cannot be read (a process gone, a kernel
// thread).
std::vector<std::string> read_proc_cmdline(const std::string& proc_dir);

// The target of one of the process's links ("cwd", "exe"); "" when it
// cannot be read (a process gone, or another account's without the
// privilege to look).
std::string read_proc_link(const std::string& proc_dir, const char* link);

}  // namespace kova
