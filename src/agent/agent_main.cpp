#include "agent/agent_main.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "appdata/appdata.h"
#include "components/collector.h"
#include "components/dc_lockfile.h"
#include "components/rta.h"
#include "agent/agent_state.h"
#include "agent/daemon.h"
#include "base/log.h"
#include "agent/log_day.h"
#include "agent/request_loop.h"
#include "base/version.h"
#include "housekeeping/getconfig.h"
#include "housekeeping/purge.h"
#include "platform/privileges.h"
#include "settings/command_line.h"
#include "settings/config_check.h"
#include "settings/hardening.h"
#include "settings/lock_file.h"
#include "settings/settings_file.h"
#include "wire/socket_io.h"

namespace kova {
namespace {

// The account rule for start and stop: root, or the service account itself.
bool authorized(const AgentSettings& s) { return ::getuid() == 0 || kova_am_i_vantrel(s.user) > 0; }

void refuse_account() {
  std::fprintf(stderr, "%s can be started or stopped only by an authorized account.\n", kProgramName);
}

// Takes on the service account for good: kova_relinquish_root's result (1
// switched, 0 no such account, -1 the switch failed; each said on stderr).
[[nodiscard]] int become_service_account(const AgentSettings& s) {
  priv_init(s.verbose);
  priv_on();
  const int switched = kova_relinquish_root(s.user);
  if (switched < 0) return switched;
  get_log_file_name_unix(s);
  ::chmod(log_state().logfile.c_str(), 0644);
  return switched;
}

// The collector's and real-time agent's settings, as their files say.
void read_component_settings(const AgentSettings& s) {
  CollectorState& dc = collector_state();
  kova_determine_dc_version(s, dc.dc_version);
  dc_init_command_line(dc.dc_cmdline);
  if (s.rootdir_given) dc_adjust_path_settings(dc.dc_cmdline, s.install_root);
  dc_parse_startup_file(dc.dc_cmdline);
  RtaSettings& rta = rta_cmdline();
  rta_init_command_line(rta);
  if (s.rootdir_given) rta_adjust_path_settings(rta, s.install_root);
  rta_parse_startup_file(rta);
}

int one_shot_purge(const AgentSettings& s) {
  if (s.measureware_source != 1) {
    (void)purge_data_file(s.data_dir, s.hostname, ".zud", s.purge_days, s.verbose);
  } else {
    for (const char* ext : {".gbl", ".prc", ".dsk", ".net", ".vol", ".cpu", ".cfg", ".app", ".zud"})
      (void)purge_data_file(s.mwa_dir, s.hostname, ext, s.purge_days, s.verbose);
  }
  return 1;  // deliberately 1, also on success
}

}  // namespace

int agent_main(int argc, char** argv) {
  // The agent ends with _exit: a message left in a full buffer would never
  // reach the file or pipe its output goes to. Standard error is unbuffered
  // already.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);

  // The configuration check reads the settings as a start would, then stops.
  if (kova_config_check_requested(argv, argc)) return kova_check_config_main(argv, argc);

  AgentState state;
  AgentSettings& s = state.settings;

  // Settings: defaults, the install root, the settings file, the options.
  kova_init_command_line(s);
  kova_parse_cmdline_for_rootdir(argv, argc, s);
  kova_parse_startup_file(s);
  int parsed = kova_parse_command_line(argv, argc, s);
  if (parsed == kParseMeasureware) return 1;
  if (parsed <= 0) return 0;
  log_state().verbose = s.verbose == 1;

  if (s.show_usage == 1) {
    kova_print_usage();
    return 0;
  }
  if (s.write_config == 1) {
    (void)kova_write_settings_file(s);  // exit 0 whether or not it was written
    return 0;
  }

  priv_on();
  state.detailed_logging = s.verbose;

  if (s.version == 1) return parsed;
  if (s.status == 1) {
    kova_status(s.install_root, s.agent_lock_path, 1, 0, s.use_lock);
    return 0;
  }
  if (s.stop == 1) {
    if (!authorized(s)) {
      refuse_account();
      return 0;
    }
    if (become_service_account(s) < 0) return 1;
    int stopped = kova_stop(s.install_root, s.agent_lock_path, 1);
    kova_delete_existing_filesize_tempfile(s);
    return stopped;
  }

  // Start, or the one-shot purge.
  if (const std::string problem = hardened_start_problem(s); !problem.empty()) {
    std::fputs(problem.c_str(), stderr);
    return 1;
  }
  if (kova_check_paths(s) != 1) return 0;
  (void)::chdir(s.install_root.c_str());
  (void)appdata_read_formats(s.install_root);
  read_component_settings(s);

  int running_pid = -1;
  if (is_kova_running(s, &running_pid) == 1) {
    std::fprintf(stderr, "\nkovaagent already running: pid (%d)\n", running_pid);
    kova_status(s.install_root, s.agent_lock_path, 1, 0, s.use_lock);
    return 0;
  }
  if (!authorized(s)) {
    kova_print_banner();
    std::fflush(stdout);
    refuse_account();
    return 0;
  }

  // An agent that cannot be the account it was told to be does not run on
  // as root.
  if (become_service_account(s) != 1) {
    std::fprintf(stderr, "%s not started: unable to run as account %s\n", kProgramName, s.user.c_str());
    return 1;
  }
  (void)kova_getconfig(s, s.hostname, collector_state().dc_cmdline, rta_cmdline());  // written at every start
  priv_off();

  if (s.purge == 1) return one_shot_purge(s);

  kova_delete_existing_filesize_tempfile(s);
  kova_delete_existing_lockfile(s.agent_lock_path, s.verbose);

  set_terminate_state(-1, s.use_lock, s.agent_lock_path);
  install_signal_dispositions(s.harden == 1);
  if (s.fork == 1) make_daemon(s.tmp_dir, s.priority);

  if (s.use_lock == 1) {
    int locked = kova_write_lockfile(s);
    // From here on the lock file belongs to the running agent: neither
    // TerminateAgent nor a failure below removes it; the next start clears
    // a stale one.
    s.use_lock = 0;
    set_terminate_state(-1, 0, s.agent_lock_path);
    if (locked < 0) {
      std::fprintf(stderr, "\nkovaagent      already running\n");
      return 0;
    }
    if (locked == 0) return 0;
  }

  state.zud_age = 14;
  state.command_count = state.message_repeat - 1;

  priv_init(s.verbose);
  priv_on();
  write_log_header(s);
  priv_off();

  state.listen_fd = Socket_Create(s.port, s.listen_address);
  if (state.listen_fd == -1) {
    std::fprintf(stderr, "%s: Socket create failed!, %s \n", kProgramName, std::strerror(errno));
    if (s.use_lock == 1) ::unlink(s.agent_lock_path.c_str());
    return 0;
  }
  set_terminate_state(state.listen_fd, s.use_lock, s.agent_lock_path);
  // Hardened mode closes what it will not serve at once, so a burst may
  // queue as deep as the system allows.
  if (::listen(state.listen_fd, s.harden == 1 ? SOMAXCONN : 5) != 0) {
    log_printf("E-LISTEN", "listen() error : %s", std::strerror(errno));
    if (s.use_lock == 1) ::unlink(s.agent_lock_path.c_str());
    return 0;
  }

  if (s.harden == 1)
    log_printf("I-HARDENED", "Hardened mode: registered servers %s, at most %d requests at once, updates %s",
               effective_server_list(s.server).c_str(), s.max_requests, s.allow_update == 1 ? "allowed" : "refused");
  write_to_log("I-STARTED", "Agent started");
  std::printf("%s started.\n", kProgramName);
  std::fflush(stdout);
  request_loop(state);
}

}  // namespace kova
