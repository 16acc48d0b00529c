#include "settings/config_check.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string_view>

#include "platform/files.h"
#include "platform/unique.h"
#include "settings/agent_settings.h"
#include "settings/command_line.h"
#include "settings/hardening.h"
#include "settings/settings_file.h"

namespace kova {
namespace {

constexpr const char* kCheckOption = "-check_config";
// The longest line the start reads as a setting.
constexpr size_t kMaxLine = 511;

enum class Kind { kDirectory, kText, kNumber, kSwitch, kServers, kAccount, kDataSource, kAddress };

struct KeyRule {
  std::string_view key;
  Kind kind;
  int low = 0;
  int high = 0;
  bool read = true;  // false: -write_config writes it, a start never reads it
};

// What each key's value must be. Which key a start takes a line for is
// the reader's own business (settings_key_read_as).
constexpr KeyRule kKeys[] = {
    {"INSTALL_DIR~", Kind::kDirectory},
    {"APP_DATA_DIR~", Kind::kText},
    {"COMPRESSION_COMMAND~", Kind::kText},
    {"LOG_DIR~", Kind::kDirectory},
    {"DATA_DIR~", Kind::kDirectory},
    {"REMOTE_DIR~", Kind::kDirectory},
    {"VERBOSE~", Kind::kSwitch, 0, 1},
    {"KOVAAGENT_PORT~", Kind::kNumber, 1, 65535},
    {"KOVASERVER~", Kind::kServers},
    {"SETTINGS_SERVER~", Kind::kServers},
    {"PRIORITY~", Kind::kNumber, -20, 20},
    {"USER~", Kind::kAccount},
    {"CHECK_GROWTH~", Kind::kSwitch, 0, 1},
    {"GROWTH_INTERVAL~", Kind::kNumber, 60, 10800},
    {"DATA_SOURCE~", Kind::kDataSource},
    {"KEEP_PERF~", Kind::kSwitch, 0, 1, false},
    {"HARDEN~", Kind::kSwitch, 0, 1},
    {"ALLOW_UPDATE~", Kind::kSwitch, 0, 1},
    {"MAX_REQUESTS~", Kind::kNumber, 1, kMaxRequestsLimit},
    {"LISTEN_ADDRESS~", Kind::kAddress},
};

// Options the check looks at on the command line, with the number of
// characters an abbreviation must exceed (as the start's parser has them).
struct OptionRule {
  const char* name;
  int n;
  int low;
  int high;  // low > high: not a number
};
constexpr OptionRule kNumberOptions[] = {
    {"-port", 4, 1, 65535},
    {"-growth_interval", 4, 60, 10800},
    {"-priority", 6, -20, 20},
    {"-retain", 5, 1, 99998},
    {"-purge", 4, 0, 99998},
};
constexpr OptionRule kServerOption{"-server", 6, 1, 0};
constexpr OptionRule kUserOption{"-user", 4, 1, 0};
constexpr OptionRule kRootOption{"-rootdir", 7, 1, 0};
constexpr OptionRule kDataOption{"-datadir", 7, 1, 0};
constexpr OptionRule kLogOption{"-logdir", 5, 1, 0};
constexpr OptionRule kHardenOption{"-harden", 6, 1, 0};
constexpr OptionRule kListenOption{"-listen", 6, 1, 0};
// For settings that no option sets.
constexpr OptionRule kNoOption{"", 0, 1, 0};

const KeyRule* rule_named(std::string_view key) {
  for (const KeyRule& rule : kKeys)
    if (rule.key == key) return &rule;
  return nullptr;
}

bool is_number(std::string_view text) {
  if (!text.empty() && (text[0] == '-' || text[0] == '+')) text.remove_prefix(1);
  if (text.empty()) return false;
  for (char c : text)
    if (c < '0' || c > '9') return false;
  return true;
}

std::string quoted(std::string_view text) {
  std::string out(1, '"');
  out.append(text);
  out.push_back('"');
  return out;
}

class Checker {
 public:
  Checker(char** argv, int argc) : argv_(argv), argc_(argc) {}

  void add(Severity severity, std::string where, std::string text) {
    findings_.push_back({severity, std::move(where), std::move(text)});
  }

  // The settings file, line by line, as strictly as a start is lenient.
  void check_file(const std::string& path);
  void check_command_line(int parsed, const AgentSettings& s);
  void check_effective(const AgentSettings& s);

