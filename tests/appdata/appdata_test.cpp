#include "appdata/appdata.h"

#include <dirent.h>
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
  const struct { const char* path; int ok; const char* dir; const char* name; } unix_paths[] = {
      {"/var/app/logs/trace*.log", 1, "/var/app/logs", "trace*.log"},
      {"/var/app/logs//trace", 1, "/var/app/logs", "trace"},
      {" /var/app /", 1, "/var/app", ""},
      {"/trace*", 0, "", ""},
      {"trace", 0, "", ""},
  };
  std::string dir, name;
  for (const auto& p : unix_paths) {
    EXPECT_EQ(get_unix_path(p.path, dir, name, 0), p.ok) << p.path;
    EXPECT_EQ(dir + "|" + name, std::string(p.dir) + "|" + p.name) << p.path;
  }
  EXPECT_EQ(get_vms_path("DKA0:[APP.LOGS]trace*.log", dir, name, 0), 1);
  EXPECT_EQ(dir + "|" + name, "DKA0:[APP.LOGS]|trace*.log");
  EXPECT_EQ(get_vms_path("DKA0:trace", dir, name, 0), 1);
  EXPECT_EQ(dir + "|" + name, "DKA0:|trace");

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
  std::vector<std::string> find(const std::string& pattern, std::optional<std::string_view> suffix, int use_dates,
                                int expected = 0) {
    std::vector<std::string> found;
    EXPECT_EQ(appdata_find_files(found, settings_.app_data_dir, apps_ / "logs/" + pattern, appdata_state().styles,
                                 suffix, use_dates, 0), expected) << pattern;
    for (std::string& f : found) f = f.substr(f.rfind('/') + 1);
    return found;
  }
  TempDir apps_;
  AgentSettings settings_;
};

TEST_F(AppDataFiles, SelectionByPatternDayAndSuffixNewestFindFirst) {
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

  // The order is the directory's, reversed.
  Names listed;
  UniqueDir dir(::opendir((apps_ / "logs").c_str()));
  while (dirent* e = ::readdir(dir.get()))
    if (std::string(e->d_name).starts_with("trace") && std::string(e->d_name).ends_with(".log") &&
        std::string(e->d_name).find("dir") == std::string::npos && std::string(e->d_name).find("fifo") == std::string::npos)
      listed.insert(listed.begin(), e->d_name);
  EXPECT_EQ(find("trace", ".log", 0), listed);

  // Not registered: another directory, one above, one that only differs in case.
  make_dirs(apps_ / "LOGS");
  write_file(apps_ / "LOGS/trace_20120205.log", "other");
  for (const char* path : {"../settings/date*", "../LOGS/trace*"}) find(path, std::nullopt, 0, 17);
  std::vector<std::string> found;
  EXPECT_EQ(appdata_find_files(found, settings_.app_data_dir, apps_ / "LOGS/trace*", appdata_state().styles,
                               std::nullopt, 0, 0), 17);
  settings_.app_data_dir += "," + apps_ / "gone";
  EXPECT_EQ(appdata_find_files(found, settings_.app_data_dir, apps_ / "gone/x", appdata_state().styles, std::nullopt,
                               0, 0), 18);
  EXPECT_EQ(logged("E-APPDATA_INVALID_PATH", "Application data path not registered with the KOVAAgent"), 3);
  EXPECT_EQ(logged("E-OPENDIR", "Not able to open " + apps_ / "gone, No such file or directory"), 1);
}

// Hardened mode: a link is neither selected nor purged, even to a file.
TEST_F(AppDataFiles, HardenedModeLeavesLinksAlone) {
  write_file(apps_ / "logs/app_1.log", "file");
  write_file(apps_ / "outside.log", "not registered");
  ASSERT_EQ(::symlink((apps_ / "outside.log").c_str(), (apps_ / "logs/app_2.log").c_str()), 0);
  EXPECT_EQ(find("app", std::nullopt, 0).size(), 2u);
  std::vector<std::string> found;
  EXPECT_EQ(appdata_find_files(found, settings_.app_data_dir, apps_ / "logs/app", {}, std::nullopt, 0, 0, true), 0);
  EXPECT_EQ(found, std::vector<std::string>{apps_ / "logs/app_1.log"});
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
  const auto payload = [&](const std::string& path, int purge = -1) {
    return padded("05-Feb-2012:10:30", 18) + le16(purge) + le16(1) + le16(1) + padded(".log", 12) + path;
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

  settings_.compression_command = "";
  const std::pair<std::string, int> refused[] = {
      {payload(apps_ / "logs/../settings/date_formats.txt"), 17}, {payload(apps_ / "logs/none"), 12},
      {payload(apps_ / "logs/" + std::string(1000, 'x')), 9},     {payload("/").substr(0, 30), 9},
      {payload("").substr(0, 10), 9},                             {payload(std::string(2013, '/')), 9},
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
