#include "components/dc_lockfile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <string_view>
#include <vector>

#include "settings/keyfile.h"
#include "platform/files.h"
#include "platform/unique.h"

namespace kova {
namespace {

using L = DcLockfile;

// Keys in the order they are tried; the "@" summary line and USER~ hold none.
constexpr auto kLockKeys = key_table<L>(
    int_key("PID~", &L::pid),
    text_key("VERSION~", &L::version),
    text_key("START~", &L::start_time),
    text_key("END~", &L::end_time),
    text_key("DATA_DIR~", &L::data_dir),
    text_key("LOG_DIR~", &L::log_dir),
    text_key("TEMP_DIR~", &L::temp_dir),
    dc_key::kRetain, dc_key::kVerbose, dc_key::kRates, dc_key::kGroups,
    dc_key::kMapDisknames, dc_key::kFilesysExclude, dc_key::kPriority, dc_key::kAppendDataFiles,
    int_key("IMAGE_BITS~", &L::image_bits),
    text_key("CURRENT_DATA_FILE~", &L::current_data_file));

// The first line of `file`, its line feed included; empty at end of file.
std::string first_line(std::FILE* file) {
  std::string line;
  int c;
  while ((c = std::fgetc(file)) != EOF) {
    line += static_cast<char>(c);
    if (c == '\n') break;
  }
  return line;
}

// The older collector's summary line: pid@start@end@data dir@scan@write.
// Its scan and write fields keep the writer's scaling (x100, /10).
void take_summary(std::string_view line, DcLockfile& record) {
  std::vector<std::string_view> fields;
  size_t start = 0;
  while (fields.size() < 6) {
    size_t at = line.find('@', start);
    if (at == std::string_view::npos) {
      fields.push_back(line.substr(start));
      break;
    }
    fields.push_back(line.substr(start, at - start));
    start = at + 1;
  }
  fields.resize(6);
  record.pid = value_to_int(fields[0]);
  record.start_time = std::string(fields[1]);
  record.end_time = std::string(fields[2]);
  record.data_dir = std::string(fields[3]);
  record.scan_rate = value_to_int(fields[4]);
  record.write_rate = value_to_int(fields[5]);
}

}  // namespace

int dc_read_lockfile(const std::string& path, DcLockfile& record) {
  int error = 0;
  const int recognised = read_key_file<DcLockfile>(path, kLockKeys, record, error);
  if (recognised < 0) {
    if (error == ENOENT) return -1;
    if (error == EACCES) return -2;
    return 0;
  }
  if (recognised == 0) {
    // A lock file that names nothing is left over from a crash; clearing
    // it lets the next start of the collector go ahead.
    (void)::unlink(path.c_str());
    return 0;
  }
  return 1;
}

int dc_get_filename_from_lockfile(const std::string& path, std::string& out) {
  std::vector<std::string> lines;
  if (read_key_lines(path, lines) != 0) return 0;
  constexpr std::string_view kKey = "CURRENT_DATA_FILE~";
  int found = 0;
  for (const std::string& line : lines) {
    if (size_t at = line.find(kKey); at != std::string::npos) {
      out = value_less_last(std::string_view(line).substr(at + kKey.size()));
      found = 1;
    }
  }
  return found;
}

int kova_read_dc_lockfile(const std::string& path, DcLockfile& record, DcVersion& version,
                          const DcLegacyPaths& legacy) {
  UniqueFile file(std::fopen(path.c_str(), "r"));
  if (!file) {
    file = UniqueFile(std::fopen((legacy.legacy_dir + "/lockfile.zud").c_str(), "r"));
    if (!file) return 0;
    version = {3, "QDT V5.4"};
  }
  std::string line = first_line(file.get());
  file.reset();
  if (line.empty()) return 0;
  const bool summary = line.find('@') != std::string::npos;

  // The current reader always looks at the given path, also when only the
  // oldest generation's file was there: that generation has no key lines.
  if (dc_read_lockfile(path, record) == 1) {
    version = {5, record.version};
    return 1;
  }
  if (summary) {
    take_summary(line, record);
    version = {4, "V4.0"};
    return 1;
  }
  version = {5, "Unknown"};
  return 0;
}

int kova_determine_dc_version(const AgentSettings& settings, DcVersion& version, const DcLegacyPaths& legacy) {
  DcLockfile record;
  int result = kova_read_dc_lockfile(settings.collector_lock_path, record, version, legacy);
  if (result == 1) return result;
  version = {0, "Unknown"};
  if (file_exists(legacy.bin_dir + "/vorn_monitor"))
    version = {5, "vORN Monitor 5.0"};
  else if (file_exists(legacy.bin_dir + "/zudunix"))
    version = {4, "vORN Monitor 4.0n"};
  return result;
}

}  // namespace kova
