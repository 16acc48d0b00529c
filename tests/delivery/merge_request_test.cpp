#include "delivery/merge_request.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "delivery/perf_request.h"
#include "base/codes.h"
#include "wire/wire_fixture.h"

namespace kova::test {
namespace {

class MergeRequest : public WireTest {
 protected:
  void SetUp() override {
    WireTest::SetUp();
    for (const char* d : {"bin", "data", "tmp", "settings"}) make_dirs(dir_ / d);
    s_.bin_dir = dir_ / "bin", s_.data_dir = dir_ / "data", s_.tmp_dir = dir_ / "tmp", s_.hostname = "web1";
    s_.memory_file_path = dir_ / "settings/kova_web1.memory";
    write_file(s_.memory_file_path, "memory");
    write_file(s_.data_dir + "/qdtsx_web1_2024Mar05.zud-1",
               "1709636400 2024-03-05 12:00:00 0.40 0.30 0.30 812344 213\n"
               "1709638200 2024-03-05 12:30:00 0.60 0.50 0.40 800000 215\n");
  }
  // Serves the request: what was sent, and the result.
  std::pair<std::string, int> merge(const std::string& payload) {
    SocketPair pair;
    const int result = process_merg_request(
        pair.agent.get(), s_, "127.0.0.1", reinterpret_cast<const unsigned char*>(payload.data()),
        static_cast<int>(payload.size()), buffer_);
    return {pair.drain(), result};
  }

  AgentSettings s_;
  PacketBuffer buffer_{};
  const std::string day_{"05-Mar-2024:00:00\0" "05-Mar-2024:23:59", 36};  // two 18-byte fields
};

TEST_F(MergeRequest, SendsTheMergedRangeAndDeletesOrKeepsBothOutputs) {
  std::error_code ec;
  std::filesystem::copy_file(std::string(KOVA_DEMO_BIN_DIR) + "/vorn_analyze", s_.bin_dir + "/vorn_analyze", ec);
  if (ec) GTEST_SKIP() << "stand-in vorn_analyze not built in " << KOVA_DEMO_BIN_DIR;
  const std::string expected = "2024-03-05 12:00 2 0.50 0.40 0.35 800000 215\n";  // the hour's two samples
  for (int keep : {0, 1}) {
    s_.keep_perf = keep;
    ASSERT_EQ(merge(day_), std::pair(transfer_of(expected), 0)) << log_text();
    EXPECT_EQ(file_exists(s_.tmp_dir + "/web1_2024Mar05_0000_127.0.0.1.merg"), keep == 1);
    EXPECT_EQ(file_exists(s_.tmp_dir + "/web1_2024Mar05_0000.proc"), keep == 1);
  }
  EXPECT_EQ(slept, 2 * kDataRequestPause);
}

TEST_F(MergeRequest, FailuresRunNothingAndSendNothing) {
  const struct { std::string payload; bool memory; int code; } cases[] = {
      {day_, true, kResultAnalyzeNotInstalled},
      {std::string("06-Mar-2024:00:00\0" "06-Mar-2024:23:59", 36), true, kResultRawDataNotFound},
      {day_.substr(0, 20), true, kResultBadPacket},
      {day_, false, kResultMemoryFileNotFound},
  };
  for (const auto& c : cases) {
    if (!c.memory) ::unlink(s_.memory_file_path.c_str());
    EXPECT_EQ(merge(c.payload), std::pair(std::string(), c.code));
  }
  EXPECT_EQ(count_in_log("I-MERG_COMMAND"), 0);
}

}  // namespace
}  // namespace kova::test
