#include "settings/command_line.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/version.h"
#include "platform/files.h"
#include "settings/hardening.h"

namespace kova {
namespace {

constexpr const char* kDefaultRoot = "/opt/vantrel";

int root_from_env(const char* variable, std::string& out) {
  const char* value = std::getenv(variable);
  if (value != nullptr && std::strlen(value) > 1) {
    out = value;
    if (out.back() == '/') out.pop_back();
    return 1;
  }
  out = kDefaultRoot;
  return 2;
}

// The paths that always follow the install root and the host name.
void derive_tree(AgentSettings& s) {
  const std::string& root = s.install_root;
  s.tmp_dir = root + "/tmp";
  s.settings_dir = root + "/settings";
  s.outgoing_dir = root + "/outgoing";
  s.update_dir = root + "/update";
  s.mwa_dir = root + "/mwa";
  s.update_tmp_dir = root + "/tmp/update";
  s.work_tmp_dir = root + "/tmp";
  s.bin_dir = root + "/bin";
  s.collector_lock_path = s.tmp_dir + "/" + s.hostname + "_monitor.lock";
  s.agent_lock_path = s.tmp_dir + "/" + s.hostname + "_kova.lock";
  s.rta_lock_path = s.tmp_dir + "/" + s.hostname + "_rtdc.lock";
  s.memory_file_path = s.settings_dir + "/kova_" + s.hostname + ".memory";
  s.settings_file_path = s.settings_dir + "/kova_" + s.hostname + ".config";
}

// One row of the option table: the option and how many leading characters
// an abbreviation must exceed.
struct Option {
  const char* name;
  int n;
};

bool matches(const char* arg, Option o) { return unix_option_compare(arg, o.name, o.n); }

}  // namespace

int get_vantrel_root(std::string& out) { return root_from_env("VANTREL_LIBRARY", out); }
int get_sorlex_root(std::string& out) { return root_from_env("SORLEX_LIBRARY", out); }

int kova_init_command_line(AgentSettings& s) {
  s = AgentSettings{};
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) != 0)
    std::fprintf(stderr, "kovaagent, gethostname failed, %s \n", std::strerror(errno));
  if (name[0] == '\0') (void)::gethostname(name, sizeof name - 1);
  s.hostname = name;
  if (auto dot = s.hostname.find('.'); dot != std::string::npos) s.hostname.resize(dot);

  get_vantrel_root(s.install_root);
  s.search_agent_root_given = get_sorlex_root(s.search_agent_root) == 1 ? 1 : 0;
  s.log_dir = s.install_root + "/logs";
  s.data_dir = s.install_root + "/data";
  derive_tree(s);
  return 1;
}

int kova_adjust_path_settings(AgentSettings& s, const std::string& root) {
  s.install_root = root;
  s.log_dir = root + "/logs";
  derive_tree(s);
  return 1;
}

bool unix_option_compare(std::string_view arg, std::string_view option, int n) {
  if (arg.empty() || arg.size() <= static_cast<size_t>(n < 0 ? 0 : n)) return false;
  return option.substr(0, arg.size()) == arg;
}

int kova_parse_cmdline_for_rootdir(char** argv, int argc, AgentSettings& s) {
  if (argc <= 1) return 0;
  for (int i = 1; i < argc; ++i) {
    if (!unix_option_compare(argv[i], "-rootdir", 7)) continue;
    if (i + 1 < argc && argv[i + 1][0] != '-') {
      kova_adjust_path_settings(s, argv[i + 1]);
      s.rootdir_given = 1;
      return 1;
    }
    std::fprintf(stderr, "-rootdir option requires an argument\n");
    return 0;
  }
  return 0;
}

int set_path_variable(std::string& dst, const std::string& arg) {
  if (arg.starts_with('/') || arg.starts_with('`') || arg.find("..") == std::string::npos) {
    dst = arg;
    return 1;
  }
  std::unique_ptr<char, decltype(&std::free)> cwd(::getcwd(nullptr, 0), &std::free);
  if (!cwd) {
    std::fprintf(stderr, "Fatal: Unable to get pwd()\n");
    return 0;
  }
  dst = std::string(cwd.get()) + "/" + arg;
  return 1;
}

