// Process lookup: is a program running, decided each time from the process
// table, within the agent's own PID namespace only.
#pragma once

#include <string>

namespace kova {

// 1: a process with this pid runs and its short name occurs inside `name`;
// 0: not; -1: could not tell. log 1 logs matches and read failures.
int findproc(const std::string& name, int pid, int log);

// The pid of the first process whose short name equals `name`, other than
// skip_pid; -1 when none, or when the process table cannot be read.
int find_process_by_name(const std::string& name, int skip_pid, int log);

// As find_process_by_name, skipping no process.
int findproc_nopid(const std::string& name, int log);

// Writes a lookup message to the agent log with the tag "I-FINDPROC".
void findprocWriteLog(const std::string& message);

}  // namespace kova
