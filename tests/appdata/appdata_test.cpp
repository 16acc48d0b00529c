#include "appdata/appdata.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "appdata/appdata_request.h"
#include "base/codes.h"
#include "support/agent_process.h"
#include "wire/wire_fixture.h"

namespace kova::test {
namespace {

TEST(AppDataPath, SplittingAndRegistration) {
  using Split = int (*)(std::string_view, std::string&, std::string&, int);
  const struct { Split split; const char* path; int ok; const char* dir; const char* name; } paths[] = {
      {get_unix_path, "/var/app/logs/trace*.log", 1, "/var/app/logs", "trace*.log"},
      {get_unix_path, "/var/app/logs//trace", 1, "/var/app/logs", "trace"},
      {get_unix_path, " /var/app /", 1, "/var/app", ""},
      {get_unix_path, "/trace*", 0, "", ""},
      {get_unix_path, "trace", 0, "", ""},
      {get_vms_path, "DKA0:[APP.LOGS]trace*.log", 1, "DKA0:[APP.LOGS]", "trace*.log"},
      {get_vms_path, "DKA0:trace", 1, "DKA0:", "trace"},
  };
  std::string dir, name;
  for (const auto& p : paths) {
    EXPECT_EQ(p.split(p.path, dir, name, 0), p.ok) << p.path;
    EXPECT_EQ(dir + "|" + name, std::string(p.dir) + "|" + p.name) << p.path;
  }

  const char* list = "/var/app/logs/ , /opt/x";
  for (const char* yes : {"/VAR/APP/LOGS", " /opt/x ", "/var/app/logs"}) EXPECT_EQ(appdata_validate_path(list, yes, 0), 1);
  for (const char* no : {"/opt/x/y", "/opt", "/var/app/logs/..", ""}) EXPECT_EQ(appdata_validate_path(list, no, 0), 0);
  EXPECT_EQ(appdata_validate_path("", "", 0), 0);
}

class AppDataFiles : public WireTest {
 protected:
  void SetUp() override {
    WireTest::SetUp();
    make_dirs(apps_ / "settings");
    make_dirs(apps_ / "logs");
    write_file(apps_ / "settings/date_formats.txt", "YYYYMMDD\n\nDD-Mmm-YYYY\n");
    ASSERT_EQ(appdata_read_formats(apps_.path()), 1);
    ASSERT_EQ(appdata_state().styles.size(), 3u);
    (void)appdata_build_time_filters("05-Feb-2012:10:30");
    settings_.app_data_dir = "/elsewhere, " + apps_ / "logs/";
  }
  // The names found for `path` (the registered directory's when relative), or `expected` as the result.
  std::vector<std::string> find(const std::string& path, std::optional<std::string_view> suffix, int use_dates,
                                int expected = 0, bool skip_links = false) {
    std::vector<std::string> found;
    EXPECT_EQ(appdata_find_files(found, settings_.app_data_dir, path.starts_with('/') ? path : apps_ / "logs/" + path,
                                 appdata_state().styles, suffix, use_dates, 0, skip_links), expected) << path;
    for (std::string& f : found) f = f.substr(f.rfind('/') + 1);
    return found;
  }
  TempDir apps_;
  AgentSettings settings_;
};

TEST_F(AppDataFiles, SelectionByPatternDayAndSuffixFromRegisteredDirectoriesOnly) {
  for (const char* f : {"trace_20120205.log", "trace_05-Feb-2012.txt", "trace_20120206.log", "audit_20120205.log",
                        "trace.log"})
    write_file(apps_ / ("logs/" + std::string(f)), f);
  make_dirs(apps_ / "logs/trace_20120205.dir.log");
  ASSERT_EQ(::mkfifo((apps_ / "logs/trace_20120205.fifo.log").c_str(), 0600), 0);

  using Names = std::vector<std::string>;
  const auto sorted = [](Names n) { std::sort(n.begin(), n.end()); return n; };
  EXPECT_EQ(sorted(find("trace*", ".log", 1)), Names{"trace_20120205.log"});
  EXPECT_EQ(sorted(find("trace*", std::nullopt, 1)), (Names{"trace_05-Feb-2012.txt", "trace_20120205.log"}));
  EXPECT_EQ(sorted(find("*", ".log", 0)),
            (Names{"audit_20120205.log", "trace.log", "trace_20120205.log", "trace_20120206.log"}));
  EXPECT_TRUE(find("nothing", std::nullopt, 0).empty());

  // The order, newest find first, is checked against the real binary. Not
  // registered: one above, one that only differs in case; then one that is gone.
  make_dirs(apps_ / "LOGS");
  write_file(apps_ / "LOGS/trace_20120205.log", "other");
  for (const std::string& path : {std::string("../settings/date*"), apps_ / "LOGS/trace*"})
    find(path, std::nullopt, 0, 17);
  settings_.app_data_dir += "," + apps_ / "gone";
  find(apps_ / "gone/x", std::nullopt, 0, 18);
  EXPECT_EQ(logged("E-APPDATA_INVALID_PATH", "Application data path not registered with the KOVAAgent"), 2);
  EXPECT_EQ(logged("E-OPENDIR", "Not able to open " + apps_ / "gone, No such file or directory"), 1);
}

// Hardened mode: a link is neither selected nor purged, even to a file.
TEST_F(AppDataFiles, HardenedModeLeavesLinksAlone) {
  write_file(apps_ / "logs/app_1.log", "file");
  write_file(apps_ / "outside.log", "not registered");
  ASSERT_EQ(::symlink((apps_ / "outside.log").c_str(), (apps_ / "logs/app_2.log").c_str()), 0);
  EXPECT_EQ(find("app", std::nullopt, 0).size(), 2u);
  EXPECT_EQ(find("app", std::nullopt, 0, 0, true), std::vector<std::string>{"app_1.log"});
  for (const char* f : {"logs/app_1.log", "outside.log"}) set_mtime(apps_ / f, std::time(nullptr) - 10 * 86400);
  EXPECT_EQ(appdata_purge_files(apps_ / "logs/app", ".log", 1, 0, true), 1);
  EXPECT_EQ(std::tuple(file_exists(apps_ / "logs/app_1.log"), file_exists(apps_ / "logs/app_2.log")),
            std::tuple(false, true));
}

// The handler over a socket pair: what reaches the server, and what a
// hostile payload or a broken compression command gets.
TEST_F(AppDataFiles, RequestSendsCountNamesAndFilesAndRefusesWhatItCannotTake) {
  const std::string hostile = "trace_20120205 '$(touch ran)'`touch ran`\n.log";
  write_file(apps_ / ("logs/" + hostile), "payload");
  const auto payload = [&](const std::string& path) {
    return padded("05-Feb-2012:10:30", 18) + le16(-1) + le16(1) + le16(1) + padded(".log", 12) + path;
  };
  const auto serve = [&](const std::string& bytes, std::string& wire) {
    SocketPair pair;
    PacketBuffer buffer{};
    const int result = process_appdata_request(pair.agent.get(), settings_, "127.0.0.1",
                                               reinterpret_cast<const unsigned char*>(bytes.data()),
                                               static_cast<int>(bytes.size()), buffer);
    wire = pair.drain();
    return result;
  };
  std::string wire;
  const std::string copy = hostile + ".z";
  settings_.compression_command = "cd " + apps_ / "logs" + " && cp * *.z";  // as the operator wrote it
  EXPECT_EQ(serve(payload(apps_ / "logs/trace*"), wire), 0);
  std::string name_packet(8, '\0');
  name_packet[0] = 12, name_packet[2] = static_cast<char>(copy.size());
  EXPECT_EQ(hex(wire), hex(le16(5) + le16(0) + le16(1) + le16(0) + name_packet + copy + transfer_of("payload")));
  EXPECT_FALSE(file_exists(apps_ / ("logs/" + copy)));  // the compressed copy is gone
  EXPECT_FALSE(file_exists(apps_ / "logs/ran"));

  settings_.compression_command = "cp * /tmp";  // no "*.": the output cannot be named
  EXPECT_EQ(serve(payload(apps_ / "logs/trace*"), wire), kResultCompressionFailed);
  EXPECT_EQ(hex(wire), hex(le16(5) + le16(0) + le16(1) + le16(0)));

  settings_.compression_command = "";  // an unregistered directory: see the selection test
  const std::pair<std::string, int> refused[] = {
      {payload(apps_ / "logs/none"), 12}, {payload(apps_ / "logs/" + std::string(1000, 'x')), 9},
      {payload("/").substr(0, 30), 9},    {payload("").substr(0, 10), 9}, {payload(std::string(2013, '/')), 9},
  };
  for (const auto& [bytes, code] : refused) {
    EXPECT_EQ(serve(bytes, wire), code) << bytes.size();
    EXPECT_EQ(wire, "") << bytes.size();
  }
  EXPECT_EQ(logged("I-APPDATA_VAL", "Received:  AppFile  " + apps_ / "logs/none"), 1);
  EXPECT_EQ(logged("E-APPDATA_BADPACKET", "Failed to parse"), 3);
}

}  // namespace
}  // namespace kova::test
