// Stand-in data collector for the demo install tree and the tests. It reads
// its settings file as the real collector does, keeps the lock file in the
// real layout and appends one sample line per write interval to the day's
// data file. SIGINT (or SIGTERM) removes the lock file and ends it.
//
//   vorn_monitor [-user U] [-rootdir DIR] [-silent] [-stop]
//
// VORN_DEMO_INTERVAL_MS, when set, replaces the write rate (for tests).
#include <cstdio>

#include "collector_standin.h"
#include "components/dc_settings.h"
#include "descriptors.h"

namespace {

constexpr const char* kName = "vorn_monitor";

}  // namespace

int main(int argc, char** argv) {
  standin::record_descriptors(kName);
  standin::Options opts = standin::parse_options(argc, argv);
  if (opts.bad) {
    std::fprintf(stderr, "usage: %s [-user U] [-rootdir DIR] [-silent] [-stop]\n", kName);
    return 2;
  }
  kova::DcSettings dc;
  kova::dc_init_command_line(dc);
  if (!opts.rootdir.empty()) kova::dc_adjust_path_settings(dc, opts.rootdir);
  (void)kova::dc_parse_startup_file(dc);
  if (!opts.user.empty()) dc.user = opts.user;
  if (opts.stop) return standin::stop_collector(dc, kName);
  return standin::run_collector(dc, kName, "qdtsx");
}