int parse_hour_min(std::string_view text, AgentSettings& s) {
  auto colon = text.find(':');
  if (colon == std::string_view::npos) return 0;
  int hour = std::atoi(std::string(text.substr(0, colon)).c_str());
  int minute = std::atoi(std::string(text.substr(colon + 1)).c_str());
  if (hour < 0 || hour > 23 || minute < 0 || minute > 59) return 0;
  s.schedule_hour = hour;
  s.schedule_minute = minute;
  return 1;
}

void kova_print_banner() {
  std::printf("%s %s\n", kProductName, kOwnershipNotice);
  std::printf("Build: %s (%s)\n", kBuildVersion, kBuildDate);
}

void kova_print_usage() {
  std::printf("\nUsage\t:\n\n");
  std::printf("%s [-start|-stop|-status|-[no]verbose|-version]|[-port n]\n", kProgramName);
  std::printf("[-logdir dir | -datadir dir | -nofork -nolock ]\n");
  std::printf("[-write_config ]\n\n");
  std::printf("Flags\t:\n");
  std::printf("\t-start\n");
  std::printf("\t\tStart %s \n", kProductName);
  std::printf("\t-stop\n");
  std::printf("\t\tStop %s\n", kProductName);
  std::printf("\t-status\n");
  std::printf("\t\tGet %s status\n", kProductName);
  std::printf("\t-port [number]\n");
  std::printf("\t\tSet port number (default 1661) \n");
  std::printf("\t-priority\n");
  std::printf("\t\tSet nice level, from -20 (highest) to 20 (lowest).\n");
  std::printf("\t\tThe default is 0. \n");
  std::printf("\t-user\n");
  std::printf("\t\tUser account to run under.\n");
  std::printf("\t-rootdir\n");
  std::printf("\t\tSet installation directory.\n");
  std::printf("\t-datadir\n");
  std::printf("\t\tSet directory for ZUD data files.\n");
  std::printf("\t-appdatadir [path]\n");
  std::printf("\t\tSet directory for application data files.\n");
  std::printf("\t-compression [command]\n");
  std::printf("\t\tSet compression command for appdata transfers.\n");
  std::printf("\t\tsample command:  gzip -c * > *.gz \n");
  std::printf("\t-logdir\n");
  std::printf("\t\tSet directory for log files. \n");
  std::printf("\t-server\n");
  std::printf("\t\tKOVAserver IP address.\n");
  std::printf("\t-[no]fork\n");
  std::printf("\t\tRun without becoming a daemon process.\n");
  std::printf("\t-[no]lock\n");
  std::printf("\t\tRun without using/checking lock file.\n");
  std::printf("\t-keepperf\n");
  std::printf("\t\tDo not delete .PERF files. \n");
  std::printf("\t-version\n");
  std::printf("\t\tShow version\n");
  std::printf("\t-[no]verbose\n");
  std::printf("\t\tVerbose logging\n");
  std::printf("\t-write_config\n");
  std::printf("\t\tWrite a configuration file to the settings directory\n");
  std::printf("\n");
}

