#include "delivery/perf_request.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "components/collector.h"
#include "support/fixed_clock.h"
#include "wire/status.h"
#include "wire/wire_fixture.h"

namespace kova {
namespace {

std::string demo_bin() {
#ifdef KOVA_DEMO_BIN_DIR
  return KOVA_DEMO_BIN_DIR;
#else
  const std::string agent = KOVA_AGENT_BIN;  // <build>/src/kovaagent
  return agent.substr(0, agent.rfind("/src/")) + "/demo/bin";
#endif
}

// Samples of 5 March 2024 as the stand-in collector writes them.
const std::string kMorning = "1709632800 2024-03-05 11:00:00 0.10 0.20 0.30 900000 200\n";
const std::string kNoon = "1709636400 2024-03-05 12:00:00 0.42 0.35 0.30 812344 213\n";
const std::string kHalfPast = "1709638200 2024-03-05 12:30:00 0.50 0.40 0.30 800000 215\n";
const std::string kDay = kMorning + kNoon + kHalfPast;

std::string field(const std::string& text, size_t width) {
  std::string f = text.substr(0, width);
  return f + std::string(width - f.size(), '\0');
}

std::string le16(int v) { return {static_cast<char>(v & 0xff), static_cast<char>((v >> 8) & 0xff)}; }

std::string inf(int32_t blocks, int16_t last) {
  PacketBuffer b{};
  Packet_CreateINF(blocks, last, b);
  return std::string(reinterpret_cast<const char*>(b.data()), kInfSize);
}

class DataRequest : public test::WireTest {
 protected:
  void SetUp() override {
    WireTest::SetUp();
    root_ = dir_ / "root";
    for (const char* d : {"bin", "data", "tmp", "outgoing", "settings"}) test::make_dirs(root_ + "/" + d);
    s_.install_root = root_;
    s_.bin_dir = root_ + "/bin";
    s_.data_dir = root_ + "/data";
    s_.tmp_dir = root_ + "/tmp";
    s_.outgoing_dir = root_ + "/outgoing";
    s_.hostname = "web1";
    s_.settings_server = "10.9.9.9";  // not the test's peer: no collector settings written
    s_.memory_file_path = root_ + "/settings/kova_web1.memory";
    test::write_file(s_.memory_file_path, "memory");
  }
  bool install(const char* program) {
    std::error_code ec;
    std::filesystem::copy_file(demo_bin() + "/" + program, s_.bin_dir + "/" + program, ec);
    return !ec;
  }
  // Runs `serve` on the agent side and returns everything it sent.
  template <typename Serve>
  std::string exchange(Serve serve, int& result, const std::string& sent = "") {
    test::SocketPair pair;
    EXPECT_EQ(::write(pair.peer.get(), sent.data(), sent.size()), static_cast<ssize_t>(sent.size()));
    result = serve(pair.agent.get());
    pair.agent.reset();
    std::string all;
    char buf[4096];
    ssize_t k;
    while ((k = ::read(pair.peer.get(), buf, sizeof buf)) > 0) all.append(buf, static_cast<size_t>(k));
    return all;
  }
  PacketBuffer request(const std::string& start, const std::string& end, int age) {
    PacketBuffer r{};
    const std::string fields = le16(1) + field(start, 18) + field(end, 18) + le16(age);
    std::copy(fields.begin(), fields.end(), r.begin());
    return r;
  }
  // A raw data request for `name`, which follows the request on the
  // connection.
  std::string raw(const std::string& name, int& result) {
    PacketBuffer r{};
    const std::string head = le16(13) + le16(static_cast<int>(name.size()));
    std::copy(head.begin(), head.end(), r.begin());
    return exchange(
        [&](int fd) { return process_rawdata_request(fd, s_, "127.0.0.1", r, 1); }, result, name);
  }
  std::string node(const std::string& payload, int& result) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(payload.data());
    const int n = static_cast<int>(payload.size());
    return exchange(
        [&](int fd) { return process_perf_node_request(fd, s_, "127.0.0.1", bytes, n, buffer_, age_); }, result);
  }
  int perf(const PacketBuffer& r, std::string& wire) {
    int result = -1;
    wire = exchange([&](int fd) { return process_perf_request(fd, s_, "127.0.0.1", r, buffer_, age_); }, result);
    return result;
  }

