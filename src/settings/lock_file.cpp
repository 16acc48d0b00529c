#include "settings/lock_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "platform/findproc.h"
#include "base/clock.h"
#include "base/log.h"
#include "base/version.h"
#include "platform/files.h"
#include "platform/unique.h"
#include "settings/command_line.h"
#include "settings/keyfile.h"

namespace kova {
namespace {

using LockRow = KeyField<AgentLockRecord>;
using L = AgentLockRecord;

// Keys in the order they are tried; PRIORITY~ is written but not read back.
constexpr LockRow kLockKeys[] = {
    int_key("PID~", &L::pid),
    text_key("STARTED~", &L::start_time),
    text_key("VERSION~", &L::version),
    text_key("INSTALL_DIR~", &L::install_dir),
    {"DATA_DIR~", KeyValue::kText, nullptr, &L::data_dir, nullptr, true},
    text_key("APP_DATA_DIR~", &L::app_data_dir),
    text_key("COMPRESSION_COMMAND~", &L::compression_command),
    text_key("LOG_DIR~", &L::log_dir),
    text_key("REMOTE_DIR~", &L::remote_dir),
    text_key("TEMP_DIR~", &L::temp_dir),
    int_key("VERBOSE~", &L::verbose),
    int_key("KOVAAGENT_PORT~", &L::port),
    text_key("KOVASERVER~", &L::server),
    text_key("SETTINGS_SERVER~", &L::settings_server),
    text_key("USER~", &L::user),
    text_key("DATA_SOURCE~", &L::data_source),
};

// Releases 5.6 to 5.9 predate the lock file; there the process table alone
// tells whether an agent runs without one.
bool release_without_lock_file() {
  struct utsname uts;
  if (::uname(&uts) != 0) return false;
  std::string_view release = uts.release;
  for (const char* old : {"5.6", "5.7", "5.8", "5.9"})
    if (release.find(old) != std::string_view::npos) return true;
  return false;
}

void print_report(const AgentLockRecord& r) {
  std::printf("\nStatus\t\t\t\t:\t%s \n", "Running");
  std::printf("Pid\t\t\t\t:\t%d\n", r.pid);
  std::printf("Data source\t\t\t:\t%s \n", r.data_source.c_str());
  std::printf("Start time\t\t\t:\t%s \n", r.start_time.c_str());
  std::printf("Install directory\t\t:\t%s\n", r.install_dir.c_str());
  std::printf("Log file directory\t\t:\t%s\n", r.log_dir.c_str());
  if (r.remote == 1) {
    std::printf("\n");
    std::printf("Remote\t\t\t\t:\tOn\n");
    std::printf("Remote schedule\t\t\t:\t%02d:%02d\n", r.schedule_hour, r.schedule_minute);
    std::printf("Remote directory\t\t:\t%s\n", r.remote_dir.c_str());
    std::printf("Retain days \t\t\t:\t%d\n", r.retain_days);
    std::printf("\n");
  } else {
    std::printf("KOVAServer\t\t\t:\t%s\n", r.server.c_str());
    if (r.settings_server.compare(0, 7, "0.0.0.0") != 0)
      std::printf("Settings Server\t\t\t:\t%s\n", r.settings_server.c_str());
    std::printf("Port\t\t\t\t:\t%d\n", r.port);
  }
  std::printf(r.verbose == 1 ? "Verbose logging\t\t\t:\tOn\n" : "Verbose logging\t\t\t:\tOff\n");
  if (r.priority != 0) std::printf("Priority\t\t\t:\t%d\n", r.priority);
  std::printf("\n");
  std::printf("App Data directory\t\t:\t%s\n", r.app_data_dir.c_str());
  std::printf("Compression Command\t\t:\t%s\n", r.compression_command.c_str());
  std::string data_dir;
  if (kova_resolve_softlink(r.data_dir, data_dir, 0) != 1) data_dir = r.data_dir;
  std::printf("Data directory\t\t\t:\t%s\n", data_dir.c_str());
  float free_kb = 0, percent = 0;
  if (check_free(data_dir, &free_kb, &percent) == 1) {
    std::printf("%s", format_free_space(free_kb, percent).c_str());
    std::printf("data-collection\n");
  }
}

}  // namespace

std::string format_free_space(float free_kb, float percent_free) {
  const char* unit = "Kb";
  float value = free_kb;
  if (free_kb >= 1000) {
    float mb = free_kb / 1024;
    if (mb < 1000) {
      unit = "Mb";
      value = mb;
    } else if (mb / 1024 < 1000) {
      unit = "Gb";
      value = mb / 1024;
    } else {
      unit = "Mb";  // beyond 999 Gb the figure stays in kilobytes, labelled Mb
    }
  }
  if (std::strcmp(unit, "Kb") == 0)
    return string_printf("\nFree space on filesystem of\t:\t%7.0f %s ( %0.2f%% free).\n", value, unit, percent_free);
  return string_printf("\nFree space on filesystem of\t:\t%7.3f %s ( %0.2f%% free).\n", value, unit, percent_free);
}

int check_free(const std::string& path, float* free_kb, float* percent_free) {
  *free_kb = 0;
  *percent_free = 0;
  struct statvfs vfs;
  if (::statvfs(path.c_str(), &vfs) != 0) return 0;
  unsigned long long available = vfs.f_bavail;
  unsigned long long used = vfs.f_blocks - vfs.f_bfree;
  *free_kb = static_cast<float>((available * vfs.f_frsize) >> 10);
  if (available + used > 0)
    *percent_free = static_cast<float>(static_cast<double>(available) * 100.0 / static_cast<double>(available + used));
  return 1;
}

int kova_read_lockfile(const std::string& path, AgentLockRecord& record) {
  int error = 0;
  const int matched = read_key_file<AgentLockRecord>(path, kLockKeys, record, error);
  if (matched < 0) {
    if (error == ENOENT) return -1;
    if (error == EACCES) return -2;
    return 0;
  }
  if (matched == 0) {
    ::unlink(path.c_str());
    return 0;
  }
  return 1;
}

int kova_delete_existing_lockfile(const std::string& path, int verbose) {
  if (file_exists(path)) {
    if (verbose) std::fprintf(stderr, "KOVA-I-DELLOCK: found old lockfile, deleting  %s \n", path.c_str());
    ::unlink(path.c_str());
  }
  return 1;
}

int is_kova_running(const AgentSettings& settings, int* pid_out) {
  *pid_out = -1;
  if (!file_exists(settings.agent_lock_path)) {
    if (!release_without_lock_file()) return 0;
    int pid = find_process_by_name(kProgramName, settings.install_root, ::getpid(), 0);
    if (pid <= 0) return 0;
    *pid_out = pid;
    return 1;
  }
  AgentLockRecord record;
  int read = kova_read_lockfile(settings.agent_lock_path, record);
  if (read != 1) return read;
  int running = findproc(kProgramName, record.pid, 0);
  if (running > 0) *pid_out = record.pid;
  return running;
}

int kova_status(const std::string& install_root, const std::string& lock_path, int /*mode*/, int /*reserved*/,
                int delete_stale) {
  AgentLockRecord record;
  int read = kova_read_lockfile(lock_path, record);
  if (read == 0) std::fprintf(stderr, "%s , unable to read lockfile, %s \n", kProgramName, lock_path.c_str());
  if (read == -2) {
    std::fprintf(stderr, "%s , unable to read lockfile, %s, permission denied\n", kProgramName, lock_path.c_str());
    return 0;
  }

  int found_pid = -1;
  int running;
  if (read == 1) {
    running = findproc(kProgramName, record.pid, 0);
  } else {
    found_pid = find_process_by_name(kProgramName, install_root, ::getpid(), 0);
    running = found_pid > 0 ? 1 : 0;
  }

  if (running == -1 && read == 0) {
    std::fprintf(stderr, "insufficient privilege to open /proc for status, proc_owner required\n");
    return 0;
  }
  if (running == 0 && read < 1) {
    std::printf("%s is not running.\n", kProgramName);
    return 0;
  }
  if (running == 0 && read == 1) {
    if (delete_stale == 1) ::unlink(lock_path.c_str());
    found_pid = find_process_by_name(kProgramName, install_root, ::getpid(), 0);
    if (found_pid > 0) {
      std::fprintf(stderr, "%s: unable to get statistics, lockfile missing, %s\n", kProgramName, lock_path.c_str());
      std::fprintf(stderr, "%s: running as pid %d \n", kProgramName, found_pid);
      return 1;
    }
    std::printf("%s is not running.\n", kProgramName);
    return 0;
  }
  if (running == 1 && read < 1) {
    std::fprintf(stderr, "%s: unable to open lockfile, %s\n", kProgramName, lock_path.c_str());
    if (found_pid > 0)
      std::fprintf(stderr, "%s: running as pid %d \n", kProgramName, found_pid);
    else
      std::fprintf(stderr, "%s: running unknown pid \n", kProgramName);
    return 1;
  }
  if (running != 1 || read != 1) {
    std::printf("%s is not running.\n", kProgramName);
    return 0;
  }
  print_report(record);
  return 1;
}

int kova_stop(const std::string& install_root, const std::string& lock_path, int announce) {
  AgentLockRecord record;
  int read = kova_read_lockfile(lock_path, record);
  if (read == 0) std::fprintf(stderr, "%s , unable to read lockfile, %s \n", kProgramName, lock_path.c_str());

  int pid;
  int running;
  if (read == 1) {
    pid = record.pid;
    running = findproc(kProgramName, pid, 0);
  } else {
    pid = find_process_by_name(kProgramName, install_root, ::getpid(), 0);
    running = pid > 0 ? 1 : 0;
  }
  if (running != 1) {
    std::printf("\n%s is not running\n", kProgramName);
    return 1;
  }
  if (announce == 1) std::printf("\nStopping %s (pid %d)\n", kProgramName, pid);
  if (::kill(pid, SIGINT) != 0) {
    std::fprintf(stderr, "Fatal: Unable to kill pid %d \n", pid);
    return 0;
  }
  return 1;
}

int kova_write_lockfile(const AgentSettings& s) {
  std::time_t now = clock_now();
  char stamp[64] = {};
  ctime_r(&now, stamp);
  if (size_t n = std::strlen(stamp); n > 0 && stamp[n - 1] == '\n') stamp[n - 1] = '\0';

  const std::string& path = s.agent_lock_path;
  if (file_exists(path)) {
    if (kova_status(s.install_root, path, 2, 0, s.use_lock) == 1) return -1;
    std::fprintf(stderr, "KOVA-I-DELLOCK: Found old lockfile, deleting...\n");
    std::fprintf(stderr, "KOVA-I-DELLOCK: rm  %s\n", path.c_str());
    ::unlink(path.c_str());
    return 0;
  }

  KeyFileText file;
  file.put("PID~", ::getpid())
      .put("STARTED~", stamp)
      .put("VERSION~", std::string(kBuildVersion) + ":" + kBuildDate)
      .put("INSTALL_DIR~", s.install_root)
      .put("DATA_DIR~", s.data_dir)
      .put("LOG_DIR~", s.log_dir)
      .put("APP_DATA_DIR~", s.app_data_dir)
      .put("COMPRESSION_COMMAND~", s.compression_command)
      .put("REMOTE_DIR~", s.outgoing_dir)
      .put("VERBOSE~", s.verbose)
      .put("PRIORITY~", s.priority)
      .put("KOVAAGENT_PORT~", s.port)
      .put("KOVASERVER~", s.server)
      .put("SETTINGS_SERVER~", s.settings_server)
      .put("DATA_SOURCE~", s.measureware_source == 1 ? kDataSourceMeasureware : kDataSourceCollector)
      .put("USER~", s.user);
  // Written whole under a temporary name and linked into place: a second
  // agent's link fails as an exclusive create would, and a reader never
  // sees a part of the file.
  const int error = create_file_exclusive(path, file.text(), 0644);
  if (error == ENOSPC || error == EDQUOT || error == EIO) {
    std::fprintf(stderr, "Fatal: Unable to write to lockfile : %s \n", std::strerror(error));
    return 0;
  }
  if (error != 0) {  // the file exists after all, or cannot be created
    std::fprintf(stderr, "Fatal: %s is already running\n", kProgramName);
    kova_status(s.install_root, path, 1, 0, s.use_lock);
    return 0;
  }
  return 1;
}

}  // namespace kova