int kova_parse_command_line(char** argv, int argc, AgentSettings& s) {
  kova_print_banner();
  std::fflush(stdout);
  s.agent_lock_path = s.tmp_dir + "/" + s.hostname + "_kova.lock";
  if (argc == 1) s.start = 1;

  for (int i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    const bool has_value = i + 1 < argc;
    // The value for options that refuse one beginning with "-".
    const bool has_path_value = has_value && argv[i + 1][0] != '-';

    if (matches(arg, {"-status", 4})) {
      s.status = 1;
    } else if (matches(arg, {"-start", 4})) {
      s.start = 1;
    } else if (matches(arg, {"-stop", 3})) {
      s.stop = 1;
    } else if (matches(arg, {"-version", 4})) {
      s.version = 1;
    } else if (matches(arg, {"-fork", 4})) {
      s.fork = 1;
    } else if (matches(arg, {"-nofork", 6})) {
      s.fork = 0;
    } else if (matches(arg, {"-lock", 4})) {
      s.use_lock = 1;
    } else if (matches(arg, {"-nolock", 6})) {
      s.use_lock = 0;
    } else if (matches(arg, {"-remote", 5})) {
      s.remote = 1;
    } else if (matches(arg, {"-retain", 5})) {
      if (!has_value) {
        std::fprintf(stderr, "-retain option requires an argument\n");
        return 0;
      }
      int days = std::atoi(argv[++i]);
      if (days >= 1 && days <= 99998) s.retain_days = days;
    } else if (matches(arg, {"-growth_interval", 4})) {
      if (!has_value) {
        std::fprintf(stderr, "-growth_interval option requires an argument\n");
        return 0;
      }
      int seconds = std::atoi(argv[++i]);
      if (seconds >= 60 && seconds <= 10800)
        s.growth_interval = seconds;
      else
        std::fprintf(stderr, "growth_interval must be between 60 and 10800\n");
    } else if (matches(arg, {"-check_growth", 10})) {
      s.check_growth = 1;
    } else if (matches(arg, {"-nocheck_growth", 12})) {
      s.check_growth = 0;
    } else if (matches(arg, {"-check_config", 12})) {
      // The configuration check runs instead of a start (agent_main).
    } else if (matches(arg, {"-schedule", 7})) {
      if (!has_path_value) {
        std::fprintf(stderr, "-schedule option requires an argument, HH:MM \n");
        s.show_usage = 1;
        return 0;
      }
      if (parse_hour_min(argv[++i], s) != 1) {
        std::fprintf(stderr, "-schedule option must be in format,  HH:MM \n");
        std::fprintf(stderr, " HH is 0 - 23  and MM is 0 - 59  \n");
        s.show_usage = 1;
        return 0;
      }
      s.schedule_given = 1;
    } else if (matches(arg, {"-noremote", 7})) {
      s.remote = 0;
    } else if (matches(arg, {"-keepperf", 5})) {
      s.keep_perf = 1;
    } else if (matches(arg, {"-server", 6})) {
      if (!has_path_value) {
        std::fprintf(stderr, "-server option requires an argument\n");
        s.show_usage = 1;
        return 0;
      }
      s.server = argv[++i];
    } else if (matches(arg, {"-write_config", 10})) {
      s.write_config = 1;
    } else if (matches(arg, {"-rootdir", 7})) {
      if (!has_path_value) {
        std::fprintf(stderr, "-rootdir option requires an argument\n");
        return 0;
      }
      set_path_variable(s.install_root, argv[++i]);
      s.rootdir_given = 1;
    } else if (matches(arg, {"-datadir", 7})) {
      if (!has_path_value) {
        std::fprintf(stderr, "-datadir option requires an argument\n");
        return 0;
      }
      set_path_variable(s.data_dir, argv[++i]);
      s.datadir_given = 1;
    } else if (matches(arg, {"-logdir", 5})) {
      if (!has_path_value) {
        std::fprintf(stderr, "-logdir option requires an argument\n");
        return 0;
      }
      set_path_variable(s.log_dir, argv[++i]);
      s.logdir_given = 1;
    } else if (matches(arg, {"-appdir", 5}) || matches(arg, {"-appdatadir", 5})) {
      if (!has_path_value) {
        std::fprintf(stderr, "-appdir option requires an argument\n");
        return 0;
      }
      set_path_variable(s.app_data_dir, argv[++i]);
      s.appdir_given = 1;
    } else if (matches(arg, {"-compression", 4})) {
      if (!has_path_value) {
        std::fprintf(stderr, "-compression option requires an argument\n");
        return 0;
      }
      set_path_variable(s.compression_command, argv[++i]);
      s.compression_given = 1;
    } else if (matches(arg, {"-purge", 4})) {
      if (!has_value) {
        std::fprintf(stderr, "-purge option requires an argument\n");
        return 0;
      }
      s.purge = 1;
      s.purge_days = std::atoi(argv[++i]);
    } else if (matches(arg, {"-priority", 6})) {
      if (!has_value) {
        std::fprintf(stderr, "-priority option requires an argument\n");
        return 0;
      }
      s.start = 1;
      s.priority = std::atoi(argv[++i]);
    } else if (matches(arg, {"-user", 4})) {
      if (!has_value) {
        std::fprintf(stderr, "-user option requires an argument\n");
        return 0;
      }
      s.user = argv[++i];
      s.user_given = 1;
    } else if (matches(arg, {"-verbose", 4})) {
      s.start = 1;
      s.verbose = 1;
    } else if (matches(arg, {"-noverbose", 6})) {
      s.start = 1;
      s.verbose = 0;
    } else if (matches(arg, {"-port", 4})) {
      if (!has_value) {
        std::fprintf(stderr, "-port option requires an argument\n");
        return 0;
      }
      int port = std::atoi(argv[++i]);
      if (port >= 1 && port <= 99998) {
        s.start = 1;
        s.port = port;
      }
    } else if (matches(arg, {"-harden", 6})) {
      s.harden = 1;
    } else if (matches(arg, {"-allow_update", 12})) {
      s.allow_update = 1;
    } else if (matches(arg, {"-max_requests", 12})) {
      if (!has_value) {
        std::fprintf(stderr, "-max_requests option requires an argument\n");
        return 0;
      }
      const std::string_view text = argv[++i];
      int most = 0;
      const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), most);
      if (error != std::errc{} || end != text.data() + text.size() || most < 1 || most > kMaxRequestsLimit) {
        std::fprintf(stderr, "-max_requests must be between 1 and %d\n", kMaxRequestsLimit);
        return 0;
      }
      s.max_requests = most;
    } else if (matches(arg, {"-listen", 6})) {
      if (!has_value || !is_address_literal(argv[i + 1])) {
        std::fprintf(stderr, "-listen option requires an IPv4 or IPv6 address\n");
        return 0;
      }
      s.listen_address = argv[++i];
    } else if (matches(arg, {"-mwa", 3})) {
      std::fprintf(stderr, "kovaagent only supports measureware on HP-UX\n");
      return kParseMeasureware;
    } else {
      s.show_usage = 1;
    }
  }

  if (s.rootdir_given) {
    if (!s.datadir_given) s.data_dir = s.install_root + "/data";
    if (!s.logdir_given) s.log_dir = s.install_root + "/logs";
    derive_tree(s);
  }
  if (s.schedule_given && !s.remote) {
    std::fprintf(stderr, "-schedule requires -remote qualifier\n");
    return 0;
  }
  return 1;
}

