#include "update/update_request.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>
#include <tuple>

#include "platform/files.h"

#include "wire/wire_fixture.h"

namespace kova {
namespace {

// The words as the server's line is scanned, and the requests refused
// before anything is written.
TEST(UpdateRequest, OnlyPlainNamesAbsoluteDirectoriesAndDecimalSizesUpToTwoGiBGoAhead) {
  const struct {
    std::string line;
    int words;
    bool refused;
  } cases[] = {
      {"<UPDATE_DATA> u.tar.gz 100 123 /opt/x", 4, false},
      {"<UPDATE_DATA>u.tar\t0  2\n/d extra", 4, false},
      {"<UPDATE_DATA> u.tar 2147483648 1 /", 4, false},
      {"<UPDATE_DATA> u.tar 0002147483648 1 /opt", 4, false},
      {"<UPDATE_DATA> u.tar 2147483649 1 /opt", 4, true},
      {"<UPDATE_DATA> u.tar 99999999999999999999999 1 /opt", 4, true},
      {"<UPDATE_DATA> u.tar 1e3 1 /opt", 4, true},
      {"<UPDATE_DATA> ../u.tar 1 1 /opt", 4, true},
      {"<UPDATE_DATA> .. 1 1 /opt", 4, true},
      {"<UPDATE_DATA> u.tar 1 1 opt/x", 4, true},
      {"<UPDATE_DATA> u.tar 1 2", 3, true},
      {"<UPDATE_DATA>  ", -1, true},
      {"UPDATE u 1 2 /d", 0, true},
  };
  for (const auto& c : cases) {
    const UpdateRequest r = parse_update_request(c.line);
    EXPECT_EQ(r.words, c.words) << c.line;
    EXPECT_EQ(update_request_refusal(r) != nullptr, c.refused) << c.line;
  }
}

using ReceiveTest = test::WireTest;

// Whole blocks are written whole, zero-filled behind a short read; once the
// server has gone the rest is not read, and the remainder is still written.
TEST_F(ReceiveTest, BlocksAndRemainderMakeTheAnnouncedSize) {
  std::string data(9000, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>('a' + i % 26);
  const auto zeros = [](size_t n) { return std::string(n, '\0'); };
  const struct {
    size_t size, sent;
    std::string file;
  } cases[] = {
      {8192, 8192, data.substr(0, 8192)},
      {5000, 5000, data.substr(0, 5000)},
      {5000, 4200, data.substr(0, 4200) + zeros(800)},
      {9000, 5000, data.substr(0, 5000) + zeros(4000)},
      {9000, 0, zeros(808)},
  };
  for (const auto& c : cases) {
    test::SocketPair link;
    link.from_peer(data.substr(0, c.sent));
    ASSERT_EQ(receive_bin_file(log_state().logfile, link.agent.get(), kUpdateBlockSize, dir_.path(), "u.tar",
                               std::to_string(c.size)),
              1);
    EXPECT_EQ(test::read_file(dir_ / "u.tar"), c.file) << c.size << " " << c.sent;
    ::unlink((dir_ / "u.tar").c_str());
  }
  EXPECT_EQ(test::WaitCounter::waits, 0);

  // A server that says nothing costs one read's bounded wait, not one per block.
  test::SocketPair silent;
  EXPECT_EQ(receive_bin_file("", silent.agent.get(), kUpdateBlockSize, dir_.path(), "u.tar", "12288"), 1);
  EXPECT_EQ(test::WaitCounter::waits, kReadRetryLimit);
  EXPECT_EQ(receive_bin_file("", silent.agent.get(), kUpdateBlockSize, dir_ / "missing", "u.tar", "1"), -1);
}

// Hardened mode: only when allowed, only into the install tree, links
// resolved; the request line then names the resolved directory.
TEST(UpdateRequest, HardenedModeTakesUpdatesOnlyWhenAllowedAndOnlyIntoTheInstallTree) {
  test::TempDir root, elsewhere;
  test::make_dirs(root / "update");
  ASSERT_EQ(::symlink(elsewhere.path().c_str(), (root / "away").c_str()), 0);
  AgentSettings s;
  s.harden = 1, s.install_root = root.path();
  for (const auto& [allow, directory, refusal] : std::initializer_list<std::tuple<int, std::string, const char*>>{
           {0, root / "update", "updates are disabled"}, {1, root / "update", ""}, {1, root / "new/deeper", ""},
           {1, root / "away/update", "is not inside"}, {1, root / "update/../..", "is not inside"},
           {1, "update", "is not inside"}}) {
    s.allow_update = allow;
    std::string line = "<UPDATE_DATA> u.tar 10 1 " + directory;
    const std::string said = hardened_update_refusal(s, line);
    EXPECT_NE(said.find(refusal), std::string::npos) << directory << ": " << said;
    if (*refusal == '\0') {
      EXPECT_EQ(std::tuple(said, line), std::tuple("", "<UPDATE_DATA> u.tar 10 1 " + resolved_path(directory)));
    }
  }
}

}  // namespace
}  // namespace kova
