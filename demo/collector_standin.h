// What the two stand-in collectors share: the lock file in the real
// layout, one sample line per write interval into the day's data file, and
// the run from start to SIGINT.
#pragma once

#include <sys/sysinfo.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "base/version.h"
#include "components/dc_lockfile.h"
#include "components/dc_settings.h"
#include "platform/findproc.h"
#include "standin.h"

namespace standin {

inline std::string day_text(std::time_t now) {
  struct tm tm;
  char day[32] = {};
  localtime_r(&now, &tm);
  std::strftime(day, sizeof day, "%Y%b%d", &tm);
  return day;
}

// "<data dir>/<prefix>_<host>_<YYYYMonDD>.zud-1".
inline std::string data_file_for(const kova::DcSettings& dc, const char* prefix, std::time_t now) {
  return dc.data_dir + "/" + prefix + "_" + dc.hostname + "_" + day_text(now) + ".zud-1";
}

inline void write_collector_lock(std::FILE* f, const kova::DcSettings& dc, std::time_t started) {
  const int pid = getpid();
  const std::string start = ctime_text(dc.start_time_given ? dc.start_time : started);
  const std::string end = dc.end_time_given ? ctime_text(dc.end_time) : "Not specified";
  std::fprintf(f, "%d@%s@%s@%s@%d@%d\n", pid, start.c_str(), end.c_str(), dc.data_dir.c_str(), dc.scan_rate * 100,
               dc.write_rate / 10);
  std::fprintf(f, "PID~%d\n", pid);
  std::fprintf(f, "VERSION~%s:%s\n", kova::kBuildVersion, kova::kBuildDate);
  std::fprintf(f, "START~%s\n", start.c_str());
  std::fprintf(f, "END~%s\n", end.c_str());
  std::fprintf(f, "DATA_DIR~%s\n", dc.data_dir.c_str());
  std::fprintf(f, "LOG_DIR~%s\n", dc.log_dir.c_str());
  std::fprintf(f, "SCAN_RATE~%d\n", dc.scan_rate);
  std::fprintf(f, "WRITE_RATE~%d\n", dc.write_rate);
  std::fprintf(f, "PEAK_RATE~%d\n", dc.peak_rate);
  std::fprintf(f, "RETAIN~%d\n", dc.retain);
  std::fprintf(f, "VERBOSE~%d\n", dc.verbose);
  std::fprintf(f, "COLLECT_CPU~%d\n", dc.collect_cpu);
  std::fprintf(f, "COLLECT_DISK~%d\n", dc.collect_disk);
  std::fprintf(f, "COLLECT_PROCESS~%d\n", dc.collect_process);
  std::fprintf(f, "COLLECT_MEMORY~%d\n", dc.collect_memory);
  std::fprintf(f, "COLLECT_NET~%d\n", dc.collect_net);
  std::fprintf(f, "COLLECT_NIC~%d\n", dc.collect_nic);
  std::fprintf(f, "COLLECT_HBA~%d\n", dc.collect_hba);
  std::fprintf(f, "COLLECT_LPAR~%d\n", dc.collect_lpar);
  std::fprintf(f, "COLLECT_FILESYS~%d\n", dc.collect_filesys);
  std::fprintf(f, "COLLECT_PROCESSOR~%d\n", dc.collect_processor);
  std::fprintf(f, "MAP_DISKNAMES~%d\n", dc.map_disknames);
  std::fprintf(f, "FILESYS_EXCLUDE~%s\n", dc.filesys_exclude.c_str());
  std::fprintf(f, "PRIORITY~%d\n", dc.priority);
  std::fprintf(f, "APPEND_DATA_FILES~%d\n", dc.append_data_files);
  std::fprintf(f, "USER~%s\n", dc.user.c_str());
  std::fprintf(f, "IMAGE_BITS~64\n");
  std::fprintf(f, "CURRENT_DATA_FILE~%s\n", dc.current_data_file.c_str());
}

// One sample: seconds since 1970, local date and time, the 1, 5 and 15
// minute load averages, free memory in KiB and the number of processes.
inline void append_sample(const std::string& path, std::time_t now) {
  std::FILE* f = std::fopen(path.c_str(), "a");
  if (f == nullptr) return;
  struct tm tm;
  char stamp[32] = {};
  localtime_r(&now, &tm);
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm);
  double load[3] = {0, 0, 0};
  (void)getloadavg(load, 3);
  struct sysinfo si {};
  sysinfo(&si);
  unsigned long long free_kib = static_cast<unsigned long long>(si.freeram) * si.mem_unit / 1024;
  std::fprintf(f, "%lld %s %.2f %.2f %.2f %llu %u\n", static_cast<long long>(now), stamp, load[0], load[1], load[2],
               free_kib, static_cast<unsigned>(si.procs));
  std::fclose(f);
}

// -stop: signals the collector that the lock file names, if it runs, and
// waits for its lock file to go. The exit status.
inline int stop_collector(const kova::DcSettings& dc, const char* name) {
  kova::DcLockfile lock;
  if (kova::dc_read_lockfile(dc.lock_file, lock) != 1 || kova::findproc(name, lock.pid, 0) != 1) {
    std::printf("\n%s is not running\n", name);
    return 0;
  }
  if (kill(lock.pid, SIGINT) != 0) {
    std::fprintf(stderr, "Fatal: Unable to kill pid %d \n", lock.pid);
    return 1;
  }
  return wait_gone(dc.lock_file, 10000) ? 0 : 1;
}

// Refuses a second copy for the same lock file, detaches, writes the lock
// file and a sample, reports ready to the starter, then samples once per
// write interval until SIGINT or SIGTERM, and removes the lock file. Data
// files are "<prefix>_<host>_<day>.zud-1". The exit status.
inline int run_collector(kova::DcSettings& dc, const char* name, const char* prefix) {
  kova::DcLockfile old;
  const int found = kova::dc_read_lockfile(dc.lock_file, old);
  if (found == 1 && kova::findproc(name, old.pid, 0) == 1) {
    std::fprintf(stderr, "Fatal: %s is already running\n", name);
    return 1;
  }
  if (found == 1) {
    std::fprintf(stderr, " Found old lockfile, deleting...\n");
    unlink(dc.lock_file.c_str());
  }

  long interval_ms = static_cast<long>(dc.write_rate > 0 ? dc.write_rate : 120) * 1000;
  if (const char* v = std::getenv("VORN_DEMO_INTERVAL_MS"); v != nullptr && std::atol(v) > 0) interval_ms = std::atol(v);

  catch_stop_signals();
  int ready = detach();
  const std::time_t started = std::time(nullptr);
  dc.current_data_file = data_file_for(dc, prefix, started);
  if (!write_lock_file(dc.lock_file, 0666, name, [&](std::FILE* f) { write_collector_lock(f, dc, started); }))
    return 1;
  append_sample(dc.current_data_file, started);
  report_ready(ready);

  while (nap(interval_ms)) {
    std::time_t now = std::time(nullptr);
    std::string file = data_file_for(dc, prefix, now);
    if (file != dc.current_data_file) {
      // A new day: the lock file names the new data file. It is replaced in
      // one step, so that no status check in between finds the collector
      // without one and takes it for stopped.
      dc.current_data_file = file;
      const std::string next = dc.lock_file + ".new";
      unlink(next.c_str());
      if (write_lock_file(next, 0666, name, [&](std::FILE* f) { write_collector_lock(f, dc, started); }))
        rename(next.c_str(), dc.lock_file.c_str());
    }
    append_sample(dc.current_data_file, now);
  }
  unlink(dc.lock_file.c_str());
  return 0;
}

}  // namespace standin
