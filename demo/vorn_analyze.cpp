// Stand-in analysis tool for the demo install tree and the tests: merges
// the stand-in collector's samples in the requested range by hour into the
// ".merg" file and writes a short ".proc" report beside it.
//
//   vorn_analyze -zudunix FILE -begin DD-Mon-YYYY:HH:MM -end DD-Mon-YYYY:HH:MM
//                -merg OUT -report PROC [-rootdir DIR]
#include <algorithm>
#include <cstdio>

#include "datafile.h"
#include "descriptors.h"

namespace {

// One ".merg" line per hour that has samples: "YYYY-MM-DD HH:00", the
// sample count, the three mean loads, the least free memory, the most
// processes.
void write_hours(std::FILE* out, const std::vector<datafile::Sample>& samples) {
  for (size_t i = 0; i < samples.size();) {
    const std::string hour = samples[i].stamp.substr(0, 13);
    size_t j = i;
    double load[3] = {0, 0, 0};
    unsigned long long least_free = samples[i].free_kib;
    unsigned most = 0;
    for (; j < samples.size() && samples[j].stamp.compare(0, 13, hour) == 0; ++j) {
      for (int k = 0; k < 3; ++k) load[k] += samples[j].load[k];
      least_free = std::min(least_free, samples[j].free_kib);
      most = std::max(most, samples[j].processes);
    }
    const double n = static_cast<double>(j - i);
    std::fprintf(out, "%s:00 %zu %.2f %.2f %.2f %llu %u\n", hour.c_str(), j - i, load[0] / n, load[1] / n,
                 load[2] / n, least_free, most);
    i = j;
  }
}

}  // namespace

int main(int argc, char** argv) {
  standin::record_descriptors("vorn_analyze");
  datafile::Options o = datafile::parse_options(argc, argv);
  const std::string begin = datafile::sortable(o.begin), end = datafile::sortable(o.end);
  if (o.bad || o.zud.empty() || o.merg.empty() || o.report.empty() || begin.empty() || end.empty()) {
    std::fprintf(stderr, "usage: vorn_analyze -zudunix FILE -begin TIME -end TIME -merg OUT -report PROC"
                         " [-rootdir DIR]\n");
    return 2;
  }
  std::vector<datafile::Sample> samples;
  if (!datafile::read_range(o.zud, begin, end, samples)) {
    std::fprintf(stderr, "vorn_analyze: cannot read %s\n", o.zud.c_str());
    return 1;
  }
  // Samples are appended in time order, but a file put together by hand
  // need not be.
  std::stable_sort(samples.begin(), samples.end(),
                   [](const datafile::Sample& a, const datafile::Sample& b) { return a.stamp < b.stamp; });
  std::FILE* merg = std::fopen(o.merg.c_str(), "w");
  std::FILE* proc = std::fopen(o.report.c_str(), "w");
  if (merg == nullptr || proc == nullptr) {
    std::fprintf(stderr, "vorn_analyze: cannot write %s or %s\n", o.merg.c_str(), o.report.c_str());
    if (merg != nullptr) std::fclose(merg);
    if (proc != nullptr) std::fclose(proc);
    return 1;
  }
  write_hours(merg, samples);
  std::fprintf(proc, "data %s\nrange %s .. %s\nsamples %zu\n", o.zud.c_str(), begin.c_str(), end.c_str(),
               samples.size());
  const bool ok = std::fclose(merg) == 0;
  if (std::fclose(proc) != 0 || !ok) {
    std::fprintf(stderr, "vorn_analyze: write failed\n");
    return 1;
  }
  std::printf("vorn_analyze: %zu samples merged\n", samples.size());
  return 0;
}
