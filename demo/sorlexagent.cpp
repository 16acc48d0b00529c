// Stand-in search agent for the demo install tree and the tests: runs,
// detached, until "sorlexagent -stop". It has no lock file of its own in the
// real layout; to find the copy to stop it keeps its pid in
// <root>/tmp/sorlexagent.pid, the root being the directory above its bin.
//
//   sorlexagent          start, detached
//   sorlexagent -stop
#include <climits>
#include <cstdlib>
#include <fstream>
#include <string>

#include "platform/findproc.h"
#include "standin.h"
#include "descriptors.h"

namespace {

constexpr const char* kName = "sorlexagent";

std::string root_dir() {
  char exe[PATH_MAX] = {};
  if (realpath("/proc/self/exe", exe) == nullptr) return ".";
  std::string path(exe);
  for (int i = 0; i < 2; ++i) {
    size_t slash = path.rfind('/');
    path.erase(slash == 0 ? 1 : slash);
  }
  return path;
}

int pid_from(const std::string& pid_file) {
  std::ifstream in(pid_file);
  int pid = 0;
  in >> pid;
  return pid > 0 && kova::findproc(kName, pid, 0) == 1 ? pid : 0;
}

}  // namespace

int main(int argc, char** argv) {
  standin::record_descriptors(kName);
  standin::Options opts = standin::parse_options(argc, argv);
  if (opts.bad || !opts.user.empty() || !opts.rootdir.empty()) {
    std::fprintf(stderr, "usage: %s [-stop]\n", kName);
    return 2;
  }
  const std::string pid_file = root_dir() + "/tmp/sorlexagent.pid";
  const int pid = pid_from(pid_file);
  if (opts.stop) {
    if (pid == 0) {
      std::printf("%s is not running\n", kName);
      return 0;
    }
    if (kill(pid, SIGTERM) != 0) return 1;
    // Return only once it has ended, so that a status check right after the
    // stop no longer finds it.
    return standin::wait_exit(pid, 10000) ? 0 : 1;
  }
  if (pid != 0) {
    std::fprintf(stderr, "Fatal: %s is already running\n", kName);
    return 1;
  }
  standin::catch_stop_signals();
  int ready = standin::detach();
  {
    std::ofstream out(pid_file, std::ios::trunc);
    out << getpid() << "\n";
  }
  standin::report_ready(ready);
  while (standin::nap(60000)) {
  }
  unlink(pid_file.c_str());
  return 0;
}
