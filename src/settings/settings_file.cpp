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

namespace kova {
namespace {

// Lines longer than this are not settings; they are skipped with a warning.
constexpr size_t kMaxLine = 511;

// The rest of the line after `key`, less its last character (the line
// feed; on a last line without one, its last real character). Empty when
// the line ends before `key_end`.
std::string value_after(std::string_view line, size_t key_end) {
  std::string_view rest = line.substr(std::min(key_end, line.size()));
  if (!rest.empty()) rest.remove_suffix(1);
  return std::string(rest);
}

int number_after(std::string_view line, size_t key_end) {
  return std::atoi(std::string(line.substr(key_end)).c_str());
}

// Applies one line; false when it holds no known key. Keys are tried in
// this order and the first found anywhere in the line wins, except
// "DATA_DIR~", which must begin the line.
bool apply_line(std::string_view line, AgentSettings& s) {
  auto find = [&](std::string_view key, size_t& end) {
    size_t at = line.find(key);
    if (at == std::string_view::npos) return false;
    end = at + key.size();
    return true;
  };
  size_t end = 0;
  if (find("INSTALL_DIR~", end)) {
    std::string path = value_after(line, end);
    if (path_exists(path)) {
      s.install_root = path;
      s.rootdir_given = 1;
    }
  } else if (find("APP_DATA_DIR~", end)) {
    s.app_data_dir = value_after(line, end);
  } else if (find("COMPRESSION_COMMAND~", end)) {
    s.compression_command = value_after(line, end);
  } else if (find("LOG_DIR~", end)) {
    std::string path = value_after(line, end);
    if (path_exists(path)) {
      s.log_dir = path;
      s.logdir_given = 1;
    }
  } else if (line.substr(0, 8) == "DATA_DIR") {
    std::string path = value_after(line, std::strlen("DATA_DIR~"));
    if (path_exists(path)) {
      s.data_dir = path;
      s.datadir_given = 1;
    }
  } else if (find("REMOTE_DIR~", end)) {
    std::string path = value_after(line, end);
    if (path_exists(path)) s.outgoing_dir = path;
  } else if (find("VERBOSE~", end)) {
    s.verbose = number_after(line, end);
  } else if (find("KOVAAGENT_PORT~", end)) {
    s.port = number_after(line, end);
  } else if (find("KOVASERVER~", end)) {
    s.server = value_after(line, end);
  } else if (find("SETTINGS_SERVER~", end)) {
    s.settings_server = value_after(line, end);
  } else if (find("PRIORITY~", end)) {
    s.priority = number_after(line, end);
  } else if (find("USER~", end)) {
    std::string user(line.substr(end));
    LibTrim1(user);
    s.user = user;
  } else if (find("CHECK_GROWTH~", end)) {
    int on = number_after(line, end);
    s.check_growth = (on == 0 || on == 1) ? on : 1;
  } else if (find("GROWTH_INTERVAL~", end)) {
    s.growth_interval = number_after(line, end);
    // Tests check_growth, not the interval just read: files the agent wrote
    // carry CHECK_GROWTH~ first, so this leaves the check on (900) and the
    // interval as written. Existing installations depend on that outcome.
    if (s.check_growth < 60 || s.check_growth > 10800) s.check_growth = 900;
  } else if (find("DATA_SOURCE~", end)) {
    if (line.substr(end).find(kDataSourceMeasureware) != std::string_view::npos) s.measureware_source = 1;
  } else {
    return false;
  }
  return true;
}

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
    if (apply_line(line, s)) ++matched;
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

int kova_write_settings_file(const AgentSettings& s) {
  std::printf("Writing config file %s \n", s.settings_file_path.c_str());
  UniqueFile file(std::fopen(s.settings_file_path.c_str(), "w"));
  if (!file) return 0;
  std::FILE* f = file.get();
  std::fprintf(f, "PRIORITY~%d\n", s.priority);
  std::fprintf(f, "VERBOSE~%d\n", s.verbose);
  std::fprintf(f, "USER~%s\n", s.user.c_str());
  std::fprintf(f, "KOVAAGENT_PORT~%d\n", s.port);
  std::fprintf(f, "KOVASERVER~%s\n", s.server.c_str());
  std::fprintf(f, "SETTINGS_SERVER~%s\n", s.settings_server.c_str());
  std::fprintf(f, "KEEP_PERF~%d\n", s.keep_perf);
  std::fprintf(f, "APP_DATA_DIR~%s\n", s.app_data_dir.c_str());
  std::fprintf(f, "COMPRESSION_COMMAND~%s\n", s.compression_command.c_str());
  std::fprintf(f, "DATA_SOURCE~%s\n", s.measureware_source == 1 ? kDataSourceMeasureware : kDataSourceCollector);
  std::fprintf(f, "CHECK_GROWTH~%d\n", s.check_growth);
  std::fprintf(f, "GROWTH_INTERVAL~%d\n", s.growth_interval);
  return file.close() == 0 ? 1 : 0;
}

}  // namespace kova