int kova_check_paths(const AgentSettings& s) {
  if (!path_exists(s.install_root)) {
    std::fprintf(stderr, "kovaagent, unable to access root directory, %s, %s\n", s.install_root.c_str(),
                 std::strerror(errno));
    return 0;
  }
  int ok = 1;
  if (!path_exists(s.data_dir)) {
    std::fprintf(stderr, "kovaagent, unable to access data directory, %s, %s\n", s.data_dir.c_str(),
                 std::strerror(errno));
    std::fprintf(stderr, "kovaagent, %s/data should be soft linked to a valid directory.\n",
                 s.install_root.c_str());
    ok = 0;
  }
  if (!path_exists(s.log_dir)) {
    std::fprintf(stderr, "kovaagent, unable to access log directory, %s, %s\n", s.log_dir.c_str(),
                 std::strerror(errno));
    ok = 0;
  }
  if (!path_exists(s.tmp_dir)) {
    std::fprintf(stderr, "kovaagent, unable to access tmp directory, %s, %s\n", s.tmp_dir.c_str(),
                 std::strerror(errno));
    ok = 0;
  }
  return ok;
}

int kova_resolve_softlink(const std::string& path, std::string& out, int verbose) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) return -1;
  if (!S_ISLNK(st.st_mode)) {
    out = path;
    return 0;
  }
  std::unique_ptr<char, decltype(&std::free)> target(::realpath(path.c_str(), nullptr), &std::free);
  out = target ? target.get() : path;
  if (verbose) std::printf("%s ->    %s \n", path.c_str(), out.c_str());
  return 1;
}

int LibTrim1(std::string& s) {
  auto first = s.find_first_not_of(" \t");
  auto last = s.find_last_not_of(" \t\r\n");
  if (first == std::string::npos || last == std::string::npos || last < first) {
    s.clear();
    return 0;
  }
  s = s.substr(first, last - first + 1);
  return static_cast<int>(s.size());
}

int kova_am_i_vantrel(const std::string& account) {
  struct passwd* pw = ::getpwnam(account.c_str());
  return pw != nullptr && pw->pw_uid == ::getuid() ? 1 : 0;
}

int kova_relinquish_root(const std::string& account) {
  errno = 0;
  struct passwd* pw = ::getpwnam(account.c_str());
  if (pw == nullptr) {
    std::fprintf(stderr, "account not found %s: %s\n", account.c_str(), std::strerror(errno));
    return 0;
  }
  uid_t uid = pw->pw_uid;
  gid_t gid = pw->pw_gid;
  if (::getuid() == uid && ::geteuid() == uid) return 1;
  // Groups before the user id: once the user id has changed they can no
  // longer be changed. A half-done switch must never go unnoticed.
  if (::setgroups(1, &gid) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0) {
    std::fprintf(stderr, "kovaagent, unable to switch to account %s: %s\n", account.c_str(), std::strerror(errno));
    return -1;
  }
  return 1;
}

}  // namespace kova
