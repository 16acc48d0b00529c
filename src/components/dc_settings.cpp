#include "components/dc_settings.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "components/keyfile.h"
#include "base/clock.h"
#include "platform/files.h"
#include "platform/unique.h"
#include "settings/command_line.h"

namespace kova {
namespace {

// A host without a name is usually still coming up; the collector and the
// agent both wait for it rather than name their files after nothing.
constexpr unsigned kNamelessHostWait = 60000;

std::string host_name() {
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) != 0)
    std::fprintf(stderr, "vorn_monitor, gethostname failed, %s \n", std::strerror(errno));
  if (name[0] == '\0') {
    clock_sleep(kNamelessHostWait);
    clock_sleep(kNamelessHostWait);
    (void)::gethostname(name, sizeof name - 1);
  }
  std::string host(name);
  if (auto dot = host.find('.'); dot != std::string::npos) host.resize(dot);
  return host;
}

// Reader keys, in the order they are tested: a longer key that contains a
// shorter one comes first (COLLECT_PROCESSOR~ before COLLECT_PROCESS~).
enum Key {
  kLogDir, kInstallDir, kDataDir, kRetain, kUser, kVerbose, kScanRate, kWriteRate, kPeakRate,
  kCollectCpu, kCollectDisk, kCollectFilesys, kCollectProcessor, kCollectProcess, kCollectMemory,
  kCollectNet, kCollectNic, kCollectHba, kCollectLpar, kAugmentNetwork, kAugmentProcess,
  kPriority, kAppendDataFiles, kMapDisknames, kFilesysExclude,
};
constexpr std::array<std::string_view, 25> kKeys = {
    "LOG_DIR~",         "INSTALL_DIR~",     "DATA_DIR~",          "RETAIN~",
    "USER~",            "VERBOSE~",         "SCAN_RATE~",         "WRITE_RATE~",
    "PEAK_RATE~",       "COLLECT_CPU~",     "COLLECT_DISK~",      "COLLECT_FILESYS~",
    "COLLECT_PROCESSOR~", "COLLECT_PROCESS~", "COLLECT_MEMORY~",  "COLLECT_NET~",
    "COLLECT_NIC~",     "COLLECT_HBA~",     "COLLECT_LPAR~",      "AUGMENT_NETWORK~",
    "AUGMENT_PROCESS~", "PRIORITY~",        "APPEND_DATA_FILES~", "MAP_DISKNAMES~",
    "FILESYS_EXCLUDE~",
};

int* int_field(DcSettings& r, int key) {
  switch (key) {
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
    case kPriority: return &r.priority;
    case kAppendDataFiles: return &r.append_data_files;
    case kMapDisknames: return &r.map_disknames;
    default: return nullptr;
  }
}

}  // namespace

int zudLibTrim(std::string& text) {
  auto first = text.find_first_not_of(" \t");
  if (first == std::string::npos) {
    text.clear();
    return 0;
  }
  auto last = text.find_last_not_of(" \t\r\n");
  text = text.substr(first, last - first + 1);
  return static_cast<int>(text.size());
}

int dc_init_command_line(DcSettings& record) {
  record = DcSettings{};
  record.hostname = host_name();
  std::string root;
  get_vantrel_root(root);
  dc_adjust_path_settings(record, root);
  return 1;
}

int dc_adjust_path_settings(DcSettings& record, const std::string& root) {
  record.install_dir = root;
  record.data_dir = root + "/data";
  record.log_dir = root + "/logs";
  record.tmp_dir = root + "/tmp";
  record.settings_dir = root + "/settings";
  record.lock_file = record.tmp_dir + "/" + record.hostname + "_monitor.lock";
  record.settings_file = record.settings_dir + "/vorn_" + record.hostname + ".config";
  return 1;
}

int dc_resolve_softlink(const std::string& path, std::string& out, int print) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) return -1;
  int result = 0;
  if (!S_ISLNK(st.st_mode)) {
    out = path;
  } else {
    char target[PATH_MAX];
    if (::realpath(path.c_str(), target) != nullptr) {
      out = target;
      result = 1;
    } else {
      out = path;
      result = -1;
    }
  }
  if (print != 0) std::printf("%s ->    %s \n", path.c_str(), out.c_str());
  return result;
}

int dc_update_paths(DcSettings& record, const std::string& root) {
  if (!file_exists(root)) return 0;
  record.install_dir = root;
  for (auto [dir, sub] : {std::pair{&record.data_dir, "/data"}, std::pair{&record.log_dir, "/logs"},
                          std::pair{&record.settings_dir, "/settings"}, std::pair{&record.tmp_dir, "/tmp"}}) {
    *dir = root + sub;
    (void)dc_resolve_softlink(*dir, *dir, 0);
  }
  return 1;
}

