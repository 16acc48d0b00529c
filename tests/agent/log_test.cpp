#include "base/log.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "agent/log_day.h"
#include "settings/command_line.h"
#include "support/fixed_clock.h"
#include "support/temp_dir.h"

namespace kova::test {
namespace {

class AgentLog : public testing::Test {
 protected:
  void SetUp() override {
    kova_init_command_line(s);
    s.hostname = "myhost";
    kova_adjust_path_settings(s, root.path());
    make_dirs(s.log_dir);
    log_state() = LogState{};
  }
  void TearDown() override { log_state() = LogState{}; }
  TempDir root;
  AgentSettings s;
};

TEST_F(AgentLog, NewDayFormsTheNameWritesTheHeaderAndPurgesOldLogs) {
  FixedClock clock(local_time(2012, 2, 23, 10, 15, 0));
  write_file(s.log_dir + "/kova_myhost_2012Feb10.log", "old\n");
  set_mtime(s.log_dir + "/kova_myhost_2012Feb10.log", local_time(2012, 2, 10));

  std::string stamp = "Thu Feb 23 10:15:00 2012";
  ASSERT_EQ(get_log_file_name_unix(s), 1);
  EXPECT_EQ(log_state().logfile, s.log_dir + "/kova_myhost_2012Feb23.log");
  EXPECT_FALSE(file_exists(s.log_dir + "/kova_myhost_2012Feb10.log"));
  EXPECT_EQ(get_log_file_name_unix(s), 0);  // same day

  write_log_header(s);
  write_to_log("I-STARTED", "Agent started");
  // The old log's removal is logged in the new day's file, ahead of its header.
  EXPECT_EQ(read_file(log_state().logfile),
            stamp + ",  KOVAAGENT-I-DEL_DATA,    Deleting data file kova_myhost_2012Feb10.log\n" +
                "\nKOVAagent Copyright (c) KOVA Systems. All rights reserved.\nBuild: V10.0-001 (Feb 23 2012)\n\n" +
                stamp + ",  KOVAAGENT-I-LOGNAME,     " + log_state().logfile + "\n" +
                stamp + ",  KOVAAGENT-I-LIBRARY,     " + root.path() + "\n" +
                stamp + ",  KOVAAGENT-I-DATA,        " + s.data_dir + "\n" +
                stamp + ",  KOVAAGENT-I-LOG,         Detailed Logging is OFF\n" +
                stamp + ",  KOVAAGENT-I_SERVER,      Registered KOVAServer : 0.0.0.0\n" +
                stamp + ",  KOVAAGENT-I_KEEPPERF,    Keep Perf Files : Off\n\n" +
                stamp + ",  KOVAAGENT-I-STARTED,     Agent started\n");

  // The listening process asks before every request; only the day of the
  // year decides, whichever way the clock moved since the last answer.
  const struct { std::time_t now; int changed; const char* day; } steps[] = {
      {local_time(2012, 2, 23, 23, 59, 59), 0, "2012Feb23"},
      {local_time(2012, 2, 24, 0, 0, 1), 1, "2012Feb24"},
      {local_time(2012, 2, 24, 18, 0, 0), 0, "2012Feb24"},
      {local_time(2012, 2, 23, 23, 0, 0), 1, "2012Feb23"},  // set back across midnight
      {local_time(2013, 2, 23, 9, 0, 0), 0, "2012Feb23"},   // a year on: the same day of the year
      {local_time(2013, 2, 24, 9, 0, 0), 1, "2013Feb24"},
  };
  for (const auto& step : steps) {
    clock.set(step.now);
    EXPECT_EQ(get_log_file_name_unix(s), step.changed) << step.day;
    EXPECT_EQ(log_state().logfile, s.log_dir + "/kova_myhost_" + step.day + ".log");
  }
}

TEST_F(AgentLog, LinesOfAnyLengthAreWrittenWholeAndExact) {
  FixedClock clock(local_time(2012, 2, 23, 10, 15, 0));
  log_state().logfile = s.log_dir + "/lines.log";
  const std::string stamp = "Thu Feb 23 10:15:00 2012";
  std::string expected;
  // Around the lengths where a line or a formatted message stops fitting
  // a fixed buffer.
  for (size_t length : {1u, 202u, 203u, 204u, 255u, 256u, 257u, 1000u}) {
    const std::string message(length, 'm');
    write_to_log("I-TAG", message);
    log_printf("I-FMT", "%s", message.c_str());
    write_to_log("", message, false);
    expected += format_log_line(stamp, "I-TAG", message) + format_log_line(stamp, "I-FMT", message) + message + "\n";
  }
  EXPECT_EQ(read_file(log_state().logfile), expected);
  EXPECT_EQ(format_log_line(stamp, "I-VERS", "v"), stamp + ",  KOVAAGENT-I-VERS,        v\n");
}

TEST_F(AgentLog, RemoteHeaderAndUnwritableLogStayQuietUnlessVerbose) {
  FixedClock clock(local_time(2012, 2, 23));
  s.remote = 1, s.schedule_hour = 2, s.schedule_minute = 5;
  get_log_file_name_unix(s);
  write_log_header(s);
  std::string log = read_file(log_state().logfile);
  EXPECT_NE(log.find("I_REMOTE,      Remote Schedule : 02:05\n"), std::string::npos);
  EXPECT_NE(log.find("Remote retain : 30 days\n\n"), std::string::npos);
  EXPECT_EQ(log.find("I_SERVER"), std::string::npos);

  const std::string lost = root / "no/such/dir/log";
  log_state().logfile = lost;
  for (const bool verbose : {false, true}) {
    log_state().verbose = verbose;
    testing::internal::CaptureStdout();
    EXPECT_EQ(write_to_log("I-X", "lost"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              verbose ? "KOVAAGENT-E-OPEN: Unable to open log " + lost + ", No such file or directory\n" : "");
  }
}

TEST_F(AgentLog, LinesFromConcurrentProcessesNeverInterleave) {
  log_state().logfile = s.log_dir + "/shared.log";
  constexpr int kChildren = 4, kLines = 300;
  std::string payload(700, 'x');  // longer than a pipe-atomic write would need
  pid_t pids[kChildren];
  for (int c = 0; c < kChildren; ++c) {
    pids[c] = fork();
    ASSERT_GE(pids[c], 0);
    if (pids[c] == 0) {
      for (int i = 0; i < kLines; ++i) write_to_log("I-CHILD", std::to_string(c) + ":" + payload);
      _exit(0);
    }
  }
  for (pid_t pid : pids) waitpid(pid, nullptr, 0);
  std::istringstream in(read_file(log_state().logfile));
  int count = 0;
  for (std::string line; std::getline(in, line); ++count)
    ASSERT_TRUE(line.find("KOVAAGENT-I-CHILD,      ") != std::string::npos && line.ends_with(payload)) << line;
  EXPECT_EQ(count, kChildren * kLines);
}

TEST(LogEscape, OnlyPrintableAsciiStandsAsItIs) {
  const std::pair<std::string, std::string> cases[] = {
      {"GET_AGENT_OS /opt/v-1_x~", "GET_AGENT_OS /opt/v-1_x~"},
      {"a\nb\rc\td", "a\\nb\\rc\\td"},
      {std::string("\0\x1b\x7f\x80\xff", 5), "\\x00\\x1b\\x7f\\x80\\xff"},
      {"back\\slash", "back\\slash"},
  };
  for (const auto& [text, shown] : cases) EXPECT_EQ(log_escape(text), shown);
}

}  // namespace
}  // namespace kova::test
