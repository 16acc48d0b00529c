#include "delivery/file_transfer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "wire/wire_fixture.h"

namespace kova {
namespace {

using test::SocketPair;
using test::WaitCounter;

// Everything the agent side wrote, once it has closed its end.
std::string drain(SocketPair& pair) {
  pair.agent.reset();
  std::string all;
  char buf[4096];
  ssize_t k = 0;
  while ((k = ::read(pair.peer.get(), buf, sizeof buf)) > 0) all.append(buf, static_cast<size_t>(k));
  return all;
}

std::string pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 31 + i / 522) & 0xff);
  return s;
}

std::string inf_header(int32_t blocks, int16_t last) {
  PacketBuffer b{};
  Packet_CreateINF(blocks, last, b);
  return std::string(reinterpret_cast<const char*>(b.data()), kInfSize);
}

class FileTransfer : public test::WireTest {
 protected:
  AgentSettings settings_;
  PacketBuffer buffer_{};
  PacketBuffer spare_{};
};

TEST_F(FileTransfer, SendsHeaderThenExactBytesAndReceivesThemBack) {
  const size_t sizes[] = {0, 1, 521, 522, 522 * 3, 522 * 128, 522 * 128 + 1, 522 * 130 + 17};
  for (size_t size : sizes) {
    const std::string name = "size " + std::to_string(size);
    const std::string path = dir_ / "out.dat";
    const std::string content = pattern(size);
    test::write_file(path, content);

    SocketPair send_pair;
    ASSERT_EQ(send_ascii_file(send_pair.agent.get(), settings_, path, buffer_, kTransferBlockSize), kTransferOk)
        << name;
    const std::string wire = drain(send_pair);
    EXPECT_EQ(wire, inf_header(static_cast<int32_t>(size / 522), static_cast<int16_t>(size % 522)) + content)
        << name;
    EXPECT_NE(log_text().find("File (" + path + ") transfered. (" + std::to_string(size) + " of " +
                              std::to_string(size) + " bytes)"),
              std::string::npos)
        << name;

    SocketPair recv_pair;
    ASSERT_EQ(::write(recv_pair.peer.get(), wire.data(), wire.size()), static_cast<ssize_t>(wire.size()));
    recv_pair.peer.reset();
    const std::string in_path = dir_ / "in.dat";
    EXPECT_EQ(receive_ascii_file(recv_pair.agent.get(), settings_, in_path, "127.0.0.1", buffer_, spare_, 0, 0),
              kTransferOk)
        << name;
    EXPECT_EQ(test::read_file(in_path), content) << name;
    EXPECT_NE(log_text().find("Received:  " + in_path + "   " + std::to_string(size) + " bytes"), std::string::npos)
        << name;
  }
  EXPECT_EQ(WaitCounter::waits, 0);
}

TEST_F(FileTransfer, VerboseLogsTheSizesFirst) {
  settings_.verbose = 1;
  test::write_file(dir_ / "f", pattern(1100));
  SocketPair pair;
  ASSERT_EQ(send_ascii_file(pair.agent.get(), settings_, dir_ / "f", buffer_, kTransferBlockSize), kTransferOk);
  EXPECT_NE(log_text().find("File Size: 1100  (Buffer Size: 522  Blocks: 2  Last Block Size: 56)"),
            std::string::npos);
}

TEST_F(FileTransfer, MissingFileSendsTheEmptyHeader) {
  SocketPair pair;
  EXPECT_EQ(send_ascii_file(pair.agent.get(), settings_, dir_ / "absent", buffer_, kTransferBlockSize),
            kTransferReadFailed);
  EXPECT_EQ(drain(pair), inf_header(0, 0));
  EXPECT_EQ(logged("W-OPEN", "Unable to open " + (dir_ / "absent") + " , No such file or directory"), 1);
}

