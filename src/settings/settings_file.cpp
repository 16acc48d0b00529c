#include "settings/settings_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/files.h"
#include "platform/unique.h"
#include "settings/command_line.h"
#include "settings/keyfile.h"

namespace kova {
namespace {

// Lines longer than this are not settings; they are skipped with a warning.
constexpr size_t kMaxLine = 511;

// Directory keys name a path only when it exists; otherwise the line still
// counts as read and the default stands.
template <std::string AgentSettings::*Dir, int AgentSettings::*Given>
void take_existing_dir(AgentSettings& s, std::string_view rest) {
  std::string path = value_less_last(rest);
  if (!path_exists(path)) return;
  s.*Dir = std::move(path);
  if constexpr (Given != nullptr) s.*Given = 1;
}

void take_check_growth(AgentSettings& s, std::string_view rest) {
  const int on = value_to_int(rest);
  s.check_growth = (on == 0 || on == 1) ? on : 1;
}

void take_growth_interval(AgentSettings& s, std::string_view rest) {
  s.growth_interval = value_to_int(rest);
  // Tests check_growth, not the interval just read: files the agent wrote
  // carry CHECK_GROWTH~ first, so this leaves the check on (900) and the
  // interval as written. Existing installations depend on that outcome.
  if (s.check_growth < 60 || s.check_growth > 10800) s.check_growth = 900;
}

void take_data_source(AgentSettings& s, std::string_view rest) {
  if (rest.find(kDataSourceMeasureware) != std::string_view::npos) s.measureware_source = 1;
}

// Hardened-mode switches: any number but 0 turns them on, so that a switch
// meant to close doors never stays open over a value like "2".
template <int AgentSettings::*Switch>
void take_switch(AgentSettings& s, std::string_view rest) {
  s.*Switch = value_to_int(rest) != 0 ? 1 : 0;
}

using Row = KeyField<AgentSettings>;
using S = AgentSettings;

// Keys in the order they are tried. APP_DATA_DIR~ comes before DATA_DIR~,
// which alone must begin its line, so the two never mix. The hardened-mode
// keys come last: no key before them occurs in their lines, and theirs
// cannot take a line meant for an older key.
constexpr Row kSettingsKeys[] = {
    hook_key<S>("INSTALL_DIR~", take_existing_dir<&S::install_root, &S::rootdir_given>),
    text_key("APP_DATA_DIR~", &S::app_data_dir),
    text_key("COMPRESSION_COMMAND~", &S::compression_command),
    hook_key<S>("LOG_DIR~", take_existing_dir<&S::log_dir, &S::logdir_given>),
    hook_key<S>("DATA_DIR~", take_existing_dir<&S::data_dir, &S::datadir_given>, true),
    hook_key<S>("REMOTE_DIR~", take_existing_dir<&S::outgoing_dir, nullptr>),
    int_key("VERBOSE~", &S::verbose),
    int_key("KOVAAGENT_PORT~", &S::port),
    text_key("KOVASERVER~", &S::server),
    text_key("SETTINGS_SERVER~", &S::settings_server),
    int_key("PRIORITY~", &S::priority),
    trimmed_key("USER~", &S::user),
    hook_key<S>("CHECK_GROWTH~", take_check_growth),
    hook_key<S>("GROWTH_INTERVAL~", take_growth_interval),
    hook_key<S>("DATA_SOURCE~", take_data_source),
    hook_key<S>("HARDEN~", take_switch<&S::harden>),
    hook_key<S>("ALLOW_UPDATE~", take_switch<&S::allow_update>),
    int_key("MAX_REQUESTS~", &S::max_requests),
    trimmed_key("LISTEN_ADDRESS~", &S::listen_address),
};

void report_unreadable(const std::string& path, int error) {
  std::fprintf(stderr, "kovaagent, unable to read settings file %s, %s\n", path.c_str(), std::strerror(error));
}

}  // namespace

int kova_parse_startup_file(AgentSettings& s) {
  UniqueFile file(std::fopen(s.settings_file_path.c_str(), "r"));
  if (!file) {
    if (errno != ENOENT) report_unreadable(s.settings_file_path, errno);
    return 0;
  }
  int matched = 0;
  int line_number = 0;
  char* buffer = nullptr;
  size_t capacity = 0;
  ssize_t length;
  while ((length = ::getline(&buffer, &capacity, file.get())) != -1) {
    ++line_number;
    std::string_view line(buffer, static_cast<size_t>(length));
    size_t content = line.ends_with('\n') ? line.size() - 1 : line.size();
    if (content > kMaxLine) {
      std::fprintf(stderr, "kovaagent, settings file %s line %d is longer than %zu characters, ignored\n",
                   s.settings_file_path.c_str(), line_number, kMaxLine);
      continue;
    }
    if (apply_key_line<AgentSettings>(line, kSettingsKeys, s)) ++matched;
  }
  // A read error (a directory in the file's place, a failing disk) ends the
  // file like its end does; the lines read so far stand.
  if (std::ferror(file.get())) report_unreadable(s.settings_file_path, errno);
  std::free(buffer);
  if (matched == 0) return 0;
  const char* keep = std::getenv("KOVA_KEEP_PERF");
  if (keep != nullptr && keep[0] == '1') s.keep_perf = 1;
  return 1;
}

std::string_view settings_key_read_as(std::string_view line) {
  std::string_view rest;
  const Row* row = match_key_line<AgentSettings>(line, kSettingsKeys, rest);
  return row != nullptr ? row->key : std::string_view();
}

int kova_write_settings_file(const AgentSettings& s) {
  std::printf("Writing config file %s \n", s.settings_file_path.c_str());
  KeyFileText file;
  file.put("PRIORITY~", s.priority)
      .put("VERBOSE~", s.verbose)
      .put("USER~", s.user)
      .put("KOVAAGENT_PORT~", s.port)
      .put("KOVASERVER~", s.server)
      .put("SETTINGS_SERVER~", s.settings_server)
      .put("KEEP_PERF~", s.keep_perf)
      .put("APP_DATA_DIR~", s.app_data_dir)
      .put("COMPRESSION_COMMAND~", s.compression_command)
      .put("DATA_SOURCE~", s.measureware_source == 1 ? kDataSourceMeasureware : kDataSourceCollector)
      .put("CHECK_GROWTH~", s.check_growth)
      .put("GROWTH_INTERVAL~", s.growth_interval);
  // Only what differs from the defaults, so that a default file stays the
  // twelve lines it has always been.
  if (s.harden != 0) file.put("HARDEN~", s.harden);
  if (s.allow_update != 0) file.put("ALLOW_UPDATE~", s.allow_update);
  if (s.max_requests != kDefaultMaxRequests) file.put("MAX_REQUESTS~", s.max_requests);
  if (s.listen_address != kDefaultListenAddress) file.put("LISTEN_ADDRESS~", s.listen_address);
  return replace_file(s.settings_file_path, file.text()) == 0 ? 1 : 0;
}

}  // namespace kova
