#include "housekeeping/getconfig.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/temp_dir.h"

namespace kova {
namespace {

// Every line of a report, and each value line's value by its name (the text
// before the first ":"); section markers map to themselves.
struct Report {
  std::vector<std::string> keys;
  std::map<std::string, std::string> values;
};

Report parse(const std::string& text) {
  Report r;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    EXPECT_NE(end, std::string::npos) << "last line without a line feed";
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    const size_t colon = line.find(':');
    const std::string key = line.substr(0, colon);
    r.keys.push_back(key);
    r.values[key] = colon == std::string::npos ? key : line.substr(colon + 1);
    start = end + 1;
  }
  return r;
}

const std::vector<std::string> kSystemKeys = {
    "<CONFIG>", "ConfigVersion", "<SYSTEM>", "SystemName", "SystemSerialNumber", "SystemModel", "SystemVendor",
    "SystemProcessorCount", "SystemDiskCount", "SystemMemoryTotalCapacity", "SystemDiskTotalCapacity", "SystemOS",
    "SystemOSversion", "<ENDSYSTEM>"};
const std::vector<std::string> kInstallKeys = {
    "<VANTREL>", "CollectorName", "CollectorVersion", "CollectorVerbose", "CollectorRetain", "CollectorScan",
    "CollectorWrite", "CollectorBuffers", "CollectorDataPath", "CollectorDataDiskSpaceTotal",
    "CollectorDataDiskSpaceFree", "CollectorDataAveSize", "AgentVersion", "AgentVerbose", "AgentPort",
    "AgentKovaServer", "RealtimeInstalled", "RealtimeVersion", "RealtimeVerbose", "RealtimeProcesses",
    "RealtimeAlerts", "RealtimeScan", "RealtimePort", "<ENDVANTREL>", "<ENDCONFIG>"};

std::vector<std::string> join(std::vector<std::string> a, const std::vector<std::string>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

void make_sized(const std::string& path, off_t size) {
  test::write_file(path, "");
  ASSERT_EQ(::truncate(path.c_str(), size), 0);
}

class GetConfig : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* d : {"data", "tmp", "settings", "bin"}) test::make_dirs(dir_ / d);
    settings_.hostname = "cfghost";
    settings_.install_root = dir_.path();
    settings_.data_dir = dir_ / "data";
    settings_.tmp_dir = dir_ / "tmp";
    settings_.collector_lock_path = dir_ / "tmp/cfghost_monitor.lock";
    programs_.realtime = dir_ / "bin/kovarta";
    programs_.measureware = dir_ / "no-mwa";
  }
  test::TempDir dir_;
  AgentSettings settings_;
  DcSettings dc_;
  RtaSettings rta_;
  ConfigPrograms programs_;
};

