#include "housekeeping/getconfig.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <thread>

#include "support/temp_dir.h"

namespace kova {
namespace {

constexpr const char* kKeys =
    "<CONFIG> ConfigVersion <SYSTEM> SystemName SystemSerialNumber SystemModel SystemVendor SystemProcessorCount "
    "SystemDiskCount SystemMemoryTotalCapacity SystemDiskTotalCapacity SystemOS SystemOSversion <ENDSYSTEM> "
    "<VANTREL> CollectorName CollectorVersion CollectorVerbose CollectorRetain CollectorScan CollectorWrite "
    "CollectorBuffers CollectorDataPath CollectorDataDiskSpaceTotal CollectorDataDiskSpaceFree CollectorDataAveSize "
    "AgentVersion AgentVerbose AgentPort AgentKovaServer RealtimeInstalled RealtimeVersion RealtimeVerbose "
    "RealtimeProcesses RealtimeAlerts RealtimeScan RealtimePort <ENDVANTREL> <ENDCONFIG>";

// A report's line names (text before the first ":") joined by blanks; the
// values by name go to `values`.
std::string read_report(const std::string& path, std::map<std::string, std::string>& values) {
  std::istringstream in(test::read_file(path));
  std::string line, keys;
  while (std::getline(in, line)) {
    const size_t colon = line.find(':');
    keys += (keys.empty() ? "" : " ") + line.substr(0, colon);
    values[line.substr(0, colon)] = colon == std::string::npos ? "" : line.substr(colon + 1);
  }
  return keys;
}

TEST(GetConfig, EveryLineInOrderFromThisHostAndTheComponentsSettings) {
  test::TempDir dir;
  for (const char* d : {"data", "tmp", "bin"}) test::make_dirs(dir / d);
  AgentSettings s;
  s.data_dir = dir / "data", s.tmp_dir = dir / "tmp", s.collector_lock_path = dir / "tmp/h_monitor.lock";
  s.verbose = 1, s.port = 1700, s.server = "10.1.1.1,10.1.1.2";
  DcSettings dc;
  dc.scan_rate = 3000, dc.write_rate = 60, dc.retain = 7, dc.verbose = 2;
  RtaSettings rta;
  rta.verbose = 1, rta.processes = 1, rta.alerts = 0, rta.scan_rate = 5, rta.port = 2999;
  const ConfigPrograms programs{dir / "bin/kovarta", dir / "no-mwa"};
  test::write_file(programs.realtime, "");
  test::write_file(s.collector_lock_path, "1@a@b@c@1@2\nVERSION~V10.0-001:Feb 23 2012\n");
  for (auto [name, mb] : {std::pair{"h_a.zud", 1}, {"h_b.zud-1", 3}, {"h_c.perf", 40}}) {
    test::write_file(dir / ("data/" + std::string(name)), "");
    std::filesystem::resize_file(dir / ("data/" + std::string(name)), mb << 20);  // sparse
  }

  ASSERT_EQ(kova_getconfig(s, "h", dc, rta, {}, programs), 1);
  std::map<std::string, std::string> v;
  EXPECT_EQ(read_report(dir / "tmp/kova_sysconf_h.dat", v), kKeys);
  const std::map<std::string, std::string> expected = {
      {"ConfigVersion", "1"}, {"SystemVendor", "Sun"}, {"SystemOS", "SUN"}, {"SystemDiskTotalCapacity", "0"},
      {"CollectorName", "vORN Monitor"}, {"CollectorVersion", "V10.0-001:Feb 23 2012"}, {"CollectorVerbose", "2"},
      {"CollectorRetain", "7"}, {"CollectorScan", "3000"}, {"CollectorWrite", "60"}, {"CollectorBuffers", "0"},
      {"CollectorDataPath", s.data_dir}, {"CollectorDataAveSize", "2~MB"},  // the .perf file not counted
      {"AgentVersion", "V10.0-001:Feb 23 2012"}, {"AgentVerbose", "1"}, {"AgentPort", "1700"},
      {"AgentKovaServer", "10.1.1.1,10.1.1.2"}, {"RealtimeInstalled", "1"},
      {"RealtimeVersion", "V10.0-001:Feb 23 2012"}, {"RealtimeVerbose", "1"}, {"RealtimeProcesses", "1"},
      {"RealtimeAlerts", "0"}, {"RealtimeScan", "5"}, {"RealtimePort", "2999"}};
  for (const auto& [key, value] : expected) EXPECT_EQ(v[key], value) << key;

  // The host's own figures, each against a source of its own.
  utsname uts{};
  ASSERT_EQ(::uname(&uts), 0);
  EXPECT_EQ(v["SystemName"] + " " + v["SystemOSversion"], std::string(uts.nodename) + " " + uts.release);
  EXPECT_EQ(v["SystemSerialNumber"].size(), 8u);
  EXPECT_GE(std::stoi(v["SystemProcessorCount"]), std::max(1, int(std::thread::hardware_concurrency())));
  const std::string meminfo = test::read_file("/proc/meminfo");
  EXPECT_NEAR(std::stod(v["SystemMemoryTotalCapacity"]), std::stod(meminfo.substr(meminfo.find(':') + 1)) / 1024, 1);
  int hardware = 0, all = 0;  // block devices backed by hardware, and all of them
  for (const auto& e : std::filesystem::directory_iterator("/sys/block")) {
    ++all;
    hardware += std::filesystem::read_symlink(e.path()).string().find("/virtual/") == std::string::npos;
  }
  EXPECT_GE(std::stoi(v["SystemDiskCount"]), hardware);
  EXPECT_LE(std::stoi(v["SystemDiskCount"]), all);
  const double total = std::stod(v["CollectorDataDiskSpaceTotal"]), free = std::stod(v["CollectorDataDiskSpaceFree"]);
  EXPECT_TRUE(total > 0 && free <= total && v["CollectorDataDiskSpaceTotal"].ends_with(" MB"));

  // MeasureWare as the source, no real-time agent, a data directory that
  // cannot be sized, a path of its own; then one that cannot be created.
  ConfigPrograms mwa{dir / "no-kovarta", dir / "perf agent's mwa"};  // a name a shell would split and unquote
  test::write_file(mwa.measureware, "#!/bin/sh\n[ \"$1\" = version ] || exit 1\n"
                   "echo 'Perf Agent'; echo 'scopeux C.04.70'; echo '  scopeux C.05.00.1'; echo 'midaemon C.06'\n");
  ::chmod(mwa.measureware.c_str(), 0755);
  s.measureware_source = 1, s.data_dir = dir / "gone";
  std::filesystem::remove(dir / "tmp/kova_sysconf_h.dat");
  ASSERT_EQ(kova_getconfig(s, "h", dc, rta, dir / "own.dat", mwa), 1);
  EXPECT_FALSE(test::file_exists(dir / "tmp/kova_sysconf_h.dat"));
  v.clear();
  EXPECT_EQ(read_report(dir / "own.dat", v), kKeys);
  EXPECT_EQ(v["CollectorName"] + "|" + v["CollectorVersion"] + "|" + v["CollectorVerbose"] + "|" +
                v["CollectorRetain"] + "|" + v["CollectorDataDiskSpaceTotal"] + "|" + v["CollectorDataDiskSpaceFree"],
            "Measureware|C.05.00.1|||0 MB|0 MB");  // the last "scopeux" line wins
  EXPECT_EQ(v["RealtimeInstalled"] + "|" + v["RealtimeVersion"] + "|" + v["RealtimeVerbose"] + v["RealtimeProcesses"] +
                v["RealtimeAlerts"] + v["RealtimeScan"] + v["RealtimePort"],
            "0|V10.0-001:Feb 23 2012|");
  EXPECT_EQ(kova_getconfig(s, "h", dc, rta, dir / "no/dir.dat", mwa), 0);
}

}  // namespace
}  // namespace kova
