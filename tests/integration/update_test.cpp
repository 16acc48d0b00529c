// Updates pushed to the real binary: received, checked, unpacked and handed
// to a stand-in `at`, first on the agent's PATH, that runs the job at once.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>
#include <tuple>
#include <vector>

#include "kova_client.h"
#include "support/agent_process.h"

namespace kova::test {
namespace {

using Update = AgentTest;

TEST_F(Update, ArchiveIsCheckedUnpackedAndRunDetachedAndNothingIsLeft) {
  InstallTree tree;
  TempDir work;
  make_dirs(work / "bin");
  make_dirs(work / "src/update");
  write_file(work / "bin/at", "#!/bin/sh\necho \"$@\" > " + work / "at.args" + "\nexec /bin/sh \"$2\"\n");
  ::chmod((work / "bin/at").c_str(), 0755);
  write_file(work / "src/update/update.sh", "echo updated > " + work / "marker" + "\necho from the update\n");
  ASSERT_EQ(run_program("/bin/tar", {"czf", work / "update.tar.gz", "-C", work / "src", "update"}).status, 0);

  RunningAgent agent(tree, free_port(), {}, {"PATH=" + work / "bin" + ":" + std::getenv("PATH")});
  ASSERT_TRUE(agent.started()) << agent.launch().err;

  // Refused before anything is written: FAIL in place of OK.
  const std::string refused = tree / "refused";
  const std::string lines[] = {"u/u.tar 10 1 " + refused, "u.tar 10 1"};
  // Each pauses two seconds: both at once.
  std::vector<std::future<std::string>> replies;
  for (const std::string& line : lines)
    replies.push_back(std::async(std::launch::async, [&, line] {
      return round_trip(agent.port(), extended_packet("<UPDATE_DATA>", "<UPDATE_DATA> " + line));
    }));
  for (size_t i = 0; i < replies.size(); ++i)
    EXPECT_EQ(hex(replies[i].get()), hex(std::string(8, '\0') + "FAIL\r\n")) << lines[i];
  EXPECT_FALSE(file_exists(refused));

  // A wrong checksum: the file is received and deleted, nothing is run.
  const std::string archive = read_file(work / "update.tar.gz");
  const std::string rejected = tree / "rejected";
  client::Connection connection;
  client::UpdateReplies answer;
  ASSERT_TRUE(client::Connection::open("127.0.0.1", agent.port(), connection).ok());
  const auto bytes = std::span(reinterpret_cast<const unsigned char*>(archive.data()), archive.size());
  const client::Status st = connection.push_update(
      client::update_request_line("update.tar.gz", archive.size(), std::string(48, '9'), rejected), bytes, answer);
  ASSERT_TRUE(st.ok()) << st.message;
  EXPECT_EQ(answer.ack + answer.verdict, "OK\r\nFAIL\r\n");
  EXPECT_TRUE(eventually([&] { return std::filesystem::is_empty(rejected); }));

  // The update through kovaget: unpacked, run by `at`, the archive gone.
  const std::string target = tree / "incoming";
  const RunResult pushed =
      run_program(KOVA_KOVAGET_BIN, {"-p", std::to_string(agent.port()), "update", work / "update.tar.gz", target});
  EXPECT_EQ(std::tuple(pushed.status, pushed.out), std::tuple(0, std::string("OK\nPASS\n")));
  // The agent goes on after its PASS; its last line is the clean-up's.
  EXPECT_TRUE(eventually([&] { return tree.log().find(",  delete update.tar\n") != std::string::npos; })) << tree.log();
  EXPECT_EQ(read_file(work / "marker"), "updated\n");
  const std::string launcher = target + "/update/runupdate.sh", update_log = tree / "logs/update.log";
  EXPECT_EQ(read_file(work / "at.args"), "-f " + launcher + " now\n");
  EXPECT_EQ(read_file(launcher), "#!/bin/sh\ncd " + target + "/update\nsh " + target + "/update/update.sh 1>>" +
                                     update_log + " 2>>" + update_log + "\ndate 1>>" + update_log + "\n");
  EXPECT_EQ(std::filesystem::status(launcher).permissions(), std::filesystem::perms(0744));
  EXPECT_EQ(read_file(update_log).substr(0, 16), "from the update\n");
  EXPECT_FALSE(file_exists(target + "/update.tar.gz"));
  EXPECT_FALSE(file_exists(target + "/update.tar"));

  const std::string log = tree.log();
  EXPECT_NE(log.find(", <UPDATE_DATA> request refused, the target directory is not absolute\n"), std::string::npos)
      << log;
  EXPECT_NE(log.find(", Executing at -f " + launcher + " now\n\n"), std::string::npos);
}

}  // namespace
}  // namespace kova::test
