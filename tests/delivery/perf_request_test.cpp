#include "delivery/perf_request.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "components/collector.h"
#include "support/agent_process.h"
#include "support/fixed_clock.h"
#include "base/codes.h"
#include "wire/wire_fixture.h"

namespace kova::test {
namespace {

// Samples of 5 March 2024 as the stand-in collector writes them.
const std::string kNoon = "1709636400 2024-03-05 12:00:00 0.42 0.35 0.30 812344 213\n";
const std::string kHalfPast = "1709638200 2024-03-05 12:30:00 0.50 0.40 0.30 800000 215\n";
const std::string kDay = "1709632800 2024-03-05 11:00:00 0.10 0.20 0.30 900000 200\n" + kNoon + kHalfPast;

using Served = std::pair<std::string, int>;

class DataRequest : public WireTest {
 protected:
  void SetUp() override {
    WireTest::SetUp();
    collector_state().dc_cmdline = {};  // as a fresh process has it
    for (const char* d : {"bin", "data", "tmp", "outgoing", "settings"}) make_dirs(dir_ / d);
    s_.install_root = dir_.path(), s_.bin_dir = dir_ / "bin", s_.data_dir = dir_ / "data", s_.tmp_dir = dir_ / "tmp";
    s_.outgoing_dir = dir_ / "outgoing", s_.hostname = "web1", s_.memory_file_path = dir_ / "settings/kova_web1.memory";
    s_.settings_server = "10.9.9.9";  // not the test's peer: no collector settings written
    write_file(s_.memory_file_path, "memory");
    write_file(s_.data_dir + "/qdtsx_web1_2024Mar05.zud-1", kDay);
    std::error_code ec;
    std::filesystem::copy_file(std::string(KOVA_DEMO_BIN_DIR) + "/kovaperf", s_.bin_dir + "/kovaperf", ec);
    have_kovaperf_ = !ec;
  }
  // Runs `serve` after the peer sent `sent`: all the agent sent back, and its result.
  template <typename Serve>
  Served exchange(Serve serve, const std::string& sent = "") {
    SocketPair pair;
    pair.from_peer(sent, false);
    const int result = serve(pair.agent.get());
    return {pair.drain(), result};
  }
  Served perf(const std::string& start, const std::string& end, int age) {
    PacketBuffer r{};
    const std::string fields = le16(1) + padded(start, 18) + padded(end, 18) + le16(age);
    std::copy(fields.begin(), fields.end(), r.begin());
    return exchange([&](int fd) { return process_perf_request(fd, s_, "127.0.0.1", r, buffer_, age_); });
  }
  Served raw(const std::string& name) {
    PacketBuffer r{};
    const std::string head = le16(13) + le16(static_cast<int>(name.size()));
    std::copy(head.begin(), head.end(), r.begin());
    return exchange([&](int fd) { return process_rawdata_request(fd, s_, "127.0.0.1", r, 1); }, name);
  }