TEST_F(FileTransfer, ClosedPeerNamesTheBlockThatFailed) {
  const struct {
    size_t size;
    const char* line;
  } cases[] = {
      {522 * 2000, "Error sending packet 1 of 2000,  0 of 522 bytes, (sent 0)"},
      {300, "Error sending last packet 0,  0 of 522 bytes, sent 0 bytes"},
  };
  for (const auto& c : cases) {
    test::write_file(dir_ / "big", pattern(c.size));
    SocketPair pair;
    pair.peer.reset();
    EXPECT_EQ(send_ascii_file(pair.agent.get(), settings_, dir_ / "big", buffer_, kTransferBlockSize),
              kTransferSendFailed);
    EXPECT_EQ(logged("E-SEND", c.line), 1) << c.line;
  }
  EXPECT_EQ(logged("E-SENDFILE", "Error returning header packet..."), 2);
}

TEST_F(FileTransfer, ReceiveCutMidFileKeepsTheWholeBlocks) {
  SocketPair pair;
  const std::string body = pattern(522 + 100);
  const std::string wire = inf_header(3, 10) + body;
  ASSERT_EQ(::write(pair.peer.get(), wire.data(), wire.size()), static_cast<ssize_t>(wire.size()));
  pair.peer.reset();
  const std::string path = dir_ / "cut";
  EXPECT_EQ(receive_ascii_file(pair.agent.get(), settings_, path, "127.0.0.1", buffer_, spare_, 0, 0),
            kTransferReadFailed);
  EXPECT_EQ(test::read_file(path), body.substr(0, 522));
  EXPECT_EQ(count_in_log("I-RECVD"), 0);

  // A header cut short fails before anything is written.
  SocketPair short_header;
  ASSERT_EQ(::write(short_header.peer.get(), "\x06\x00\x01", 3), 3);
  short_header.peer.reset();
  EXPECT_EQ(receive_ascii_file(short_header.agent.get(), settings_, path, "127.0.0.1", buffer_, spare_, 0, 0),
            kTransferReadFailed);
  EXPECT_EQ(test::read_file(path), "");
}

TEST_F(FileTransfer, AcknowledgesFirstWhenAskedAndOnlyAfterTheFileOpened) {
  SocketPair pair;
  const std::string wire = inf_header(0, 3) + "mem";
  ASSERT_EQ(::write(pair.peer.get(), wire.data(), wire.size()), static_cast<ssize_t>(wire.size()));
  EXPECT_EQ(receive_ascii_file(pair.agent.get(), settings_, dir_ / "memory", "10.1.1.1", buffer_, spare_, 1, 9),
            kTransferOk);
  EXPECT_EQ(test::read_file(dir_ / "memory"), "mem");
  EXPECT_EQ(drain(pair), std::string("\x00\x09\x00\x09\x00\x00\x00\x00\x00\x00", 10));
  EXPECT_NE(log_text().find("Receive File request from 10.1.1.1, " + (dir_ / "memory")), std::string::npos);

  SocketPair refused;
  EXPECT_EQ(receive_ascii_file(refused.agent.get(), settings_, dir_ / "no/such/dir", "10.1.1.1", buffer_, spare_,
                               1, 9),
            kTransferOpenFailed);
  EXPECT_EQ(drain(refused), "");
  EXPECT_EQ(logged("E-OPEN", "Unable to open " + (dir_ / "no/such/dir") + " : No such file or directory"), 1);
}

