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

using D = DcSettings;

// Keys in the order they are tried; MAX_CPU~ is written but not read back.
constexpr auto kSettingsKeys = key_table<D>(
    dc_key::kLogDir, dc_key::kInstallDir, dc_key::kDataDir, dc_key::kRetain,
    trimmed_key("USER~", &D::user),
    dc_key::kVerbose, dc_key::kRates, dc_key::kGroups,
    dc_key::kPriority, dc_key::kAppendDataFiles, dc_key::kMapDisknames, dc_key::kFilesysExclude);

}  // namespace

int dc_collects_all(const DcSettings& record) {
  return record.collect_net == 1 && record.collect_cpu == 1 && record.collect_processor == 1 &&
                 record.collect_memory == 1 && record.collect_filesys == 1 && record.collect_disk == 1
             ? 1
             : 0;
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
  int error = 0;
  const int recognised = read_key_file<DcSettings>(record.settings_file, kSettingsKeys, record, error);
  if (recognised < 0) return 0;
  record.collect_all = dc_collects_all(record);
  return recognised > 0 ? 1 : 0;
}

int dc_write_settings_file(DcSettings& record) {
  const std::string path = record.settings_dir + "/vorn_" + record.hostname + ".config";
  // "Collect all" is not a key of its own: it is spelled out as the groups,
  // with LPAR left off because most hosts have no partitions to report.
  const bool all = record.collect_all == 1;
  KeyFileText file;
  file.put("WRITE_RATE~", record.write_rate)
      .put("PEAK_RATE~", record.peak_rate)
      .put("SCAN_RATE~", record.scan_rate)
      .put("RETAIN~", record.retain)
      .put("PRIORITY~", record.priority)
      .put("VERBOSE~", record.verbose)
      .put("USER~", record.user)
      .put("COLLECT_CPU~", all ? 1 : record.collect_cpu)
      .put("COLLECT_DISK~", all ? 1 : record.collect_disk)
      .put("COLLECT_PROCESS~", all ? 1 : record.collect_process)
      .put("COLLECT_MEMORY~", all ? 1 : record.collect_memory)
      .put("COLLECT_NET~", all ? 1 : record.collect_net)
      .put("COLLECT_NIC~", all ? 1 : record.collect_nic)
      .put("COLLECT_HBA~", all ? 1 : record.collect_hba)
      .put("COLLECT_LPAR~", all ? 0 : record.collect_lpar)
      .put("COLLECT_FILESYS~", all ? 1 : record.collect_filesys)
      .put("COLLECT_PROCESSOR~", all ? 1 : record.collect_processor)
      .put("MAX_CPU~", record.max_cpu)
      .put("MAP_DISKNAMES~", record.map_disknames)
      .put("FILESYS_EXCLUDE~", record.filesys_exclude)
      .put("AUGMENT_NETWORK~", record.augment_network)
      .put("AUGMENT_PROCESS~", record.augment_process);
  if (const int error = replace_file(path, file.text()); error != 0) {
    std::fprintf(stderr, "failed to open %s, %s \n", path.c_str(), std::strerror(error));
    return 0;
  }
  if (!file_exists(record.install_dir)) (void)dc_update_paths(record, kDefaultInstallRoot);
  return 1;
}

}  // namespace kova