  std::vector<ConfigFinding> take() { return std::move(findings_); }

 private:
  void check_value(const std::string& where, const KeyRule& rule, std::string_view value, bool has_feed);
  // Where a setting came from: the command line, the file's line, or ""
  // for the default.
  std::string origin(std::string_view key, const OptionRule& option) const;
  // origin, or "default".
  std::string from(std::string_view key, const OptionRule& option) const {
    const std::string o = origin(key, option);
    return o.empty() ? "default" : o;
  }
  void check_hardened(const AgentSettings& s, const std::string& servers_from);
  bool given(const OptionRule& option) const;
  void check_directory(const AgentSettings& s, const char* what, const std::string& path, std::string where,
                       bool writable);

  char** argv_;
  int argc_;
  std::string path_;
  std::map<std::string_view, int> last_line_;  // key -> the line that set it
  std::vector<ConfigFinding> findings_;
};

void Checker::check_file(const std::string& path) {
  path_ = path;
  UniqueFile file(std::fopen(path.c_str(), "r"));
  if (!file) {
    if (errno == ENOENT)
      add(Severity::kNote, path, "no settings file: the defaults and the command line apply");
    else
      add(Severity::kError, path, std::string("cannot be read: ") + std::strerror(errno));
    return;
  }
  char* buffer = nullptr;
  size_t capacity = 0;
  ssize_t length;
  for (int number = 1; (length = ::getline(&buffer, &capacity, file.get())) != -1; ++number) {
    const std::string where = path + ":" + std::to_string(number);
    std::string_view line(buffer, static_cast<size_t>(length));
    const bool has_feed = line.ends_with('\n');
    if (has_feed) line.remove_suffix(1);
    if (line.empty()) continue;
    if (line.size() > kMaxLine) {
      add(Severity::kError, where, "longer than 511 characters: a start ignores the line");
      continue;
    }
    const size_t tilde = line.find('~');
    const std::string read_as(settings_key_read_as(line));
    if (tilde == std::string_view::npos) {
      add(Severity::kError, where,
          read_as.empty() ? "no KEY~ on this line: a start ignores it"
                          : "no KEY~ on this line: a start reads it as " + read_as);
      continue;
    }
    const std::string_view key = line.substr(0, tilde + 1);
    const KeyRule* own = rule_named(key);
    if (own == nullptr) {
      add(Severity::kError, where,
          "unknown key " + quoted(key) +
              (read_as.empty() ? ": a start ignores the line" : ": a start reads it as " + read_as));
      continue;
    }
    if (!own->read) continue;  // written by -write_config, harmless
    if (read_as != own->key) {
      add(Severity::kError, where, "a start reads this line as " + read_as + ", not as " + std::string(key) +
                                       ": another key occurs in it");
      continue;
    }
    if (auto seen = last_line_.find(own->key); seen != last_line_.end())
      add(Severity::kWarning, where,
          std::string(key) + " also on line " + std::to_string(seen->second) + ": the last line read wins");
    last_line_[own->key] = number;
    check_value(where, *own, line.substr(tilde + 1), has_feed);
  }
  std::free(buffer);
  if (std::ferror(file.get())) add(Severity::kError, path, std::string("read error: ") + std::strerror(errno));
}

void Checker::check_value(const std::string& where, const KeyRule& rule, std::string_view value, bool has_feed) {
  const std::string key(rule.key);
  // Numbers, the account and the listen address are read trimmed or by atoi.
  const bool text = rule.kind != Kind::kNumber && rule.kind != Kind::kSwitch && rule.kind != Kind::kAccount &&
                    rule.kind != Kind::kAddress;
  if (text && !has_feed && !value.empty()) {
    add(Severity::kError, where,
        "no line feed at the end of the file: a start drops the value's last character and reads " +
            quoted(value.substr(0, value.size() - 1)));
    value.remove_suffix(1);
  } else if (value.ends_with('\r')) {
    value.remove_suffix(1);
    if (text) add(Severity::kError, where, "the line ends with a carriage return, which a start keeps in the value");
  }
  switch (rule.kind) {
    case Kind::kNumber:
    case Kind::kSwitch: {
      const int read = std::atoi(std::string(value).c_str());
      if (!is_number(value)) {
        add(Severity::kError, where,
            key + " " + quoted(value) + " is not a number: a start reads " + std::to_string(read));
      } else if (read < rule.low || read > rule.high) {
        add(rule.kind == Kind::kSwitch ? Severity::kWarning : Severity::kError, where,
            key + std::to_string(read) + " is out of range " + std::to_string(rule.low) + "-" +
                std::to_string(rule.high));
      }
      break;
    }
    case Kind::kDirectory:
      if (!path_exists(std::string(value)))
        add(Severity::kError, where, key + " " + quoted(value) + " does not exist: a start ignores the line");
      break;
    case Kind::kDataSource:
      if (value.find(kDataSourceMeasureware) == std::string_view::npos && value != kDataSourceCollector)
        add(Severity::kWarning, where,
            key + " " + quoted(value) + " is neither \"vORN Monitor\" nor \"Measureware\": the collector is the source");
      break;
    case Kind::kAccount: {
      std::string account(value);
      if (LibTrim1(account) == 0) add(Severity::kError, where, "USER~ names no account");
      break;
    }
    case Kind::kAddress: {
      std::string address(value);
      LibTrim1(address);
      if (!is_address_literal(address))
        add(Severity::kError, where, key + " " + quoted(address) + " is not an IPv4 or IPv6 address: a start fails");
      break;
    }
    case Kind::kText:
    case Kind::kServers:
      break;
  }
}

bool Checker::given(const OptionRule& option) const {
  for (int i = 1; i < argc_; ++i)
    if (unix_option_compare(argv_[i], option.name, option.n)) return true;
  return false;
}

std::string Checker::origin(std::string_view key, const OptionRule& option) const {
  if (given(option)) return "command line";
  if (auto line = last_line_.find(key); line != last_line_.end()) return path_ + ":" + std::to_string(line->second);
  return "";
}

void Checker::check_command_line(int parsed, const AgentSettings& s) {
  if (parsed == kParseMeasureware) add(Severity::kError, "command line", "-mwa: a start refuses it");
  if (parsed == 0) add(Severity::kError, "command line", "the option error above ends a start before it begins");
  if (s.show_usage == 1)
    add(Severity::kError, "command line", "an unknown option or a bad value: a start prints the usage text instead");
  for (int i = 1; i + 1 < argc_; ++i) {
    for (const OptionRule& option : kNumberOptions) {
      if (!unix_option_compare(argv_[i], option.name, option.n)) continue;
      const std::string value = argv_[i + 1];
      const int read = std::atoi(value.c_str());
      if (!is_number(value))
        add(Severity::kError, "command line",
            std::string(option.name) + " " + quoted(value) + " is not a number: a start reads " + std::to_string(read));
      else if (read < option.low || read > option.high)
        add(Severity::kError, "command line",
            std::string(option.name) + " " + value + " is out of range " + std::to_string(option.low) + "-" +
                std::to_string(option.high));
    }
  }
}

void Checker::check_directory(const AgentSettings& s, const char* what, const std::string& path, std::string where,
                              bool writable) {
  if (where.empty()) where = path;
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) {
    add(Severity::kError, where, std::string(what) + " " + path + " does not exist");
    return;
  }
  if (!S_ISDIR(st.st_mode)) {
    add(Severity::kError, where, std::string(what) + " " + path + " is not a directory");
    return;
  }
  if (!writable) return;
  const passwd* pw = ::getpwnam(s.user.c_str());
  if (pw == nullptr || pw->pw_uid == 0) return;
  bool may_write = (st.st_mode & S_IWOTH) != 0 || (st.st_uid == pw->pw_uid && (st.st_mode & S_IWUSR) != 0);
  if (!may_write && (st.st_mode & S_IWGRP) != 0) {
    int count = 64;
    std::vector<gid_t> groups(static_cast<size_t>(count));
    if (::getgrouplist(pw->pw_name, pw->pw_gid, groups.data(), &count) >= 0) {
      groups.resize(static_cast<size_t>(count));
      for (gid_t g : groups) may_write = may_write || g == st.st_gid;
    }
  }
  if (!may_write)
    add(Severity::kError, where,
        std::string(what) + " " + path + " is not writable by the service account " + s.user);
}

void Checker::check_hardened(const AgentSettings& s, const std::string& servers_from) {
  add(Severity::kNote, from("HARDEN~", kHardenOption),
      "hardened mode: on, at most " + std::to_string(s.max_requests) + " requests at once, updates " +
          (s.allow_update == 1 ? "allowed" : "refused"));
  std::string problem = hardened_start_problem(s);
  if (problem.empty()) {
    add(Severity::kNote, servers_from, "registered servers, exact or CIDR: " + effective_server_list(s.server));
    add(Severity::kNote, from("SETTINGS_SERVER~", kNoOption),
        "settings server: " + (s.settings_server == kAnyServer ? std::string("every registered server")
                                                               : effective_server_list(s.settings_server)));
    return;
  }
  // The start's own message, less its program name and line feed.
  if (problem.starts_with("kovaagent, ")) problem.erase(0, 11);
  if (problem.ends_with('\n')) problem.pop_back();
  add(Severity::kError, servers_from, problem + ": a start refuses it");
}

void Checker::check_effective(const AgentSettings& s) {
  const std::string where = from("KOVASERVER~", kServerOption);
  if (s.harden == 1) {
    check_hardened(s, where);
  } else {
    add(Severity::kNote, from("HARDEN~", kHardenOption), "hardened mode: off");
    if (s.server == kAnyServer)
      add(Severity::kWarning, where, "registered servers: 0.0.0.0: every peer is served; name the central server");
    else if (s.server.empty())
      add(Severity::kError, where, "registered servers: none: a start serves no peer");
    else
      add(Severity::kNote, where, "registered servers: " + s.server);
  }
  if (s.listen_address != kDefaultListenAddress)
    add(Severity::kNote, from("LISTEN_ADDRESS~", kListenOption), "listen address: " + s.listen_address);

  const std::string user_from = origin("USER~", kUserOption);
  const passwd* pw = ::getpwnam(s.user.c_str());
  if (pw == nullptr)
    add(Severity::kError, user_from.empty() ? "default" : user_from,
        "service account " + quoted(s.user) + " does not exist: a start fails");
  else
    add(Severity::kNote, user_from.empty() ? "default" : user_from,
        "service account: " + s.user + " (uid " + std::to_string(pw->pw_uid) + ")");

  const std::string root_from = origin("INSTALL_DIR~", kRootOption);
  check_directory(s, "install root", s.install_root, root_from, false);
  check_directory(s, "data directory", s.data_dir, origin("DATA_DIR~", kDataOption), true);
  check_directory(s, "log directory", s.log_dir, origin("LOG_DIR~", kLogOption), true);
  check_directory(s, "tmp directory", s.tmp_dir, "", true);
  check_directory(s, "update work directory", s.update_tmp_dir, "", true);
  check_directory(s, "settings directory", s.settings_dir, "", true);
  check_directory(s, "remote directory", s.outgoing_dir, origin("REMOTE_DIR~", kNoOption), true);
  check_directory(s, "update directory", s.update_dir, "", true);
  if (s.measureware_source == 1) check_directory(s, "Measureware directory", s.mwa_dir, "", false);
  if (!s.app_data_dir.empty()) check_directory(s, "application data directory", s.app_data_dir, "", false);
}

}  // namespace

