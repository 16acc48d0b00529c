#include "agent/log_day.h"

#include <ctime>

#include "base/clock.h"
#include "base/log.h"
#include "base/version.h"
#include "housekeeping/purge.h"

namespace kova {

namespace {

// The first second of the local day after the one `local` falls on, or an
// earlier second where that midnight does not exist: the span it closes may
// end early, never late.
[[gnu::hot]] std::time_t next_midnight(const std::tm& local) {
  std::tm next{};
  next.tm_year = local.tm_year;
  next.tm_mon = local.tm_mon;
  next.tm_mday = local.tm_mday + 1;
  next.tm_isdst = -1;
  return std::mktime(&next);
}

}  // namespace

[[gnu::hot]] int get_log_file_name_unix(const AgentSettings& s) {
  LogState& log = log_state();
  std::time_t now = clock_now();
  if (now >= log.same_day_from && now < log.same_day_until) return 0;
  std::tm local{};
  localtime_r(&now, &local);
  log.same_day_from = now;
  log.same_day_until = next_midnight(local);
  if (local.tm_yday == log.logfile_yday) return 0;

  char date[64];
  std::strftime(date, sizeof date, "%Y%b%d", &local);
  log.logfile = s.log_dir + "/kova_" + s.hostname + "_" + date + ".log";
  log.logfile_yday = local.tm_yday;
  (void)purge_log_file(s.log_dir, s.hostname, ".log", 5, s.verbose);  // a failure is logged by the purge
  return 1;
}

int write_log_header(const AgentSettings& s) {
  write_to_log("", string_printf("\n%s %s\nBuild: %s (%s)\n", kProductName, kOwnershipNotice, kBuildVersion,
                                 kBuildDate),
               false);
  write_to_log("I-LOGNAME", log_state().logfile);
  write_to_log("I-LIBRARY", s.install_root);
  write_to_log("I-DATA", s.data_dir);
  write_to_log("I-LOG", s.verbose == 1 ? "Detailed Logging is ON" : "Detailed Logging is OFF");
  if (s.remote != 1) {
    log_printf("I_SERVER", "Registered KOVAServer : %s", s.server.c_str());
    if (s.verbose == 1) log_printf("I-SERVER", "KOVAServer Controlling Settings: %s", s.settings_server.c_str());
    write_to_log("I_KEEPPERF", s.keep_perf == 1 ? "Keep Perf Files : On\n" : "Keep Perf Files : Off\n");
  } else {
    write_to_log("I_REMOTE", "Remote Operation : On");
    log_printf("I_REMOTE", "Remote Data : %s", s.outgoing_dir.c_str());
    log_printf("I_REMOTE", "Remote Schedule : %02d:%02d", s.schedule_hour, s.schedule_minute);
    log_printf("I_REMOTE", "Remote retain : %d days\n", s.retain_days);
  }
  return 1;
}

}  // namespace kova