  AgentSettings s_;
  PacketBuffer buffer_{};
  int age_ = 14;
  bool have_kovaperf_ = false;
};

TEST(DataFileNames, RequestTimesYesterdayAndOsTextMakeTheNameParts) {
  const struct { const char *time, *data_file_time, *file_time; } rows[] = {
      {"23-Feb-2012:10:05", "2012Feb23", "2012Feb23_1005"},
      {"01-DEC-1999:23:59 and more", "1999Dec01", "1999DEC01_2359"},
      {"23-Feb-2012", "", ""},        // cut short
      {"23-F/b-2012:10:05", "", ""},  // would reach another directory
      {"2x-Feb-2012:10:05", "", ""},
  };
  for (const auto& row : rows) {
    std::string data_file_time, file_time;
    const int ok = *row.file_time != '\0';  // 1, or 0 for a time that cannot name a file
    EXPECT_EQ(std::tuple(formatDataFileTime(row.time, data_file_time, 1), formatFileTime(row.time, file_time),
                         data_file_time, file_time),
              std::tuple(ok, ok, row.data_file_time, row.file_time)) << row.time;
  }

  // Yesterday's data file name, across a leap day and a year's end.
  for (auto [month, day, name] : {std::tuple{3, 1, "2024Feb29"}, {1, 1, "2023Dec31"}}) {
    FixedClock clock(local_time(2024, month, day, 0, 30));
    std::string formed;
    EXPECT_EQ(formatFileNameTime(formed), 1);
    EXPECT_EQ(formed, name);
  }

  const std::pair<const char*, const char*> oses[] = {
      {"", "qdtsx_h_2024Mar05.zud-1"},        {"Solaris x86 10", "qdtsx_h_2024Mar05.zud-1"},
      {"SunOS Solaris 10", "qdts_h_2024Mar05.zud-1"}, {"OpenVMS", "h_2024Mar05.pmd"},
      {"VMware ESX 4.1", "qdtv_h_2024Mar05.zud-1"},   {"Red Hat Enterprise Linux", "qdtl_h_2024Mar05.zud-1"},
      {"AIX 7.1", "qdta_h_2024Mar05.zud-1"},          {"HP-UX B.11", "qdth_h_2024Mar05.zud-1"},
      {"Windows", "qdt_h_2024Mar05.zud-1"},
  };
  for (const auto& [os, name] : oses) EXPECT_EQ(perf_data_file_name("h", os, "2024Mar05"), name) << os;
}

// Sending the range, deleting the work file and a day without data are checked against the real binary.
TEST_F(DataRequest, RemotePerfRequestKeepsYesterdaysWorkFileAndPassesTheServersPurgeAge) {
  if (!have_kovaperf_) GTEST_SKIP() << "stand-in kovaperf not built in " << KOVA_DEMO_BIN_DIR;
  FixedClock clock(local_time(2024, 3, 6, 9, 0));
  s_.keep_perf = 1, s_.remote = 1, s_.settings_server = "127.0.0.1";
  EXPECT_EQ(perf("05-Mar-2024:12:00", "05-Mar-2024:12:59", 7), Served(transfer_of(kNoon + kHalfPast), 0)) << log_text();
  EXPECT_TRUE(file_exists(s_.outgoing_dir + "/web1_2024Mar05.perf"));  // yesterday's, whatever the range
  EXPECT_EQ(age_, 7);
  EXPECT_EQ(clock.sleeps(), std::vector<unsigned>{kDataRequestPause});
  EXPECT_NE(read_file(collector_state().dc_cmdline.settings_file).find("RETAIN~7\n"), std::string::npos);
}

TEST_F(DataRequest, PerfRequestFailuresSendNothing) {
  EXPECT_EQ(perf("05-Mar-2024", "05-Mar-2024:23:59", 3), Served("", kResultBadPacket));
  // A tool that cannot be started is told apart from one that wrote nothing.
  s_.bin_dir = dir_ / "nowhere";
  EXPECT_EQ(perf("05-Mar-2024:00:00", "05-Mar-2024:23:59", 3), Served("", kResultImageRunFailed));
  EXPECT_EQ(count_in_log("I-COMPARE"), 0);  // not the settings server: its purge age is not kept
  ::unlink(s_.memory_file_path.c_str());
  EXPECT_EQ(perf("05-Mar-2024:00:00", "05-Mar-2024:23:59", 3), Served("", kResultMemoryFileNotFound));
  EXPECT_EQ(logged("E-PERF_MEM", "Not found " + s_.memory_file_path), 1);
  EXPECT_EQ(count_in_log("I-PERF_COMMAND"), 1);
}

TEST_F(DataRequest, NodeRequestTakesHostAndOsTextOrRefusesShortPayloads) {
  const std::string times = padded("05-Mar-2024:11:00", 18) + padded("05-Mar-2024:11:59", 18) + le16(30);
  const auto node = [&](const std::string& payload) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(payload.data());
    const int n = static_cast<int>(payload.size());
    return exchange([&](int fd) { return process_perf_node_request(fd, s_, "127.0.0.1", bytes, n, buffer_, age_); });
  };
  const std::pair<std::string, std::string> rows[] = {
      {"05-Mar", "Failed to read start_time from packet"},
      {times.substr(0, 30), "Failed to read end_time from packet"},
      {times + padded("db7", 20), "Failed to read hostname from packet"},
      {times + padded("../../etc", 32), "Failed to read hostname from packet"},
  };
  for (const auto& [payload, message] : rows) {
    const int seen = count_in_log(message);
    EXPECT_EQ(node(payload), Served("", kResultBadPacket)) << message;
    EXPECT_EQ(count_in_log(message), seen + 1) << message;
  }

  if (!have_kovaperf_) GTEST_SKIP() << "stand-in kovaperf not built in " << KOVA_DEMO_BIN_DIR;
  // 70 bytes carry no OS text: this platform's own file; "SunOS Solaris 10" names the SPARC one.
  const std::string sparc = "1709632800 2024-03-05 11:00:00 9.99 9.99 9.99 100 999\n";
  write_file(s_.data_dir + "/qdts_web1_2024Mar05.zud-1", sparc);
  const std::string own = kDay.substr(0, kDay.find('\n') + 1);
  for (const auto& [os, range] : {std::pair{std::string(), own}, {std::string("SunOS Solaris 10"), sparc}}) {
    EXPECT_EQ(node(times + padded("web1", 32) + os), Served(transfer_of(range), 0)) << log_text();
    EXPECT_EQ(age_, 30) << os;
  }
}

// Each item: its header (type 3, whole blocks, last block, name length), its name, its bytes.
std::string raw_item(const std::string& name, const std::string& content) {
  return le16(3) + le16(static_cast<int>(content.size() / 522)) + le16(0) +
         le16(static_cast<int>(content.size() % 522)) + le16(static_cast<int>(name.size())) + name + content;
}

TEST_F(DataRequest, RawRequestSendsEveryMatchingFileThenOneClosingPacket) {
  const std::string big(522 * 2 + 5, 'x');
  write_file(s_.data_dir + "/qdtsx_web1_2024Mar05.zud-1", big);
  write_file(s_.data_dir + "/qdtl_web1_2024Mar05.zud-1", kDay);
  write_file(s_.data_dir + "/qdtl_web2_2024Mar05.zud-1", kDay);
  const auto [wire, result] = raw("qdtv_web1_2024Mar05");
  ASSERT_EQ(result, 0) << log_text();
  const std::string sx = raw_item("qdtsx_web1_2024Mar05.zud-1", big), l = raw_item("qdtl_web1_2024Mar05.zud-1", kDay);
  const std::string closing("\x04\0\0\0\0\0\0\0\0\0", 10);
  EXPECT_TRUE(wire == sx + l + closing || wire == l + sx + closing) << "in the directory's order";
  EXPECT_EQ(slept, kDataRequestPause);

  // A name shorter than the type prefix, or one matching nothing, sends nothing.
  EXPECT_EQ(raw("abc"), Served("", kResultBadPacket));
  EXPECT_EQ(raw("qdtsx_none"), Served("", kResultRawDataNotFound));
  // A bare type prefix matches every file.
  EXPECT_EQ(raw("qdtv").first.size(), wire.size() + raw_item("qdtl_web2_2024Mar05.zud-1", kDay).size());
}

}  // namespace
}  // namespace kova::test
