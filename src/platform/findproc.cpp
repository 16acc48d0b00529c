#include "platform/findproc.h"

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"
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

}  // namespace

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
  UniqueDir proc(::opendir("/proc"));
  if (!proc) {
    findprocWriteLog(string_printf("findproc: Unable to open /proc : %s\n", std::strerror(errno)));
    priv_off();
    return -1;
  }
  bool found = false;
  while (!found) {
    dirent* entry = ::readdir(proc.get());
    if (entry == nullptr) break;
    if (!is_process_entry(entry->d_name)) continue;
    const std::string dir = string_printf("/proc/%s", entry->d_name);
    // Proves only that the process is still there; one that is gone is
    // skipped.
    UniqueFd dir_fd = open_read_only(dir, O_DIRECTORY);
    if (!dir_fd) continue;
    const std::string path = proc_info_path(dir);
    ProcInfo info;
    int got = 0;
    if (UniqueFd fd = open_read_only(path)) {
      got = read_proc_info(fd.get(), dir, info);
      if (got < 0 && log == 1) {
        int err = errno;
        findprocWriteLog(string_printf("findproc: failed to read  %s : %s, %d\n", path.c_str(), std::strerror(err), err));
      }
    }
    if (matches_pid(got, info, zone, name, pid)) {
      found = true;
      if (log == 1)
        findprocWriteLog(string_printf("findproc : match %s:%d  to  %s:%d\n", name.c_str(), pid, info.fname.c_str(), info.pid));
    }
  }
  proc.reset();
  priv_off();
  if (!found && privileges_failed) return -1;
  return found ? 1 : 0;
}

int find_process_by_name(const std::string& name, int skip_pid, int log) {
  const unsigned long long zone = getzoneid();
  // Without raised privileges the scan sees less; it still answers.
  (void)priv_on();

  UniqueDir proc(::opendir("/proc"));
  if (!proc) {
    if (log != 0) findprocWriteLog(string_printf("ERROR: findproc: Unable to open /proc : %s\n", std::strerror(errno)));
    priv_off();
    return -1;
  }
  while (dirent* entry = ::readdir(proc.get())) {
    if (!is_process_entry(entry->d_name)) continue;
    const std::string dir = string_printf("/proc/%s", entry->d_name);
    UniqueFd dir_fd = open_read_only(dir, O_DIRECTORY);
    if (!dir_fd) continue;
    const std::string path = proc_info_path(dir);
    ProcInfo info;
    int got = 0;
    if (UniqueFd fd = open_read_only(path)) {
      got = read_proc_info(fd.get(), dir, info);
      if (got < 0 && log != 0)
        findprocWriteLog(string_printf("findproc :  unable to read from %s, %s\n", path.c_str(), std::strerror(errno)));
    }
    // An exact comparison with a name of at most 15 characters: a longer
    // name is never found.
    if (got > 0 && in_zone(info, zone) && info.fname == name && info.pid != skip_pid) {
      if (log != 0) findprocWriteLog(string_printf("findproc : found  %s:%d\n", info.fname.c_str(), info.pid));
      priv_off();
      return info.pid;
    }
  }
  priv_off();
  return -1;
}

// No process has the id -1, so none is skipped.
int findproc_nopid(const std::string& name, int log) { return find_process_by_name(name, -1, log); }

}  // namespace kova
