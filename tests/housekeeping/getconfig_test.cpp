#include "housekeeping/getconfig.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>
#include <thread>

#include "support/temp_dir.h"

namespace kova::test {
namespace {

constexpr const char* kKeys =
    "<CONFIG> ConfigVersion <SYSTEM> SystemName SystemSerialNumber SystemModel SystemVendor SystemProcessorCount "
    "SystemDiskCount SystemMemoryTotalCapacity SystemDiskTotalCapacity SystemOS SystemOSversion <ENDSYSTEM> "
    "<VANTREL> CollectorName CollectorVersion CollectorVerbose CollectorRetain CollectorScan CollectorWrite "
    "CollectorBuffers CollectorDataPath CollectorDataDiskSpaceTotal CollectorDataDiskSpaceFree CollectorDataAveSize "
    "AgentVersion AgentVerbose AgentPort AgentKovaServer RealtimeInstalled RealtimeVersion RealtimeVerbose "
    "RealtimeProcesses RealtimeAlerts RealtimeScan RealtimePort <ENDVANTREL> <ENDCONFIG>";
constexpr const char* kVersion = "V10.0-001:Feb 23 2012";

// The report's line names (text before the first ":") joined by blanks; the values by name go to `values`.
std::string read_report(const std::string& path, std::map<std::string, std::string>& values) {
  std::istringstream in(read_file(path));
  std::string keys;
  for (std::string line; std::getline(in, line);) {
    const std::string key = line.substr(0, line.find(':'));
    keys += (keys.empty() ? "" : " ") + key;
    values[key] = line.size() > key.size() ? line.substr(key.size() + 1) : "";
  }
  return keys;
}

TEST(GetConfig, EveryLineInOrderFromThisHostAndTheComponentsSettings) {
  TempDir dir;
  for (const char* d : {"data", "tmp", "bin"}) make_dirs(dir / d);
  AgentSettings s{.verbose = 1, .port = 1700, .server = "10.1.1.1,10.1.1.2", .collector_lock_path = dir / "tmp/h_lock",
                  .data_dir = dir / "data", .tmp_dir = dir / "tmp"};
  DcSettings dc;
  dc.scan_rate = 3000;
  dc.write_rate = 60;
  dc.retain = 7;
  dc.verbose = 2;
  const RtaSettings rta{.verbose = 1, .port = 2999, .scan_rate = 5, .alerts = 0, .processes = 1};
  const ConfigPrograms programs{dir / "bin", dir / "no-mwa"};  // the real-time agent is installed if its path exists
  write_file(s.collector_lock_path, "1@a@b@c@1@2\nVERSION~" + std::string(kVersion) + "\n");
  // Only names with a ".zud" extension count, not a leading dot or a bare "zud".
  for (auto [name, mb] : {std::pair{"h_a.zud", 1}, {"h_b.zud-1", 3}, {"h_c.perf", 7}, {".zud", 0}, {"zud", 0}})
    write_file(dir / "data/" + name, std::string(static_cast<size_t>(mb) << 20, 'z'));

  ASSERT_EQ(kova_getconfig(s, "h", dc, rta, {}, programs), 1);
  std::map<std::string, std::string> v;
  EXPECT_EQ(read_report(dir / "tmp/kova_sysconf_h.dat", v), kKeys);
  const std::map<std::string, std::string> expected = {
      {"ConfigVersion", "1"}, {"SystemVendor", "Sun"}, {"SystemOS", "SUN"}, {"SystemDiskTotalCapacity", "0"},
      {"CollectorName", "vORN Monitor"}, {"CollectorVersion", kVersion}, {"CollectorVerbose", "2"},
      {"CollectorRetain", "7"}, {"CollectorScan", "3000"}, {"CollectorWrite", "60"}, {"CollectorBuffers", "0"},
      {"CollectorDataPath", s.data_dir}, {"CollectorDataAveSize", "2~MB"},
      {"AgentVersion", kVersion}, {"AgentVerbose", "1"}, {"AgentPort", "1700"}, {"AgentKovaServer", s.server},
      {"RealtimeInstalled", "1"}, {"RealtimeVersion", kVersion}, {"RealtimeVerbose", "1"},
      {"RealtimeProcesses", "1"}, {"RealtimeAlerts", "0"}, {"RealtimeScan", "5"}, {"RealtimePort", "2999"}};
  for (const auto& [key, value] : expected) EXPECT_EQ(v[key], value) << key;
  const double total = std::stod(v["CollectorDataDiskSpaceTotal"]), free = std::stod(v["CollectorDataDiskSpaceFree"]);
  EXPECT_TRUE(total > 0 && free <= total && v["CollectorDataDiskSpaceTotal"].ends_with(" MB"));

  // This host's own figures, against what the kernel tells anyone who asks.
  utsname uts{};
  ASSERT_EQ(::uname(&uts), 0);
  const std::string meminfo = read_file("/proc/meminfo");
  char memory[32];
  std::snprintf(memory, sizeof memory, "%.0f:MB", std::stod(meminfo.substr(meminfo.find(':') + 1)) / 1024);
  EXPECT_EQ(v["SystemName"] + "|" + v["SystemOSversion"] + "|" + v["SystemMemoryTotalCapacity"],
            std::string(uts.nodename) + "|" + uts.release + "|" + memory);
  EXPECT_GE(std::stoi(v["SystemProcessorCount"]), static_cast<int>(std::max(1u, std::thread::hardware_concurrency())));

  // MeasureWare as the source, no real-time agent, an unsizable data directory, a path of its own; then
  // an empty data directory and a bad path.
  ConfigPrograms mwa{dir / "no-kovarta", dir / "perf agent's mwa"};  // a name a shell would split and unquote
  write_file(mwa.measureware,
             "#!/bin/sh\n[ \"$1\" = version ] || exit 1\n"
             "echo 'Perf Agent'; echo 'scopeux C.04.70'; echo '  scopeux C.05.00.1'; echo 'midaemon C.06'\n");
  std::filesystem::permissions(mwa.measureware, std::filesystem::perms::owner_all);
  s.measureware_source = 1, s.data_dir = dir / "gone";
  ASSERT_EQ(kova_getconfig(s, "h", dc, rta, dir / "own.dat", mwa), 1);
  EXPECT_EQ(read_report(dir / "own.dat", v), kKeys);
  EXPECT_EQ(v["CollectorName"] + "|" + v["CollectorVersion"] + "|" + v["CollectorVerbose"] + "|" +
                v["CollectorRetain"] + "|" + v["CollectorDataDiskSpaceTotal"] + "|" + v["CollectorDataDiskSpaceFree"],
            "Measureware|C.05.00.1|||0 MB|0 MB");  // the last "scopeux" line wins
  EXPECT_EQ(v["RealtimeInstalled"] + "|" + v["RealtimeVersion"] + "|" + v["RealtimeVerbose"] + v["RealtimeProcesses"] +
                v["RealtimeAlerts"] + v["RealtimeScan"] + v["RealtimePort"],
            "0|" + std::string(kVersion) + "|");
  s.data_dir = dir / "bin";
  EXPECT_EQ(kova_getconfig(s, "h", dc, rta, dir / "no/dir.dat", mwa), 0);
}

}  // namespace
}  // namespace kova::test
