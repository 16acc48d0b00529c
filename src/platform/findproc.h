// Process lookup: is a program running, decided each time from the process
// table, within the agent's own PID namespace only. The searches by name
// count a process only when it belongs to the install tree asked about, so
// that one tree's agent never reports or signals another tree's programs.
#pragma once

#include <string>

namespace kova {

// 1: a process with this pid runs and its short name occurs inside `name`;
// 0: not; -1: could not tell. log 1 logs matches and read failures.
int findproc(const std::string& name, int pid, int log);

// The pid of the first process of the install tree at install_root whose
// short name equals `name`, other than skip_pid; -1 when none, or when the
// process table cannot be read. An empty install_root takes a process of
// any tree: for programs of the host rather than of an install.
int find_process_by_name(const std::string& name, const std::string& install_root, int skip_pid, int log);

// As find_process_by_name, skipping no process.
int findproc_nopid(const std::string& name, const std::string& install_root, int log);

// True when the process whose directory is proc_dir ("/proc/42"), of short
// name short_name, belongs to the install tree at install_root: its
// program (for an interpreted script the script, the argument that bears
// its name), or the value of its -rootdir argument, names a path under the
// root, or its working directory lies under it. Relative arguments are
// taken from its working directory.
bool belongs_to_install(const std::string& proc_dir, const std::string& short_name, const std::string& install_root);

// Writes a lookup message to the agent log with the tag "I-FINDPROC".
void findprocWriteLog(const std::string& message);

}  // namespace kova
