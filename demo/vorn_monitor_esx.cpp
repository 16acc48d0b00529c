// Stand-in collector of a virtual host for the demo install tree and the
// tests. The agent starts it as "<root>/bin/vorn_monitor_esx" with no
// arguments, so the install root is the directory above its own bin (or
// -rootdir). It serves the host that <root>/settings/vorn_esx.config names
// in HOSTNAME~, at that file's rates: lock file
// "<root>/tmp/<host>_monitor.lock", data files "qdtv_<host>_<day>.zud-1" in
// <root>/data. Its process name shows as vorn_monitor_es. SIGINT (or
// SIGTERM) removes the lock file and ends it.
//
//   vorn_monitor_esx [-rootdir DIR] [-stop]
//
// VORN_DEMO_INTERVAL_MS, when set, replaces the write rate (for tests).
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <string>

#include "collector_standin.h"
#include "components/dc_esx_settings.h"
#include "descriptors.h"

namespace {

constexpr const char* kName = "vorn_monitor_esx";

// The directory above the one that holds this program.
std::string root_of_own_program() {
  char path[PATH_MAX] = {};
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return {};
  std::string dir(path, static_cast<size_t>(n));
  for (int up = 0; up < 2; ++up) {
    const size_t slash = dir.rfind('/');
    if (slash == std::string::npos) return {};
    dir.resize(slash);
  }
  return dir.empty() ? "/" : dir;
}

}  // namespace

int main(int argc, char** argv) {
  standin::record_descriptors(kName);
  standin::Options opts = standin::parse_options(argc, argv);
  if (opts.bad || !opts.user.empty()) {
    std::fprintf(stderr, "usage: %s [-rootdir DIR] [-stop]\n", kName);
    return 2;
  }
  const std::string root = opts.rootdir.empty() ? root_of_own_program() : opts.rootdir;
  kova::DcEsxSettings esx;
  esx.settings_file = kova::esx_settings_path(root);
  if (kova::dc_parse_startup_file_esx(esx) != 1) {
    std::fprintf(stderr, "%s: no settings in %s\n", kName, esx.settings_file.c_str());
    return 1;
  }
  const std::string& host = esx.esx_hostname;
  if (host.empty() || host.find('/') != std::string::npos || host == "." || host == "..") {
    std::fprintf(stderr, "%s: no usable HOSTNAME~ in %s\n", kName, esx.settings_file.c_str());
    return 1;
  }
  // The collector's directories as the agent's install tree has them; the
  // lock file is named after the virtual host, not this machine.
  kova::DcSettings& dc = esx;
  dc.hostname = host;
  dc.data_dir = esx.data_dir_given ? esx.data_dir : root + "/data";
  dc.log_dir = esx.log_dir_given ? esx.log_dir : root + "/logs";
  dc.lock_file = root + "/tmp/" + host + "_monitor.lock";
  if (opts.stop) return standin::stop_collector(dc, kova::kEsxCollectorName);
  return standin::run_collector(dc, kova::kEsxCollectorName, "qdtv");
}
