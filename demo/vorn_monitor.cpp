// Stand-in data collector for the demo install tree and the tests. It reads
// its settings file as the real collector does, keeps the lock file in the
// real layout and appends one sample line per write interval to the day's
// data file. SIGINT (or SIGTERM) removes the lock file and ends it.
//
//   vorn_monitor [-user U] [-rootdir DIR] [-silent] [-stop]
//
// VORN_DEMO_INTERVAL_MS, when set, replaces the write rate (for tests).
#include <sys/sysinfo.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "components/dc_lockfile.h"
#include "components/dc_settings.h"
#include "platform/findproc.h"
#include "base/version.h"
#include "standin.h"
#include "descriptors.h"

namespace {

constexpr const char* kName = "vorn_monitor";

std::string day_text(std::time_t now) {
  struct tm tm;
  char day[32] = {};
  localtime_r(&now, &tm);
  std::strftime(day, sizeof day, "%Y%b%d", &tm);
  return day;
}

std::string data_file_for(const kova::DcSettings& dc, std::time_t now) {
  return dc.data_dir + "/qdtsx_" + dc.hostname + "_" + day_text(now) + ".zud-1";
}

void write_lock(std::FILE* f, const kova::DcSettings& dc, std::time_t started) {
  const int pid = getpid();
  const std::string start = standin::ctime_text(dc.start_time_given ? dc.start_time : started);
  const std::string end = dc.end_time_given ? standin::ctime_text(dc.end_time) : "Not specified";
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
void append_sample(const std::string& path, std::time_t now) {
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

int stop_running(const kova::DcSettings& dc) {
  kova::DcLockfile lock;
  if (kova::dc_read_lockfile(dc.lock_file, lock) != 1 || kova::findproc(kName, lock.pid, 0) != 1) {
    std::printf("\n%s is not running\n", kName);
    return 0;
  }
  if (kill(lock.pid, SIGINT) != 0) {
    std::fprintf(stderr, "Fatal: Unable to kill pid %d \n", lock.pid);
    return 1;
  }
  return standin::wait_gone(dc.lock_file, 10000) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  standin::record_descriptors(kName);
  standin::Options opts = standin::parse_options(argc, argv);
  if (opts.bad) {
    std::fprintf(stderr, "usage: %s [-user U] [-rootdir DIR] [-silent] [-stop]\n", kName);
    return 2;
  }
  kova::DcSettings dc;
  kova::dc_init_command_line(dc);
  if (!opts.rootdir.empty()) kova::dc_adjust_path_settings(dc, opts.rootdir);
  (void)kova::dc_parse_startup_file(dc);
  if (!opts.user.empty()) dc.user = opts.user;
  if (opts.stop) return stop_running(dc);

  kova::DcLockfile old;
  int found = kova::dc_read_lockfile(dc.lock_file, old);
  if (found == 1 && kova::findproc(kName, old.pid, 0) == 1) {
    std::fprintf(stderr, "Fatal: %s is already running\n", kName);
    return 1;
  }
  if (found == 1) {
    std::fprintf(stderr, " Found old lockfile, deleting...\n");
    unlink(dc.lock_file.c_str());
  }

  long interval_ms = static_cast<long>(dc.write_rate > 0 ? dc.write_rate : 120) * 1000;
  if (const char* v = std::getenv("VORN_DEMO_INTERVAL_MS"); v != nullptr && std::atol(v) > 0) interval_ms = std::atol(v);

  standin::catch_stop_signals();
  int ready = standin::detach();
  const std::time_t started = std::time(nullptr);
  dc.current_data_file = data_file_for(dc, started);
  if (!standin::write_lock_file(dc.lock_file, 0666, kName, [&](std::FILE* f) { write_lock(f, dc, started); }))
    return 1;
  append_sample(dc.current_data_file, started);
  standin::report_ready(ready);

  while (standin::nap(interval_ms)) {
    std::time_t now = std::time(nullptr);
    std::string file = data_file_for(dc, now);
    if (file != dc.current_data_file) {
      // A new day: the lock file names the new data file. It is replaced in
      // one step, so that no status check in between finds the collector
      // without one and takes it for stopped.
      dc.current_data_file = file;
      const std::string next = dc.lock_file + ".new";
      unlink(next.c_str());
      if (standin::write_lock_file(next, 0666, kName, [&](std::FILE* f) { write_lock(f, dc, started); }))
        rename(next.c_str(), dc.lock_file.c_str());
    }
    append_sample(dc.current_data_file, now);
  }
  unlink(dc.lock_file.c_str());
  return 0;
}