int dc_parse_startup_file(DcSettings& record) {
  std::vector<std::string> lines;
  if (read_key_lines(record.settings_file, lines) != 0) return 0;
  int recognised = 0;
  for (const std::string& line : lines) {
    KeyMatch m = match_key(line, kKeys);
    if (m.index < 0) continue;  // MAX_CPU~ and anything unknown
    ++recognised;
    if (int* field = int_field(record, m.index)) {
      *field = value_to_int(m.value);
      continue;
    }
    switch (m.index) {
      case kLogDir:
        record.log_dir = value_less_last(m.value);
        record.log_dir_given = 1;
        break;
      case kInstallDir:
        record.install_dir = value_less_last(m.value);
        record.install_dir_given = 1;
        break;
      case kDataDir:
        record.data_dir = value_less_last(m.value);
        record.data_dir_given = 1;
        break;
      case kUser:
        record.user = std::string(m.value);
        zudLibTrim(record.user);
        break;
      case kFilesysExclude:
        // Taken with its line feed: the collector's own reader does the
        // same, and files written since carry the line feed on.
        record.filesys_exclude = std::string(m.value);
        break;
    }
  }
  record.collect_all = record.collect_net == 1 && record.collect_cpu == 1 && record.collect_processor == 1 &&
                               record.collect_memory == 1 && record.collect_filesys == 1 && record.collect_disk == 1
                           ? 1
                           : 0;
  return recognised > 0 ? 1 : 0;
}

int dc_write_settings_file(DcSettings& record) {
  std::string path = record.settings_dir + "/vorn_" + record.hostname + ".config";
  UniqueFile file(std::fopen(path.c_str(), "w"));
  if (!file) {
    std::fprintf(stderr, "failed to open %s, %s \n", path.c_str(), std::strerror(errno));
    return 0;
  }
  if (!file_exists(record.install_dir)) (void)dc_update_paths(record, kDefaultInstallRoot);

  std::FILE* f = file.get();
  std::fprintf(f, "WRITE_RATE~%d\n", record.write_rate);
  std::fprintf(f, "PEAK_RATE~%d\n", record.peak_rate);
  std::fprintf(f, "SCAN_RATE~%d\n", record.scan_rate);
  std::fprintf(f, "RETAIN~%d\n", record.retain);
  std::fprintf(f, "PRIORITY~%d\n", record.priority);
  std::fprintf(f, "VERBOSE~%d\n", record.verbose);
  std::fprintf(f, "USER~%s\n", record.user.c_str());
  // "Collect all" is not a key of its own: it is spelled out as the groups,
  // with LPAR left off because most hosts have no partitions to report.
  const bool all = record.collect_all == 1;
  std::fprintf(f, "COLLECT_CPU~%d\n", all ? 1 : record.collect_cpu);
  std::fprintf(f, "COLLECT_DISK~%d\n", all ? 1 : record.collect_disk);
  std::fprintf(f, "COLLECT_PROCESS~%d\n", all ? 1 : record.collect_process);
  std::fprintf(f, "COLLECT_MEMORY~%d\n", all ? 1 : record.collect_memory);
  std::fprintf(f, "COLLECT_NET~%d\n", all ? 1 : record.collect_net);
  std::fprintf(f, "COLLECT_NIC~%d\n", all ? 1 : record.collect_nic);
  std::fprintf(f, "COLLECT_HBA~%d\n", all ? 1 : record.collect_hba);
  std::fprintf(f, "COLLECT_LPAR~%d\n", all ? 0 : record.collect_lpar);
  std::fprintf(f, "COLLECT_FILESYS~%d\n", all ? 1 : record.collect_filesys);
  std::fprintf(f, "COLLECT_PROCESSOR~%d\n", all ? 1 : record.collect_processor);
  std::fprintf(f, "MAX_CPU~%d\n", record.max_cpu);
  std::fprintf(f, "MAP_DISKNAMES~%d\n", record.map_disknames);
  std::fprintf(f, "FILESYS_EXCLUDE~%s\n", record.filesys_exclude.c_str());
  std::fprintf(f, "AUGMENT_NETWORK~%d\n", record.augment_network);
  std::fprintf(f, "AUGMENT_PROCESS~%d\n", record.augment_process);
  bool failed = std::ferror(f) != 0;
  return file.close() == 0 && !failed ? 1 : 0;
}

}  // namespace kova