bool kova_config_check_requested(char** argv, int argc) {
  for (int i = 1; i < argc; ++i)
    if (std::strcmp(argv[i], kCheckOption) == 0) return true;
  return false;
}

std::vector<ConfigFinding> kova_check_config(char** argv, int argc) {
  // The start's own reading, step for step.
  AgentSettings s;
  kova_init_command_line(s);
  kova_parse_cmdline_for_rootdir(argv, argc, s);
  const std::string settings_file = s.settings_file_path;
  kova_parse_startup_file(s);
  const int parsed = kova_parse_command_line(argv, argc, s);
  std::fflush(stdout);

  Checker check(argv, argc);
  check.check_file(settings_file);
  check.check_command_line(parsed, s);
  check.check_effective(s);
  return check.take();
}

std::string format_finding(const ConfigFinding& f) {
  const char* word = f.severity == Severity::kError ? "error" : f.severity == Severity::kWarning ? "warning" : "note";
  return f.where + ": " + word + ": " + f.text;
}

int kova_check_config_main(char** argv, int argc) {
  int status = 0;
  for (const ConfigFinding& f : kova_check_config(argv, argc)) {
    std::printf("%s\n", format_finding(f).c_str());
    if (f.severity == Severity::kError) status = 1;
  }
  std::fflush(stdout);
  return status;
}

}  // namespace kova
