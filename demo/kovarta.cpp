// Stand-in real-time agent for the demo install tree and the tests. It reads
// its settings file, keeps its lock file in the real layout and idles until
// it is told to stop; it serves nothing on its port.
//
//   kovarta [-user U] [-rootdir DIR]     start, detached
//   kovarta [-user U] [-rootdir DIR] -stop
#include <string>

#include "platform/findproc.h"
#include "components/rta.h"
#include "base/version.h"
#include "standin.h"
#include "descriptors.h"

namespace {

constexpr const char* kName = "kovarta";

void write_lock(std::FILE* f, const kova::RtaSettings& rta, std::time_t started) {
  const int pid = getpid();
  const std::string start = standin::ctime_text(started);
  // The summary has no line feed of its own; readers find PID~ on the same
  // line all the same.
  std::fprintf(f, "%d@%d@%d@%s", pid, rta.processes == 1 ? -1 : 0, rta.port, start.c_str());
  std::fprintf(f, "PID~%d\n", pid);
  std::fprintf(f, "STARTED~%s\n", start.c_str());
  std::fprintf(f, "VERSION~%s:%s\n", kova::kBuildVersion, kova::kBuildDate);
  std::fprintf(f, "INSTALL_DIR~%s\n", rta.install_dir.c_str());
  std::fprintf(f, "DATA_DIR~%s\n", rta.data_dir.c_str());
  std::fprintf(f, "LOG_DIR~%s\n", rta.log_dir.c_str());
  std::fprintf(f, "VERBOSE~%d\n", rta.verbose);
  std::fprintf(f, "PRIORITY~%d\n", rta.priority);
  std::fprintf(f, "RTA_PORT~%d\n", rta.port);
  std::fprintf(f, "ALERTS~%d\n", rta.alerts);
  std::fprintf(f, "PROCESSES~%d\n", rta.processes);
  std::fprintf(f, "SCAN_RATE~%d\n", rta.scan_rate);
  std::fprintf(f, "USER~%s\n", rta.user.c_str());
}

// Pid of the copy named by the lock file, or 0 when none runs.
int running_pid(const kova::RtaSettings& rta) {
  kova::RtaLockfile lock;
  if (kova::rta_read_lockfile(rta.lock_file, lock) != 1) return 0;
  return kova::findproc(kName, lock.pid, 0) == 1 ? lock.pid : 0;
}

}  // namespace

int main(int argc, char** argv) {
  standin::record_descriptors(kName);
  standin::Options opts = standin::parse_options(argc, argv);
  if (opts.bad) {
    std::fprintf(stderr, "usage: %s [-user U] [-rootdir DIR] [-stop]\n", kName);
    return 2;
  }
  kova::RtaSettings rta;
  kova::rta_init_command_line(rta);
  if (!opts.rootdir.empty()) kova::rta_adjust_path_settings(rta, opts.rootdir);
  (void)kova::rta_parse_startup_file(rta);
  if (!opts.user.empty()) rta.user = opts.user;

  const int pid = running_pid(rta);
  if (opts.stop) {
    if (pid == 0) {
      std::printf("%s is not running\n", kName);
      return 0;
    }
    if (kill(pid, SIGTERM) != 0) return 1;
    // Return only once the lock file is gone, so that a status check run
    // right after the stop sees the agent down.
    return standin::wait_gone(rta.lock_file, 10000) ? 0 : 1;
  }
  if (pid != 0) {
    std::fprintf(stderr, "Fatal: %s is already running\n", kName);
    return 1;
  }
  unlink(rta.lock_file.c_str());

  standin::catch_stop_signals();
  int ready = standin::detach();
  const std::time_t started = std::time(nullptr);
  if (!standin::write_lock_file(rta.lock_file, 0644, kName, [&](std::FILE* f) { write_lock(f, rta, started); }))
    return 1;
  standin::report_ready(ready);
  while (standin::nap(60000)) {
  }
  unlink(rta.lock_file.c_str());
  return 0;
}