  AgentSettings s_;
  std::string root_;
  PacketBuffer buffer_{};
  int age_ = 14;
};

TEST(TimeTexts, RequestTimesBecomeFileNameParts) {
  struct Row {
    const char* time;
    const char* data_upper;
    const char* data_lower;
    const char* file_time;
  } rows[] = {
      {"23-Feb-2012:10:05", "2012Feb23", "2012feb23", "2012Feb23_1005"},
      {"01-DEC-1999:23:59", "1999Dec01", "1999dec01", "1999DEC01_2359"},
      {"05-mar-2024:00:00 and more", "2024Mar05", "2024mar05", "2024mar05_0000"},
      {"23-Feb-2012", "", "", ""},              // cut short
      {"23-F/b-2012:10:05", "", "", ""},        // would reach another directory
      {"2x-Feb-2012:10:05", "", "", ""},
      {"", "", "", ""},
  };
  for (const Row& row : rows) {
    std::string upper, lower, file_time;
    const int ok = row.data_upper[0] != '\0' ? 1 : 0;
    EXPECT_EQ(formatDataFileTime(row.time, upper, 1), ok) << row.time;
    EXPECT_EQ(formatDataFileTime(row.time, lower, 0), ok) << row.time;
    EXPECT_EQ(formatFileTime(row.time, file_time), ok) << row.time;
    EXPECT_EQ(upper, row.data_upper) << row.time;
    EXPECT_EQ(lower, row.data_lower) << row.time;
    EXPECT_EQ(file_time, row.file_time) << row.time;
  }
}

TEST(TimeTexts, YesterdayCrossesMonthAndYearEnds) {
  struct Row {
    int year, month, day;
    const char* name;
    const char* start;
  } rows[] = {{2024, 3, 1, "2024Feb29", "29-Feb-2024:00:00"},
              {2024, 1, 1, "2023Dec31", "31-Dec-2023:00:00"},
              {2024, 7, 15, "2024Jul14", "14-Jul-2024:00:00"}};
  for (const Row& row : rows) {
    test::FixedClock clock(test::local_time(row.year, row.month, row.day, 0, 30));
    std::string name, start, end;
    EXPECT_EQ(formatFileNameTime(name), 1);
    EXPECT_EQ(formatTimeStrings(start, end), 1);
    EXPECT_EQ(name, row.name);
    EXPECT_EQ(start, row.start);
    EXPECT_EQ(end, std::string(row.start).substr(0, 12) + "23:59");
  }
}

TEST(DataFileNames, OsTextSelectsPrefixFirstMatchWins) {
  const std::pair<const char*, const char*> rows[] = {
      {"", "qdtsx_h_2024Mar05.zud-1"},
      {"Solaris x86 10", "qdtsx_h_2024Mar05.zud-1"},
      {"SunOS Solaris 10", "qdts_h_2024Mar05.zud-1"},
      {"OpenVMS", "h_2024Mar05.pmd"},
      {"VMware ESX 4.1", "qdtv_h_2024Mar05.zud-1"},
      {"Red Hat Enterprise Linux", "qdtl_h_2024Mar05.zud-1"},
      {"AIX 7.1", "qdta_h_2024Mar05.zud-1"},
      {"HP-UX B.11", "qdth_h_2024Mar05.zud-1"},
      {"Windows", "qdt_h_2024Mar05.zud-1"},
  };
  for (const auto& [os, name] : rows) EXPECT_EQ(perf_data_file_name("h", os, "2024Mar05"), name) << os;
}

TEST_F(DataRequest, PerfRequestSendsTheRangeAndDeletesOrKeepsTheWorkFile) {
  if (!install("kovaperf")) GTEST_SKIP() << "stand-in kovaperf not built in " << demo_bin();
  test::write_file(s_.data_dir + "/qdtsx_web1_2024Mar05.zud-1", kDay);
  test::FixedClock clock(test::local_time(2024, 3, 6, 9, 0));
  struct Row {
    int keep, remote;
    std::string work_file;
  } rows[] = {{0, 0, s_.tmp_dir + "/web1_2024Mar05_1200_127.0.0.1.perf"},
              {1, 0, s_.tmp_dir + "/web1_2024Mar05_1200_127.0.0.1.perf"},
              {1, 1, s_.outgoing_dir + "/web1_2024Mar05.perf"}};  // yesterday, whatever the range
  for (const Row& row : rows) {
    s_.keep_perf = row.keep;
    s_.remote = row.remote;
    std::string wire;
    ASSERT_EQ(perf(request("05-Mar-2024:12:00", "05-Mar-2024:12:59", 7), wire), 0) << log_text();
    const std::string expected = kNoon + kHalfPast;
    EXPECT_EQ(wire, inf(0, static_cast<int16_t>(expected.size())) + expected);
    EXPECT_EQ(test::file_exists(row.work_file), row.keep == 1) << row.work_file;
    EXPECT_EQ(age_, 7);
  }
  EXPECT_EQ(clock.sleeps(), std::vector<unsigned>(3, kDataRequestPause));
  EXPECT_EQ(logged("I-RCV_VALUE", "Received purge value 7"), 3);
  // The peer is not the settings server: the collector's settings stay.
  EXPECT_EQ(count_in_log("I-COMPARE"), 0);
}

TEST_F(DataRequest, SettingsServerPassesItsPurgeAgeToTheCollector) {
  if (!install("kovaperf")) GTEST_SKIP() << "stand-in kovaperf not built in " << demo_bin();
  test::write_file(s_.data_dir + "/qdtsx_web1_2024Mar05.zud-1", kDay);
  s_.settings_server = "127.0.0.1";
  std::string wire;
  ASSERT_EQ(perf(request("05-Mar-2024:11:00", "05-Mar-2024:11:00", 9), wire), 0);
  EXPECT_EQ(wire, inf(0, static_cast<int16_t>(kMorning.size())) + kMorning);
  const std::string config = test::read_file(collector_state().dc_cmdline.settings_file);
  EXPECT_NE(config.find("RETAIN~9\n"), std::string::npos) << config;
}

TEST_F(DataRequest, PerfRequestFailuresSendNothingAndRunNothing) {
  test::write_file(s_.data_dir + "/qdtsx_web1_2024Mar05.zud-1", kDay);
  std::string wire;

  EXPECT_EQ(perf(request("06-Mar-2024:00:00", "06-Mar-2024:23:59", 3), wire), kResultRawDataNotFound);
  EXPECT_EQ(wire, "");
  EXPECT_EQ(logged("E-PERF_ZUD_NOT_FND", "Data file not found: " + s_.data_dir + "/qdtsx_web1_2024Mar06.zud-1"), 1);
  EXPECT_EQ(count_in_log("I-PERF_COMMAND"), 0);

  EXPECT_EQ(perf(request("05-Mar-2024", "05-Mar-2024:23:59", 3), wire), kResultBadPacket);
  EXPECT_EQ(wire, "");

  ::unlink(s_.memory_file_path.c_str());
  EXPECT_EQ(perf(request("05-Mar-2024:00:00", "05-Mar-2024:23:59", 3), wire), kResultMemoryFileNotFound);
  EXPECT_EQ(wire, "");
  EXPECT_EQ(logged("E-PERF_MEM", "Not found " + s_.memory_file_path), 1);
  test::write_file(s_.memory_file_path, "memory");

  // A tool that cannot be started is told apart from one that wrote nothing.
  s_.bin_dir = root_ + "/nowhere";
  EXPECT_EQ(perf(request("05-Mar-2024:00:00", "05-Mar-2024:23:59", 3), wire), kResultImageRunFailed);
  EXPECT_EQ(wire, "");
  EXPECT_EQ(count_in_log("I-PERF_COMMAND"), 1);
}

TEST_F(DataRequest, NodeRequestReadsTheHostsFileByOsAndPurgesItsOldFiles) {
  if (!install("kovaperf")) GTEST_SKIP() << "stand-in kovaperf not built in " << demo_bin();
  const std::pair<std::string, std::string> rows[] = {
      {"", "qdtsx_db7_2024Mar05.zud-1"},  // exactly 70 bytes: no OS text
      {"Solaris x86 10", "qdtsx_db7_2024Mar05.zud-1"},
      {"SunOS Solaris 10", "qdts_db7_2024Mar05.zud-1"},
      {"OpenVMS V8.4", "db7_2024Mar05.pmd"},
  };
  for (const auto& [os, file] : rows) {
    test::write_file(s_.data_dir + "/" + file, kDay);
    const std::string old = s_.data_dir + "/qdtsx_db7_2012Jan01.zud-1";
    test::write_file(old, kDay);
    test::set_mtime(old, std::time(nullptr) - 40 * 86400);

    const int seen = logged("I-PERF_ZUDFILE", s_.data_dir + "/" + file);
    const std::string payload =
        field("05-Mar-2024:11:00", 18) + field("05-Mar-2024:11:59", 18) + le16(30) + field("db7", 32) + os;
    ASSERT_EQ(payload.size(), 70 + os.size());
    int result = -1;
    const std::string wire = node(payload, result);
    EXPECT_EQ(result, 0) << os;
    EXPECT_EQ(wire, inf(0, static_cast<int16_t>(kMorning.size())) + kMorning) << os;
    EXPECT_EQ(logged("I-PERF_ZUDFILE", s_.data_dir + "/" + file), seen + 1) << os;
    EXPECT_FALSE(test::file_exists(old)) << os;
    ::unlink((s_.data_dir + "/" + file).c_str());
  }
}

TEST_F(DataRequest, NodeRequestRefusesShortPayloadsAndHostPaths) {
  const std::string times = field("05-Mar-2024:11:00", 18) + field("05-Mar-2024:11:59", 18) + le16(30);
  const std::pair<std::string, std::string> rows[] = {
      {"05-Mar", "Failed to read start_time from packet"},
      {times.substr(0, 30), "Failed to read end_time from packet"},
      {times + field("db7", 20), "Failed to read hostname from packet"},
      {times + field("../../etc", 32), "Failed to read hostname from packet"},
  };
  for (const auto& [payload, message] : rows) {
    const int seen = count_in_log(message);
    int result = -1;
    const std::string wire = node(payload, result);
    EXPECT_EQ(result, kResultBadPacket) << message;
    EXPECT_EQ(wire, "");
    EXPECT_EQ(count_in_log(message), seen + 1) << message;
  }
}

// Splits a raw transfer into (name, bytes) items, sorted by name (the
// directory's order is not fixed), and what follows them.
using RawItems = std::vector<std::pair<std::string, std::string>>;
bool parse_raw(const std::string& wire, RawItems& items, std::string& rest) {
  size_t at = 0;
  while (wire.size() - at >= kZudDataSize) {
    std::span<const unsigned char> packet(reinterpret_cast<const unsigned char*>(wire.data() + at), kZudDataSize);
    if (Packet_CheckOPCODE(packet, 0) != 3) break;
    const size_t size = static_cast<size_t>(Packet_CheckLONG(packet, 2)) * 522 +
                        static_cast<size_t>(Packet_CheckOPCODE(packet, 6));
    const size_t name_length = static_cast<size_t>(Packet_CheckOPCODE(packet, 8));
    at += kZudDataSize;
    if (wire.size() - at < name_length + size) return false;
    items.emplace_back(wire.substr(at, name_length), wire.substr(at + name_length, size));
    at += name_length + size;
  }
  std::sort(items.begin(), items.end());
  rest = wire.substr(at);
  return true;
}

TEST_F(DataRequest, RawRequestSendsEveryMatchingFileThenOneClosingPacket) {
  const std::string big(522 * 2 + 5, 'x');
  test::write_file(s_.data_dir + "/qdtsx_web1_2024Mar05.zud-1", big);
  test::write_file(s_.data_dir + "/qdtl_web1_2024Mar05.zud-1", kDay);
  test::write_file(s_.data_dir + "/qdtl_web1_2024Mar05.zud-1.empty", "");
  test::write_file(s_.data_dir + "/qdtl_web2_2024Mar05.zud-1", kDay);

  int result = -1;
  const std::string wire = raw("qdtv_web1_2024Mar05", result);
  ASSERT_EQ(result, 0) << log_text();

  RawItems items;
  std::string closing;
  ASSERT_TRUE(parse_raw(wire, items, closing));
  EXPECT_EQ(items, (RawItems{{"qdtl_web1_2024Mar05.zud-1", kDay},
                             {"qdtl_web1_2024Mar05.zud-1.empty", ""},
                             {"qdtsx_web1_2024Mar05.zud-1", big}}));
  EXPECT_EQ(closing, std::string("\x04\0\0\0\0\0\0\0\0\0", 10));
  EXPECT_EQ(slept, kDataRequestPause);

  // Names that leave nothing to match after the type prefix, and names
  // that match nothing, send nothing.
  for (const std::string& refused : {std::string("abc"), std::string("qdts"), std::string("qdtsx_none")}) {
    EXPECT_EQ(raw(refused, result), "") << refused;
    EXPECT_EQ(result, refused.size() <= 4 ? kResultBadPacket : kResultRawDataNotFound) << refused;
  }
}

}  // namespace
}  // namespace kova
