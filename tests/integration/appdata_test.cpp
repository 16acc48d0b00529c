// Application data against the real binary: a registered directory with
// files of several days and suffixes, fetched as the server does.
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include "kova_client.h"
#include "support/agent_process.h"

namespace kova::test {
namespace {

using AppData = AgentTest;

std::string transfer(const std::string& content) {
  return le16(6) + le16(static_cast<int>(content.size() / 522)) + le16(0) + le16(content.size() % 522) + content;
}

std::string request(const std::string& path, int purge, int by_day, const std::string& suffix) {
  return padded("05-Feb-2012:10:30", 18) + le16(purge) + le16(by_day) + le16(suffix.empty() ? 0 : 1) +
         padded(suffix, 12) + path;
}

TEST_F(AppData, RegisteredFilesOfOneDayAndSuffixArriveInListOrderAndOldOnesArePurged) {
  InstallTree tree;
  TempDir apps;
  write_file(tree / "settings/date_formats.txt", "YYYYMMDD\nDD-Mmm-YYYY\n");
  const std::vector<std::pair<std::string, std::string>> files = {
      {"app_20120205.log", "first day\n"},      {"app_05-Feb-2012.log", "same day, other style\n"},
      {"app_20120205.txt", "other suffix\n"},   {"app_20120206.log", "other day\n"},
      {"other_20120205.log", "other pattern\n"}, {"app_20120205_big.log", std::string(522 * 3 + 17, 'b')},
      {"old_1.log", "old\n"},                   {"old_2.log", "young\n"}};
  for (const auto& [name, content] : files) write_file(apps / name, content);
  set_mtime(apps / "old_1.log", std::time(nullptr) - 3 * 86400);

  RunningAgent agent(tree, free_port(), {"-appdir", apps.path() + "/ ," + tree / "missing"});
  ASSERT_TRUE(agent.started()) << agent.launch().err;
  const auto ask = [&](const std::string& payload) {
    return std::async(std::launch::async, [&, payload] { return round_trip(agent.port(), extended_packet("<APPDATA>", payload)); });
  };
  // Each request pauses two seconds: these three go side by side.
  auto day_and_suffix = ask(request(apps / "app*", -1, 1, ".log"));
  auto keep_all = ask(request(apps / "old*", -1, 0, ".log"));
  auto quoting = ask(request(apps / "x'$(touch ran)'`touch ran`\n*", 0, 0, ""));

  // The list's order: the directory's, newest find first.
  std::string expected = le16(5) + le16(0) + le16(3) + le16(0);
  for (const auto& entry : std::filesystem::directory_iterator(apps.path())) {
    const std::string name = entry.path().filename();
    for (const auto& [wanted, content] : files)
      if (name == wanted && (wanted == "app_20120205.log" || wanted == "app_05-Feb-2012.log" ||
                             wanted == "app_20120205_big.log"))
        expected.insert(8, le16(12) + le16(static_cast<int>(name.size())) + std::string(4, '\0') + name + transfer(content));
  }
  EXPECT_EQ(hex(day_and_suffix.get()), hex(expected + le16(5) + std::string(6, '\0')));
  EXPECT_EQ(keep_all.get().substr(0, 8), le16(5) + le16(0) + le16(2) + le16(0));
  EXPECT_TRUE(file_exists(apps / "old_1.log"));
  EXPECT_EQ(hex(quoting.get()), "05000c0000000000");
  for (const std::string& dir : {apps.path(), tree / "tmp", tree.root()}) EXPECT_FALSE(file_exists(dir + "/ran"));

  // Then a purge of 0 days: what is older than today goes once sent.
  client::Connection c;
  ASSERT_TRUE(client::Connection::open("127.0.0.1", agent.port(), c).ok());
  TempDir out;
  std::vector<std::string> names;
  client::AppDataQuery query{"05-Feb-2012:10:30", 0, false, ".log", apps / "old*"};
  const client::Status st = client::fetch_appdata(c, query, out.path(), names);
  ASSERT_TRUE(st.ok()) << st.message;
  EXPECT_EQ(names.size(), 2u);
  EXPECT_EQ(read_file(out / "old_1.log") + read_file(out / "old_2.log"), "old\nyoung\n");
  EXPECT_FALSE(file_exists(apps / "old_1.log"));
  EXPECT_TRUE(file_exists(apps / "old_2.log"));

  const std::string log = tree.log();
  EXPECT_EQ(occurrences(log, "KOVAAGENT-I-APPDATA_SENT,"), 7u) << log;
  EXPECT_EQ(occurrences(log, "Deleting data file old_1.log"), 1u);
}

}  // namespace
}  // namespace kova::test