TEST_F(GetConfig, EveryLineInOrderWithThisHostsFactsAndTheComponentsSettings) {
  settings_.verbose = 1;
  settings_.port = 1700;
  settings_.server = "10.1.1.1,10.1.1.2";
  dc_.scan_rate = 3000;
  dc_.write_rate = 60;
  dc_.retain = 7;
  dc_.verbose = 2;
  rta_.verbose = 1;
  rta_.processes = 1;
  rta_.alerts = 0;
  rta_.scan_rate = 5;
  rta_.port = 2999;
  test::write_file(settings_.collector_lock_path, "1@a@b@c@1@2\nPID~1\nVERSION~V10.0-001:Feb 23 2012\n");
  make_sized(dir_ / "data/cfghost_a.zud", 1 << 20);
  make_sized(dir_ / "data/cfghost_b.zud-1", 3 << 20);
  make_sized(dir_ / "data/cfghost_c.perf", 40 << 20);
  test::write_file(programs_.realtime, "");

  ASSERT_EQ(kova_getconfig(settings_, "cfghost", dc_, rta_, {}, programs_), 1);
  const std::string path = dir_ / "tmp/kova_sysconf_cfghost.dat";
  ASSERT_TRUE(test::file_exists(path));
  const Report r = parse(test::read_file(path));
  EXPECT_EQ(r.keys, join(kSystemKeys, kInstallKeys));
  auto v = [&](const char* key) { return r.values.count(key) ? r.values.at(key) : "<absent>"; };

  utsname uts{};
  ASSERT_EQ(::uname(&uts), 0);
  EXPECT_EQ(v("ConfigVersion"), "1");
  EXPECT_EQ(v("SystemName"), uts.nodename);
  EXPECT_EQ(v("SystemOSversion"), uts.release);
  EXPECT_EQ(v("SystemVendor"), "Sun");
  EXPECT_EQ(v("SystemOS"), "SUN");
  EXPECT_FALSE(v("SystemModel").empty());
  EXPECT_EQ(v("SystemSerialNumber").find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_EQ(v("SystemSerialNumber").size(), 8u);
  EXPECT_EQ(v("SystemDiskTotalCapacity"), "0");

  // Configured processors: at least those this process may run on.
  const int cpus = std::stoi(v("SystemProcessorCount"));
  EXPECT_GE(cpus, 1);
  EXPECT_GE(cpus, static_cast<int>(std::thread::hardware_concurrency()));

  // Memory against the kernel's own total, in whole MB.
  const std::string meminfo = test::read_file("/proc/meminfo");
  const double mem_mb = std::stod(meminfo.substr(meminfo.find(':') + 1)) / 1024.0;
  const std::string memory = v("SystemMemoryTotalCapacity");
  ASSERT_GE(memory.size(), 4u);
  EXPECT_EQ(memory.substr(memory.size() - 3), ":MB");
  EXPECT_NEAR(std::stod(memory), mem_mb, 1.0);

  // Disks: at least every block device backed by hardware, at most every
  // block device there is.
  int hardware = 0, all = 0;
  if (DIR* d = ::opendir("/sys/block")) {
    while (dirent* e = ::readdir(d)) {
      if (e->d_name[0] == '.') continue;
      ++all;
      char target[512] = {};
      const std::string link = std::string("/sys/block/") + e->d_name;
      if (::readlink(link.c_str(), target, sizeof target - 1) > 0 && !std::strstr(target, "/virtual/")) ++hardware;
    }
    ::closedir(d);
  }
  const int disks = std::stoi(v("SystemDiskCount"));
  EXPECT_GE(disks, hardware);
  EXPECT_LE(disks, all);

  EXPECT_EQ(v("CollectorName"), "vORN Monitor");
  EXPECT_EQ(v("CollectorVersion"), "V10.0-001:Feb 23 2012");
  EXPECT_EQ(v("CollectorVerbose"), "2");
  EXPECT_EQ(v("CollectorRetain"), "7");
  EXPECT_EQ(v("CollectorScan"), "3000");
  EXPECT_EQ(v("CollectorWrite"), "60");
  EXPECT_EQ(v("CollectorBuffers"), "0");
  EXPECT_EQ(v("CollectorDataPath"), settings_.data_dir);
  const std::string total = v("CollectorDataDiskSpaceTotal"), free = v("CollectorDataDiskSpaceFree");
  ASSERT_GE(total.size(), 4u);
  ASSERT_GE(free.size(), 4u);
  EXPECT_EQ(total.substr(total.size() - 3), " MB");
  EXPECT_EQ(free.substr(free.size() - 3), " MB");
  EXPECT_GT(std::stod(total), 0);
  EXPECT_LE(std::stod(free), std::stod(total));
  EXPECT_EQ(v("CollectorDataAveSize"), "2~MB");  // the .perf file does not count
  EXPECT_EQ(v("AgentVersion"), "V10.0-001:Feb 23 2012");
  EXPECT_EQ(v("AgentVerbose"), "1");
  EXPECT_EQ(v("AgentPort"), "1700");
  EXPECT_EQ(v("AgentKovaServer"), "10.1.1.1,10.1.1.2");
  EXPECT_EQ(v("RealtimeInstalled"), "1");
  EXPECT_EQ(v("RealtimeVersion"), "V10.0-001:Feb 23 2012");
  EXPECT_EQ(v("RealtimeVerbose"), "1");
  EXPECT_EQ(v("RealtimeProcesses"), "1");
  EXPECT_EQ(v("RealtimeAlerts"), "0");
  EXPECT_EQ(v("RealtimeScan"), "5");
  EXPECT_EQ(v("RealtimePort"), "2999");
}

TEST_F(GetConfig, MeasurewareWithoutRealtimeAgentToAPathOfItsOwn) {
  // A directory name a shell would split or unquote.
  const std::string mwa_dir = dir_ / "perf agent's bin";
  test::make_dirs(mwa_dir);
  programs_.measureware = mwa_dir + "/mwa";
  test::write_file(programs_.measureware,
                   "#!/bin/sh\n[ \"$1\" = version ] || exit 1\n"
                   "echo 'Perf Agent status'\necho 'scopeux C.04.70'\necho '  scopeux C.05.00.100'\n"
                   "echo 'midaemon C.05.00'\n");
  ::chmod(programs_.measureware.c_str(), 0755);
  settings_.measureware_source = 1;

  const std::string own = dir_ / "elsewhere.dat";
  ASSERT_EQ(kova_getconfig(settings_, "cfghost", dc_, rta_, own, programs_), 1);
  EXPECT_FALSE(test::file_exists(dir_ / "tmp/kova_sysconf_cfghost.dat"));
  const Report r = parse(test::read_file(own));
  EXPECT_EQ(r.keys, join(kSystemKeys, kInstallKeys));
  EXPECT_EQ(r.values.at("CollectorName"), "Measureware");
  EXPECT_EQ(r.values.at("CollectorVersion"), "C.05.00.100");  // the last "scopeux" line wins
  EXPECT_EQ(r.values.at("CollectorVerbose"), "");
  EXPECT_EQ(r.values.at("CollectorRetain"), "");
  EXPECT_EQ(r.values.at("CollectorDataAveSize"), "0~MB");
  EXPECT_EQ(r.values.at("RealtimeInstalled"), "0");
  EXPECT_EQ(r.values.at("RealtimeVersion"), "V10.0-001:Feb 23 2012");
  for (const char* key : {"RealtimeVerbose", "RealtimeProcesses", "RealtimeAlerts", "RealtimeScan", "RealtimePort"})
    EXPECT_EQ(r.values.at(key), "") << key;

  std::string version;
  EXPECT_EQ(get_mwa_version(version, dir_ / "absent/mwa"), 1);
  EXPECT_EQ(version, "not found");

  // The collector without a lock file; a data directory that cannot be
  // sized; a report that cannot be created.
  settings_.measureware_source = 0;
  settings_.data_dir = dir_ / "gone";
  ASSERT_EQ(kova_getconfig(settings_, "cfghost", dc_, rta_, own, programs_), 1);
  const Report bare = parse(test::read_file(own));
  EXPECT_EQ(bare.values.at("CollectorVersion"), "");
  EXPECT_EQ(bare.values.at("CollectorDataDiskSpaceTotal"), "0 MB");
  EXPECT_EQ(bare.values.at("CollectorDataDiskSpaceFree"), "0 MB");
  EXPECT_EQ(kova_getconfig(settings_, "cfghost", dc_, rta_, dir_ / "no/such/dir.dat", programs_), 0);
}

TEST_F(GetConfig, ProcessorSectionSitsBetweenSystemAndInstallWhenKnown) {
  ProcessorConfig cpu;
  cpu.valid = 1;
  cpu.name = "x86-64";
  cpu.description = "desc";
  cpu.manufacturer = "maker";
  cpu.max_clock = "2400";
  cpu.data_width = 64;
  cpu.architecture = "amd64";
  const std::string path = dir_ / "p.dat";
  ASSERT_EQ(write_config(settings_, InstallConfig{}, SystemConfig{}, cpu, path), 1);
  const std::string text = test::read_file(path);
  const std::string section =
      "<ENDSYSTEM>\n<PROCESSOR>\nProcessorName:x86-64\nProcessorDesc:desc\nProcessorManufacturer:maker\n"
      "ProcessorMaxClock:2400\nProcessorExtClock:\nProcessorDataWidth:64\nProcessorArchitecture:amd64\n"
      "ProcessorVersion:\nProcessorFamily:x86-64\n<ENDPROCESSOR>\n<VANTREL>\n";
  EXPECT_NE(text.find(section), std::string::npos) << text;
}

}  // namespace
}  // namespace kova
