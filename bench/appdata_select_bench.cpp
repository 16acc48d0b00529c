// The application-data selection over a large directory: appdata_find_files
// (pattern, day in the site's date styles, suffix) against a plain readdir
// pass that only counts the entries, over the same directory in the same
// run. The directory is built first in a temporary directory and removed
// afterwards. Prints the median of the runs of each and their ratio.
//
//   appdata_select_bench [files [runs]]   (default 100000 files, 5 runs each)
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "appdata/appdata.h"
#include "appdata/appdata_state.h"
#include "platform/unique.h"

namespace {

using Clock = std::chrono::steady_clock;

struct TempDir {
  std::string path;
  TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/appdata_bench.XXXXXX";
    if (::mkdtemp(pattern.data()) != nullptr) path = pattern;
  }
  ~TempDir() {
    if (path.empty()) return;
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
  }
};

// Application logs of several programs, days and suffixes: one name in 40
// is trace_<day>.log of the first day, the one the selection asks for.
bool build(const std::string& dir, long files) {
  const char* programs[] = {"trace", "audit", "access", "error"};
  const char* suffixes[] = {".log", ".txt"};
  char name[96];
  for (long i = 0; i < files; ++i) {
    const int day = static_cast<int>(i / 8 % 5) + 1;
    std::snprintf(name, sizeof name, "%s/%s_201202%02d_%06ld%s", dir.c_str(), programs[i % 4], day, i,
                  suffixes[i / 4 % 2]);
    kova::UniqueFd fd(::open(name, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    if (!fd) return false;
  }
  return true;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const long files = argc > 1 ? std::atol(argv[1]) : 100000;
  const int runs = argc > 2 ? std::atoi(argv[2]) : 5;
  if (files <= 0 || runs <= 0) {
    std::fprintf(stderr, "usage: appdata_select_bench [files [runs]]\n");
    return 2;
  }
  TempDir dir;
  if (dir.path.empty() || !build(dir.path, files)) {
    std::fprintf(stderr, "appdata_select_bench: cannot build the directory\n");
    return 1;
  }

  kova::appdata_state().styles = {{"DD-Mmm-YYYY", {}}, {"YYYY_MM_DD", {}}, {"YYYYMMDD", {}}};
  (void)kova::appdata_build_time_filters("01-Feb-2012:00:00");

  std::vector<double> select_ms, readdir_ms;
  size_t matched = 0, entries = 0;
  for (int r = 0; r < runs; ++r) {
    auto t0 = Clock::now();
    std::vector<std::string> found;
    if (kova::appdata_find_files(found, dir.path, dir.path + "/trace*", kova::appdata_state().styles, ".log", 1, 0) !=
        0) {
      std::fprintf(stderr, "appdata_select_bench: selection failed\n");
      return 1;
    }
    select_ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
    matched = found.size();

    t0 = Clock::now();
    entries = 0;
    kova::UniqueDir listing(::opendir(dir.path.c_str()));
    while (::readdir(listing.get()) != nullptr) ++entries;
    listing.reset();
    readdir_ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
  }
  const double s = median(select_ms), d = median(readdir_ms);
  std::printf("directory of %ld files, %zu selected; median of %d runs\n", files, matched, runs);
  std::printf("  appdata selection   %8.2f ms\n", s);
  std::printf("  plain readdir pass  %8.2f ms  (selection / readdir: %.2f)\n", d, d > 0 ? s / d : 0.0);
  return 0;
}
