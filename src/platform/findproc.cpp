#include "platform/findproc.h"

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/log.h"
#include "platform/files.h"
#include "platform/privileges.h"
#include "platform/proc_table.h"
#include "platform/unique.h"

namespace kova {
namespace {

// The test of the probe and the scan alike: the record's short name occurs
// inside the name asked for, not the other way round, so "vorn_monitor"
// answers for "vorn_monitor_es".
bool matches_pid(int got, const ProcInfo& info, unsigned long long zone, const std::string& name, int pid) {
  return got > 0 && in_zone(info, zone) && info.pid == pid && name.find(info.fname) != std::string::npos;
}

UniqueFd open_read_only(const std::string& path, int flags = 0) {
  return UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | flags));
}

// Reads the record of every process in /proc and hands it to `visit`
// (directory, read_proc_info's result or 0 when the record could not be
// opened, the record) until `visit` returns true. A record that opens but
// cannot be read goes to `read_failed` (its path, errno) first. A process
// that is gone by the time it is looked at is skipped. False, with errno
// set, when /proc cannot be opened.
template <class Visit, class ReadFailed>
bool scan_processes(Visit visit, ReadFailed read_failed) {
  UniqueDir proc(::opendir("/proc"));
  if (!proc) return false;
  while (dirent* entry = ::readdir(proc.get())) {
    if (!is_process_entry(entry->d_name)) continue;
    const std::string dir = string_printf("/proc/%s", entry->d_name);
    // Proves only that the process is still there.
    UniqueFd dir_fd = open_read_only(dir, O_DIRECTORY);
    if (!dir_fd) continue;
    const std::string path = proc_info_path(dir);
    ProcInfo info;
    int got = 0;
    if (UniqueFd fd = open_read_only(path)) {
      got = read_proc_info(fd.get(), dir, info);
      if (got < 0) read_failed(path, errno);
    }
    if (visit(dir, got, info)) break;
  }
  return true;
}

std::string real_path(const std::string& path) {
  char resolved[PATH_MAX];
  return ::realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : normal_path(path);
}

// A program's path with its directories resolved but not its own name: a
// link in the tree's bin that points elsewhere still names the tree.
std::string real_program_path(const std::string& path) {
  const std::string normal = normal_path(path);
  const size_t slash = normal.rfind('/');
  if (slash == 0 || slash == std::string::npos) return normal;
  return real_path(normal.substr(0, slash)) + normal.substr(slash);
}

}  // namespace

bool belongs_to_install(const std::string& proc_dir, const std::string& short_name, const std::string& install_root) {
  const std::string root = real_path(install_root);
  const std::string cwd = read_proc_link(proc_dir, "cwd");
  if (!cwd.empty() && path_inside(cwd, root)) return true;
  const std::string exe = read_proc_link(proc_dir, "exe");
  if (!exe.empty() && path_inside(exe, root)) return true;

  const std::vector<std::string> args = read_proc_cmdline(proc_dir);
  if (args.empty()) return false;
  // Relative to where the process runs: the best guess at where it started.
  const auto under_root = [&](const std::string& arg, bool program) {
    if (arg.empty() || (program && arg.find('/') == std::string::npos)) return false;
    const std::string path = arg[0] == '/' || cwd.empty() ? arg : cwd + "/" + arg;
    return path[0] == '/' && path_inside(program ? real_program_path(path) : real_path(path), root);
  };
  // The program is the argument that bears the short name: the first one,
  // or, for a script, the script after its interpreter.
  size_t program = 0;
  const auto bears_name = [&](const std::string& arg) {
    return arg.substr(arg.rfind('/') + 1).substr(0, kShortNameMax) == short_name;
  };
  while (program < args.size() && !bears_name(args[program])) ++program;
  if (under_root(args[program < args.size() ? program : 0], true)) return true;
  for (size_t i = 1; i + 1 < args.size(); ++i)
    if (args[i] == "-rootdir" && under_root(args[i + 1], false)) return true;
  return false;
}

void findprocWriteLog(const std::string& message) { write_to_log("I-FINDPROC", message, true); }

int findproc(const std::string& name, int pid, int log) {
  const unsigned long long zone = getzoneid();
  const bool privileges_failed = priv_on() < 0;

  const std::string probe_dir = string_printf("/proc/%d", pid);
  const std::string probe_path = proc_info_path(probe_dir);
  if (UniqueFd fd = open_read_only(probe_path); !fd) {
    if (log != 0) {
      int err = errno;
      findprocWriteLog(string_printf("findproc: failed to open %s : %s, %d\n", probe_path.c_str(), std::strerror(err), err));
    }
  } else {
    ProcInfo info;
    int got = read_proc_info(fd.get(), probe_dir, info);
    // These two returns leave the privileges raised, as they always have;
    // the request child that asked ends soon after.
    if (got < 0 && log == 1) {
      int err = errno;
      findprocWriteLog(string_printf("findproc: failed to read  %s : %s, %d\n", probe_path.c_str(), std::strerror(err), err));
      return -1;
    }
    if (matches_pid(got, info, zone, name, pid)) {
      if (log == 1)
        findprocWriteLog(string_printf("findproc : match %s:%d  to  %s:%d\n", name.c_str(), pid, info.fname.c_str(), info.pid));
      return 1;
    }
  }

  // The scan can find only the pid the probe looked at; it answers when the
  // probe could not be read.
  bool found = false;
  const bool scanned = scan_processes(
      [&](const std::string&, int got, const ProcInfo& info) {
        if (!matches_pid(got, info, zone, name, pid)) return false;
        found = true;
        if (log == 1)
          findprocWriteLog(
              string_printf("findproc : match %s:%d  to  %s:%d\n", name.c_str(), pid, info.fname.c_str(), info.pid));
        return true;
      },
      [&](const std::string& path, int err) {
        if (log == 1)
          findprocWriteLog(string_printf("findproc: failed to read  %s : %s, %d\n", path.c_str(), std::strerror(err), err));
      });
  if (!scanned) {
    findprocWriteLog(string_printf("findproc: Unable to open /proc : %s\n", std::strerror(errno)));
    priv_off();
    return -1;
  }
  priv_off();
  if (!found && privileges_failed) return -1;
  return found ? 1 : 0;
}

int find_process_by_name(const std::string& name, const std::string& install_root, int skip_pid, int log) {
  const unsigned long long zone = getzoneid();
  // Without raised privileges the scan sees less; it still answers.
  (void)priv_on();

  int found = -1;
  const bool scanned = scan_processes(
      [&](const std::string& dir, int got, const ProcInfo& info) {
        // An exact comparison with a name of at most 15 characters: a
        // longer name is never found.
        if (got <= 0 || !in_zone(info, zone) || info.fname != name || info.pid == skip_pid) return false;
        if (!install_root.empty() && !belongs_to_install(dir, info.fname, install_root)) return false;
        if (log != 0) findprocWriteLog(string_printf("findproc : found  %s:%d\n", info.fname.c_str(), info.pid));
        found = info.pid;
        return true;
      },
      [&](const std::string& path, int err) {
        if (log != 0)
          findprocWriteLog(string_printf("findproc :  unable to read from %s, %s\n", path.c_str(), std::strerror(err)));
      });
  if (!scanned && log != 0)
    findprocWriteLog(string_printf("ERROR: findproc: Unable to open /proc : %s\n", std::strerror(errno)));
  priv_off();
  return found;
}

// No process has the id -1, so none is skipped.
int findproc_nopid(const std::string& name, const std::string& install_root, int log) {
  return find_process_by_name(name, install_root, -1, log);
}

}  // namespace kova
