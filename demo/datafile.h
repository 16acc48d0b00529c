// What the stand-in extraction and analysis tools share: their command line
// and the stand-in collector's data-file lines (see README.md).
#pragma once

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace datafile {

struct Options {
  std::string zud;      // -zudunix: the data file
  std::string begin;    // -begin DD-Mon-YYYY:HH:MM
  std::string end;      // -end DD-Mon-YYYY:HH:MM
  std::string perf;     // -perf: kovaperf's output
  std::string merg;     // -merg: vorn_analyze's output
  std::string report;   // -report: vorn_analyze's ".proc" report
  std::string rootdir;  // -rootdir: accepted, not needed
  bool bad = false;
};

inline Options parse_options(int argc, char** argv) {
  Options o;
  struct Flag {
    const char* name;
    std::string* value;
  } flags[] = {{"-zudunix", &o.zud}, {"-begin", &o.begin}, {"-end", &o.end},         {"-perf", &o.perf},
               {"-merg", &o.merg},   {"-report", &o.report}, {"-rootdir", &o.rootdir}};
  for (int i = 1; i < argc; ++i) {
    bool known = false;
    for (const Flag& f : flags) {
      if (std::strcmp(argv[i], f.name) != 0 || i + 1 >= argc) continue;
      *f.value = argv[++i];
      known = true;
      break;
    }
    o.bad |= !known;
  }
  return o;
}

// "05-Mar-2024:12:30" as "2024-03-05 12:30", the form the data lines sort
// by; "" when it is not of that form.
inline std::string sortable(const std::string& time) {
  static const char* const kMonths[] = {"jan", "feb", "mar", "apr", "may", "jun",
                                        "jul", "aug", "sep", "oct", "nov", "dec"};
  if (time.size() < 17 || time[2] != '-' || time[6] != '-' || time[11] != ':' || time[14] != ':') return "";
  std::string month = time.substr(3, 3);
  for (char& c : month) c = static_cast<char>(c | 0x20);
  for (int m = 0; m < 12; ++m) {
    if (month != kMonths[m]) continue;
    char out[32];
    std::snprintf(out, sizeof out, "%s-%02d-%s %s:%s", time.substr(7, 4).c_str(), m + 1, time.substr(0, 2).c_str(),
                  time.substr(12, 2).c_str(), time.substr(15, 2).c_str());
    return out;
  }
  return "";
}

// One sample line: "<epoch> <YYYY-MM-DD> <HH:MM:SS> <load1> <load5>
// <load15> <free KiB> <processes>".
struct Sample {
  std::string line;   // as it stands, without its line feed
  std::string stamp;  // "YYYY-MM-DD HH:MM"
  double load[3] = {0, 0, 0};
  unsigned long long free_kib = 0;
  unsigned processes = 0;
};

// The samples of `path` whose minute lies within begin..end (both in the
// sortable form, inclusive). False when the file cannot be read.
inline bool read_range(const std::string& path, const std::string& begin, const std::string& end,
                       std::vector<Sample>& out) {
  std::ifstream in(path);
  if (!in) return false;
  std::string line;
  while (std::getline(in, line)) {
    Sample s;
    long long epoch = 0;
    char date[16] = {}, clock[16] = {};
    if (std::sscanf(line.c_str(), "%lld %15s %15s %lf %lf %lf %llu %u", &epoch, date, clock, &s.load[0], &s.load[1],
                    &s.load[2], &s.free_kib, &s.processes) != 8)
      continue;
    s.stamp = std::string(date) + " " + std::string(clock).substr(0, 5);
    if (s.stamp < begin || s.stamp > end) continue;
    s.line = line;
    out.push_back(s);
  }
  return true;
}

}  // namespace datafile