TEST_F(FileTransfer, CompressQuotesTheFileNameAndNamesTheOutput) {
  std::string out;
  EXPECT_EQ(compress_file("gzip *", dir_ / "x", out), 0);
  EXPECT_EQ(logged("E-COMPRESS", "compression command doesnt contain an output file"), 1);
  EXPECT_EQ(compress_file("", dir_ / "x", out), 0);
  EXPECT_EQ(compress_file("cp * *.gz", "", out), 0);

  const std::string hostile = dir_ / "a b'c;touch pwned";
  test::write_file(hostile, "payload");
  test::write_file(hostile + ".cp", "stale");
  std::string ext;
  // An injected "touch pwned" would land in the working directory.
  char cwd[4096];
  ASSERT_NE(::getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(::chdir(dir_.path().c_str()), 0);
  EXPECT_EQ(compress_file("cp * *.cp -f", hostile, out, &ext), 1);
  ASSERT_EQ(::chdir(cwd), 0);
  EXPECT_EQ(out, hostile + ".cp");
  EXPECT_EQ(ext, ".cp");
  EXPECT_EQ(test::read_file(out), "payload");
  EXPECT_FALSE(test::file_exists(dir_ / "pwned"));
  EXPECT_EQ(logged("I-COMPRESS", "Running, cp '"), 1);
}

TEST_F(FileTransfer, RunCommandCapturesAtMostOneKilobyte) {
  std::string output = "stale";
  EXPECT_EQ(RunCommand("printf 'hi there'", output), 1);
  EXPECT_EQ(output, "hi there");
  EXPECT_EQ(RunCommand("head -c 5000 /dev/zero | tr '\\0' z", output), 1);
  EXPECT_EQ(output, std::string(kCommandOutputMax, 'z'));
  EXPECT_EQ(RunCommand("exit 3", output), 1);
  EXPECT_EQ(output, "");
}

TEST_F(FileTransfer, FileUtilities) {
  const std::string text = "line one\n" + std::string(5000, 'L') + "\nend";
  test::write_file(dir_ / "src", text);
  EXPECT_EQ(copy_file(dir_ / "src", dir_ / "dst"), 1);
  EXPECT_EQ(test::read_file(dir_ / "dst"), text);
  EXPECT_EQ(copy_file(dir_ / "absent", dir_ / "dst2"), 0);
  EXPECT_EQ(copy_file(dir_ / "src", dir_ / "no/dir/dst"), 0);

  EXPECT_EQ(GetFileSizeByName(dir_ / "src"), static_cast<int64_t>(text.size()));
  EXPECT_EQ(GetFileSizeByName(dir_ / "absent"), -1);
  UniqueFile f(std::fopen((dir_ / "src").c_str(), "r"));
  EXPECT_EQ(GetFileSizeByFP(f.get()), static_cast<int64_t>(text.size()));
  EXPECT_EQ(std::fgetc(f.get()), 'l');  // rewound

  EXPECT_EQ(delete_file(dir_ / "dst"), 0);
  EXPECT_EQ(delete_file(dir_ / "dst"), -1);

  double avail = -1, pct = -1;
  uint64_t used = 0;
  EXPECT_EQ(check_free_total(dir_.path(), avail, pct, used), 1);
  EXPECT_GE(pct, 0.0);
  EXPECT_LE(pct, 100.0);
  EXPECT_EQ(check_free_total(dir_ / "absent", avail, pct, used), 0);
  EXPECT_EQ(avail, 0.0);
  EXPECT_EQ(pct, 0.0);
}

TEST_F(FileTransfer, AverageDataFileSizeCountsZudExtensionsOnly) {
  settings_.data_dir = dir_ / "data";
  test::make_dirs(settings_.data_dir);
  int avg = 77;
  EXPECT_EQ(get_ave_data_file_size(settings_, avg), 1);
  EXPECT_EQ(avg, 77);  // nothing counted: untouched

  const struct {
    const char* name;
    off_t size;
  } files[] = {{"host.zud", 2 << 20}, {"host.2012.zud-1", 4 << 20}, {".zud", 100 << 20}, {"zud.txt", 50 << 20},
               {"small.zud", 1000}};
  for (const auto& f : files) {
    test::write_file(settings_.data_dir + "/" + f.name, "");
    ASSERT_EQ(::truncate((settings_.data_dir + "/" + f.name).c_str(), f.size), 0);
  }
  EXPECT_EQ(get_ave_data_file_size(settings_, avg), 1);
  EXPECT_EQ(avg, 2);  // (2 + 4 + 0) / 3

  settings_.data_dir = dir_ / "absent";
  EXPECT_EQ(get_ave_data_file_size(settings_, avg), 0);
}

TEST(LibMatchTest, PrefixCompare) {
  const struct {
    const char* text;
    const char* prefix;
    int n;
    int expected;
  } cases[] = {
      {"host.zud", "host", 4, 1}, {"ho", "host", 4, 0}, {"hostx", "hosty", 5, 0},
      {"abc", "xyz", 0, 1},       {"", "x", -1, 1},     {"hostx", "hosty", 4, 1},
  };
  for (const auto& c : cases) EXPECT_EQ(LibMatch(c.text, c.prefix, c.n), c.expected) << c.text << " " << c.n;
}

}  // namespace
}  // namespace kova
