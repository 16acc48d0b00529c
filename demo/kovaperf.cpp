// Stand-in extraction tool for the demo install tree and the tests: copies
// the stand-in collector's sample lines whose minute lies in the requested
// range, unchanged and in order, into the ".perf" file.
//
//   kovaperf -zudunix FILE -begin DD-Mon-YYYY:HH:MM -end DD-Mon-YYYY:HH:MM
//            -perf OUT [-rootdir DIR]
#include <cstdio>

#include "datafile.h"
#include "descriptors.h"

int main(int argc, char** argv) {
  standin::record_descriptors("kovaperf");
  datafile::Options o = datafile::parse_options(argc, argv);
  const std::string begin = datafile::sortable(o.begin), end = datafile::sortable(o.end);
  if (o.bad || o.zud.empty() || o.perf.empty() || begin.empty() || end.empty()) {
    std::fprintf(stderr, "usage: kovaperf -zudunix FILE -begin TIME -end TIME -perf OUT [-rootdir DIR]\n");
    return 2;
  }
  std::vector<datafile::Sample> samples;
  if (!datafile::read_range(o.zud, begin, end, samples)) {
    std::fprintf(stderr, "kovaperf: cannot read %s\n", o.zud.c_str());
    return 1;
  }
  std::FILE* out = std::fopen(o.perf.c_str(), "w");
  if (out == nullptr) {
    std::perror(o.perf.c_str());
    return 1;
  }
  for (const auto& s : samples) std::fprintf(out, "%s\n", s.line.c_str());
  if (std::fclose(out) != 0) {
    std::perror(o.perf.c_str());
    return 1;
  }
  std::printf("kovaperf: %zu samples from %s to %s\n", samples.size(), begin.c_str(), end.c_str());
  return 0;
}
