// Data tools that hang: each is killed at the program deadline, and its
// request goes on as for a tool that wrote nothing.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "delivery/file_transfer.h"
#include "delivery/merge_request.h"
#include "delivery/perf_request.h"
#include "platform/process.h"
#include "wire/wire_fixture.h"

namespace kova::test {
namespace {

class HungTool : public WireTest {};

TEST_F(HungTool, IsKilledAndItsPartialOutputNeverSent) {
  const int saved_deadline = program_limits().deadline_ms;
  program_limits().deadline_ms = 300;
  AgentSettings s;
  for (const char* d : {"bin", "data", "tmp", "settings"}) make_dirs(dir_ / d);
  s.bin_dir = dir_ / "bin", s.data_dir = dir_ / "data", s.tmp_dir = dir_ / "tmp", s.hostname = "web1";
  s.memory_file_path = dir_ / "settings/kova_web1.memory", s.settings_server = "10.9.9.9";
  write_file(s.memory_file_path, "memory");
  write_file(s.data_dir + "/qdtsx_web1_2024Mar05.zud-1", "1709636400 2024-03-05 12:00:00 0.4 0.3 0.3 1 2\n");
  // Each writes part of the file named after its flag, then hangs.
  for (const auto& [tool, flag] : {std::pair{"kovaperf", "-perf"}, {"vorn_analyze", "-merg"}, {"squeeze", "-o"}}) {
    write_file(s.bin_dir + "/" + tool, std::string("#!/bin/sh\nwhile [ $# -gt 1 ]; do [ \"$1\" = ") + flag +
                                           " ] && echo partial > \"$2\"; shift; done\nsleep 600\n");
    ::chmod((s.bin_dir + "/" + tool).c_str(), 0755);
  }

  const std::string day{"05-Mar-2024:00:00\0" "05-Mar-2024:23:59", 36};
  PacketBuffer request{}, buffer{};
  std::copy(day.begin(), day.end(), request.begin() + 2);
  int age = 0;
  SocketPair perf, merge;
  EXPECT_EQ(process_perf_request(perf.agent.get(), s, "127.0.0.1", request, buffer, age), kTransferReadFailed);
  EXPECT_EQ(process_merg_request(merge.agent.get(), s, "127.0.0.1", reinterpret_cast<const unsigned char*>(day.data()),
                                 static_cast<int>(day.size()), buffer),
            kTransferReadFailed);
  for (SocketPair* pair : {&perf, &merge}) EXPECT_EQ(pair->drain(), inf_header(0, 0));  // as for no output at all
  EXPECT_EQ(logged("E-PERF_TIMEOUT", s.bin_dir + "/kovaperf ran longer than 1 seconds and was stopped"), 1);
  EXPECT_EQ(logged("E-MERG_TIMEOUT", s.bin_dir + "/vorn_analyze ran longer than 1 seconds and was stopped"), 1);
  for (const char* output : {"web1_2024Mar05_0000_127.0.0.1.perf", "web1_2024Mar05_0000_127.0.0.1.merg",
                             "web1_2024Mar05_0000.proc"})
    EXPECT_FALSE(file_exists(s.tmp_dir + "/" + output)) << output;

  // The compression command: the half-written archive goes.
  write_file(dir_ / "report", "text");
  std::string out;
  EXPECT_EQ(compress_file(s.bin_dir + "/squeeze * -o *.gz", dir_ / "report", out), 1);
  EXPECT_FALSE(file_exists(dir_ / "report.gz"));
  EXPECT_EQ(logged("E-COMPRESS_TIMEOUT", "squeeze " + (dir_ / "report") + " -o " + out + " ran longer than"), 1);
  program_limits().deadline_ms = saved_deadline;
}

}  // namespace
}  // namespace kova::test
