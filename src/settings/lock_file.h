// The agent's lock file "<tmp>/<host>_kova.lock": the running daemon's pid
// and start settings, read by a second invocation for -status and -stop.
#pragma once

#include <string>

#include "settings/agent_settings.h"

namespace kova {

// What kova_read_lockfile recovers from a lock file.
struct AgentLockRecord {
  std::string install_dir, data_dir, log_dir, temp_dir, remote_dir, app_data_dir, compression_command;
  std::string version, start_time, data_source, user;
  int pid = 0, port = 0, verbose = 0, priority = 0;
  int schedule_hour = 0, schedule_minute = 0, remote = 0, retain_days = 0;
  std::string server, settings_server;
};

// 1: written and locked; 0: failure, or a stale lock file was found and
// deleted; -1: a lock file exists and its agent is running.
[[nodiscard]] int kova_write_lockfile(const AgentSettings& settings);

// 1: read, at least one key recognised; 0: no key recognised (the file is
// then deleted) or an open failure other than these; -1: no such file;
// -2: permission denied.
int kova_read_lockfile(const std::string& path, AgentLockRecord& record);

// Deletes a leftover lock file (announced on stderr when verbose). Returns 1.
int kova_delete_existing_lockfile(const std::string& path, int verbose);

// 1 when another agent runs (its pid in *pid_out), 0 otherwise.
int is_kova_running(const AgentSettings& settings, int* pid_out);

// Prints the status report of the running agent. 1 when one runs, else 0.
// delete_stale 1 removes a lock file whose agent is gone. Without a usable
// lock file, only an agent of the tree at install_root counts.
int kova_status(const std::string& install_root, const std::string& lock_path, int mode, int reserved,
                int delete_stale);

// Sends the running agent SIGINT. 1: stopped or not running; 0: the signal
// could not be sent. Without a usable lock file, only an agent of the tree
// at install_root is looked for.
int kova_stop(const std::string& install_root, const std::string& lock_path, int announce);

// Free kilobytes and percent free of the file system holding `path`, as an
// unprivileged user sees it. 1, or 0 when it cannot be queried (both 0).
int check_free(const std::string& path, float* free_kb, float* percent_free);

// The free-space line of the status report, e.g. "500.000 Mb".
std::string format_free_space(float free_kb, float percent_free);

}  // namespace kova
