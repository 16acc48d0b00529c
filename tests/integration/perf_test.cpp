// Performance data requests against the real binary, with the stand-in
// extraction tool in the install tree. They wait the request's real pause,
// side by side.
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <future>
#include <string>

#include "support/agent_process.h"

namespace kova::test {
namespace {

using PerfRequest = AgentTest;

std::string local_text(const char* format, std::time_t when) {
  std::tm t{};
  localtime_r(&when, &t);
  char text[64] = {};
  std::strftime(text, sizeof text, format, &t);
  return text;
}

TEST_F(PerfRequest, TodaysRangeComesBackWholeToEachRequestTheWorkFileGoesAndOldDataIsPurged) {
  InstallTree tree;
  std::error_code ec;
  std::filesystem::copy_file(std::string(KOVA_DEMO_BIN_DIR) + "/kovaperf", tree / "bin/kovaperf", ec);
  if (ec) GTEST_SKIP() << "stand-in kovaperf not built in " << KOVA_DEMO_BIN_DIR;

  const std::string host = tree.hostname();
  const std::time_t now = std::time(nullptr);
  write_file(tree / ("settings/kova_" + host + ".memory"), "memory");
  const std::string today = local_text("%Y-%m-%d", now);
  // Large enough that two requests for it overlap while one is still sent.
  std::string in_range;
  for (int i = 0; i < 150000; ++i) in_range += "1700000000 " + today + " 00:10:00 0.42 0.35 0.30 812344 213\n";
  in_range += "1700000060 " + today + " 23:50:00 0.50 0.40 0.30 800000 215\n";
  const std::string other_day = "1600000000 " + local_text("%Y-%m-%d", now - 2 * 86400) +
                                " 12:00:00 0.10 0.10 0.10 900000 200\n";
  write_file(tree / ("data/qdtsx_" + host + "_" + local_text("%Y%b%d", now) + ".zud-1"), other_day + in_range);
  const std::string old_own = tree / ("data/qdtsx_" + host + "_2012Feb01.zud-1");
  const std::string old_other = tree / "data/qdtsx_otherhost_2012Feb01.zud-1";
  for (const std::string& old : {old_own, old_other}) {
    write_file(old, other_day);
    set_mtime(old, now - 400 * 86400);
  }

  // The stand-in records the descriptors it was started with.
  RunningAgent agent(tree, free_port(), {}, {"KOVA_STANDIN_FDS=" + tree.root()});
  ASSERT_TRUE(agent.started()) << agent.launch().err;
  const auto perf = [&](const std::string& day) {
    const std::string purge_age = le16(5);
    const std::string args = padded(day + ":00:00", 18) + padded(day + ":23:59", 18) + purge_age;
    return std::async(std::launch::async,
                      [&, args] { return round_trip(agent.port(), request_packet(1, args), std::chrono::seconds(30)); });
  };
  // The same range twice at once: both share one work file name.
  auto todays = perf(local_text("%d-%b-%Y", now));
  auto todays_again = perf(local_text("%d-%b-%Y", now));
  auto without_data = perf("01-Jan-2001");

  const int blocks = static_cast<int>(in_range.size() / 522);
  const std::string whole = le16(6) + le16(blocks & 0xffff) + le16(blocks >> 16) +
                            le16(static_cast<int>(in_range.size() % 522)) + in_range;
  for (auto* reply : {&todays, &todays_again}) {
    const std::string got = reply->get();
    EXPECT_TRUE(got == whole) << got.size() << " bytes, " << hex(got.substr(0, 8)) << tree.log();
  }
  EXPECT_EQ(hex(without_data.get()), "05000c0000000000");  // ERR 12
  const std::string log = tree.log();
  EXPECT_NE(log.find("I-REQ_PERF,    PERF request from 127.0.0.1\n"), std::string::npos) << log;
  EXPECT_NE(log.find(".perf) transfered. (" + std::to_string(in_range.size())), std::string::npos) << log;
  EXPECT_NE(log.find("Data file not found: " + tree / ("data/qdtsx_" + host + "_2001Jan01.zud-1\n")),
            std::string::npos) << log;
  EXPECT_NE(log.find("E-PERF,        Problem sending .PERF :  zud data file not found.\n"), std::string::npos) << log;
  EXPECT_EQ(occurrences(log, "I-PERF_COMMAND"), 2u) << log;  // not for the day without data
  EXPECT_EQ(read_file(tree / "kovaperf.fds"), "0 1 2");  // nothing of the agent's, nor what it inherited
  for (const auto& entry : std::filesystem::directory_iterator(tree / "tmp"))
    EXPECT_NE(entry.path().extension(), ".perf") << entry.path();
  // Fetched by the controlling server: this host's files older than the purge age go.
  EXPECT_FALSE(file_exists(old_own));
  EXPECT_TRUE(file_exists(old_other));
}

}  // namespace
}  // namespace kova::test
