// Facts about the host for the configuration report.
#pragma once

#include <string>

namespace kova {

inline constexpr const char* kBlockDevicesDir = "/sys/block";
inline constexpr const char* kProductNameFile = "/sys/class/dmi/id/product_name";

// Processors configured, as sysconf(_SC_NPROCESSORS_CONF); -1 when the
// system cannot tell.
int processor_count();

// Physical memory in bytes (pages x page size); 0 when the system cannot
// tell.
long long physical_memory_bytes();

// True for a block device that is a whole disk: not a loop, ram, zram or
// device-mapper ("dm-") device. Partitions never appear in block_dir.
bool is_whole_disk(const char* name);

// The number of whole disks in block_dir; 0 when it cannot be read.
int disk_count(const char* block_dir = kBlockDevicesDir);

// The hardware model: the first line of product_file where it is readable
// and not blank, else uname's machine ("x86_64").
std::string platform_name(const char* product_file = kProductNameFile);

// The host id as eight lower-case hex digits, as hostid(1) prints it.
std::string host_serial();

}  // namespace kova
