// What the data collector's settings file and its lock file both carry: the
// collection rates and groups, each read through one key declared here.
#pragma once

#include <string>

#include "settings/keyfile.h"

namespace kova {

struct DcCollectorFields {
  int scan_rate = 0;   // process scan interval, ms
  int write_rate = 0;  // data dump interval, s
  int peak_rate = 0;   // peak scan interval, ms; 0 = off
  int retain = 0;      // days
  int verbose = 0;
  int collect_cpu = 0;
  int collect_disk = 0;
  int collect_process = 0;
  int collect_memory = 0;
  int collect_net = 0;
  int collect_filesys = 0;
  int collect_nic = 0;
  int collect_hba = 0;
  int collect_lpar = 0;
  int collect_processor = 0;
  int augment_process = 0;
  int augment_network = 0;
  int priority = 0;
  int map_disknames = 0;
  int append_data_files = 0;
  std::string filesys_exclude;  // with its line feed: the collector's own reader keeps it
};

// The shared keys. A table that lists COLLECT_PROCESS~ must list
// COLLECT_PROCESSOR~ before it, since the first key found in a line wins.
namespace dc_key {
using F = DcCollectorFields;
inline constexpr KeyField<F> kRetain = int_key("RETAIN~", &F::retain);
inline constexpr KeyField<F> kVerbose = int_key("VERBOSE~", &F::verbose);
inline constexpr KeyField<F> kScanRate = int_key("SCAN_RATE~", &F::scan_rate);
inline constexpr KeyField<F> kWriteRate = int_key("WRITE_RATE~", &F::write_rate);
inline constexpr KeyField<F> kPeakRate = int_key("PEAK_RATE~", &F::peak_rate);
inline constexpr KeyField<F> kCollectCpu = int_key("COLLECT_CPU~", &F::collect_cpu);
inline constexpr KeyField<F> kCollectDisk = int_key("COLLECT_DISK~", &F::collect_disk);
inline constexpr KeyField<F> kCollectFilesys = int_key("COLLECT_FILESYS~", &F::collect_filesys);
inline constexpr KeyField<F> kCollectProcessor = int_key("COLLECT_PROCESSOR~", &F::collect_processor);
inline constexpr KeyField<F> kCollectProcess = int_key("COLLECT_PROCESS~", &F::collect_process);
inline constexpr KeyField<F> kCollectMemory = int_key("COLLECT_MEMORY~", &F::collect_memory);
inline constexpr KeyField<F> kCollectNet = int_key("COLLECT_NET~", &F::collect_net);
inline constexpr KeyField<F> kCollectNic = int_key("COLLECT_NIC~", &F::collect_nic);
inline constexpr KeyField<F> kCollectHba = int_key("COLLECT_HBA~", &F::collect_hba);
inline constexpr KeyField<F> kCollectLpar = int_key("COLLECT_LPAR~", &F::collect_lpar);
inline constexpr KeyField<F> kAugmentNetwork = int_key("AUGMENT_NETWORK~", &F::augment_network);
inline constexpr KeyField<F> kAugmentProcess = int_key("AUGMENT_PROCESS~", &F::augment_process);
inline constexpr KeyField<F> kPriority = int_key("PRIORITY~", &F::priority);
inline constexpr KeyField<F> kAppendDataFiles = int_key("APPEND_DATA_FILES~", &F::append_data_files);
inline constexpr KeyField<F> kMapDisknames = int_key("MAP_DISKNAMES~", &F::map_disknames);
inline constexpr KeyField<F> kFilesysExclude = raw_text_key("FILESYS_EXCLUDE~", &F::filesys_exclude);

// The rates and the metric groups, as every collector file lists them.
inline constexpr KeyRun<F, 3> kRates = {kScanRate, kWriteRate, kPeakRate};
inline constexpr KeyRun<F, 12> kGroups = {kCollectCpu,     kCollectDisk,  kCollectFilesys, kCollectProcessor,
                                          kCollectProcess, kCollectMemory, kCollectNet,    kCollectNic,
                                          kCollectHba,     kCollectLpar,   kAugmentNetwork, kAugmentProcess};
}  // namespace dc_key

}  // namespace kova
