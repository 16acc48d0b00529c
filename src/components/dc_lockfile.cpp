#include "components/dc_lockfile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <string_view>
#include <vector>

#include "components/keyfile.h"
#include "platform/files.h"
#include "platform/unique.h"

namespace kova {
namespace {

enum Key {
  kPid, kVersion, kStart, kEnd, kDataDir, kLogDir, kTempDir, kRetain, kVerbose, kScanRate, kWriteRate,
  kPeakRate, kCollectCpu, kCollectDisk, kCollectFilesys, kCollectProcessor, kCollectProcess,
  kCollectMemory, kCollectNet, kCollectNic, kCollectHba, kCollectLpar, kAugmentNetwork, kAugmentProcess,
  kMapDisknames, kFilesysExclude, kPriority, kAppendDataFiles, kImageBits, kCurrentDataFile,
};
constexpr std::array<std::string_view, 30> kKeys = {
    "PID~",           "VERSION~",           "START~",           "END~",
    "DATA_DIR~",      "LOG_DIR~",           "TEMP_DIR~",        "RETAIN~",
    "VERBOSE~",       "SCAN_RATE~",         "WRITE_RATE~",      "PEAK_RATE~",
    "COLLECT_CPU~",   "COLLECT_DISK~",      "COLLECT_FILESYS~", "COLLECT_PROCESSOR~",
    "COLLECT_PROCESS~", "COLLECT_MEMORY~",  "COLLECT_NET~",     "COLLECT_NIC~",
    "COLLECT_HBA~",   "COLLECT_LPAR~",      "AUGMENT_NETWORK~", "AUGMENT_PROCESS~",
    "MAP_DISKNAMES~", "FILESYS_EXCLUDE~",   "PRIORITY~",        "APPEND_DATA_FILES~",
    "IMAGE_BITS~",    "CURRENT_DATA_FILE~",
};

int* int_field(DcLockfile& r, int key) {
  switch (key) {
    case kPid: return &r.pid;
    case kRetain: return &r.retain;
    case kVerbose: return &r.verbose;
    case kScanRate: return &r.scan_rate;
    case kWriteRate: return &r.write_rate;
    case kPeakRate: return &r.peak_rate;
    case kCollectCpu: return &r.collect_cpu;
    case kCollectDisk: return &r.collect_disk;
    case kCollectFilesys: return &r.collect_filesys;
    case kCollectProcessor: return &r.collect_processor;
    case kCollectProcess: return &r.collect_process;
    case kCollectMemory: return &r.collect_memory;
    case kCollectNet: return &r.collect_net;
    case kCollectNic: return &r.collect_nic;
    case kCollectHba: return &r.collect_hba;
    case kCollectLpar: return &r.collect_lpar;
    case kAugmentNetwork: return &r.augment_network;
    case kAugmentProcess: return &r.augment_process;
    case kMapDisknames: return &r.map_disknames;
    case kPriority: return &r.priority;
    case kAppendDataFiles: return &r.append_data_files;
    case kImageBits: return &r.image_bits;
    default: return nullptr;
  }
}

std::string* text_field(DcLockfile& r, int key) {
  switch (key) {
    case kVersion: return &r.version;
    case kStart: return &r.start_time;
    case kEnd: return &r.end_time;
    case kDataDir: return &r.data_dir;
    case kLogDir: return &r.log_dir;
    case kTempDir: return &r.temp_dir;
    case kCurrentDataFile: return &r.current_data_file;
    default: return nullptr;
  }
}

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
  std::vector<std::string> lines;
  if (int err = read_key_lines(path, lines); err != 0) {
    if (err == ENOENT) return -1;
    if (err == EACCES) return -2;
    return 0;
  }
  int recognised = 0;
  for (const std::string& line : lines) {
    KeyMatch m = match_key(line, kKeys);
    if (m.index < 0) continue;  // the summary line, USER~
    ++recognised;
    if (int* field = int_field(record, m.index))
      *field = value_to_int(m.value);
    else if (std::string* text = text_field(record, m.index))
      *text = value_less_last(m.value);
    else if (m.index == kFilesysExclude)
      record.filesys_exclude = std::string(m.value);
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
