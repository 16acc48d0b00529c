#include "delivery/file_transfer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "platform/unique.h"
#include "wire/wire_fixture.h"

namespace kova {
namespace {

using test::SocketPair;

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
  // Everything the agent side wrote, once it has closed its end.
  static std::string drain(SocketPair& pair) {
    pair.agent.reset();
    std::string all;
    char buf[4096];
    for (ssize_t k; (k = ::read(pair.peer.get(), buf, sizeof buf)) > 0;) all.append(buf, static_cast<size_t>(k));
    return all;
  }
  // Receives into `path` what the peer sends as `wire`, the peer then closing.
  int receive(const std::string& wire, const std::string& path) {
    SocketPair pair;
    EXPECT_EQ(::write(pair.peer.get(), wire.data(), wire.size()), static_cast<ssize_t>(wire.size()));
    pair.peer.reset();
    return receive_ascii_file(pair.agent.get(), settings_, path, "127.0.0.1", buffer_, spare_, 0, 0);
  }
  int send(SocketPair& pair, const std::string& path) {
    return send_ascii_file(pair.agent.get(), settings_, path, buffer_, kTransferBlockSize);
  }

  AgentSettings settings_;
  PacketBuffer buffer_{};
  PacketBuffer spare_{};
};

// Around the 522-byte block and the 128-block chunk the transfer moves at once.
TEST_F(FileTransfer, SendsHeaderThenExactBytesAndReceivesThemBack) {
  for (size_t size : {0, 1, 521, 522, 522 * 3, 522 * 128, 522 * 128 + 1, 522 * 130 + 17}) {
    const std::string content = pattern(size);
    test::write_file(dir_ / "out.dat", content);
    SocketPair pair;
    ASSERT_EQ(send(pair, dir_ / "out.dat"), kTransferOk) << size;
    const std::string wire = drain(pair);
    EXPECT_EQ(wire, inf_header(static_cast<int32_t>(size / 522), static_cast<int16_t>(size % 522)) + content) << size;
    EXPECT_EQ(receive(wire, dir_ / "in.dat"), kTransferOk) << size;
    EXPECT_EQ(test::read_file(dir_ / "in.dat"), content) << size;
  }
  EXPECT_EQ(test::WaitCounter::waits, 0);
}

TEST_F(FileTransfer, SendFailuresMissingFileOrClosedPeer) {
  SocketPair missing;
  EXPECT_EQ(send(missing, dir_ / "absent"), kTransferReadFailed);
  EXPECT_EQ(drain(missing), inf_header(0, 0));  // the empty header still goes out
  EXPECT_EQ(logged("W-OPEN", "Unable to open " + (dir_ / "absent") + " , No such file or directory"), 1);

  // A closed peer: the log names the block that failed.
  const struct { size_t size; const char* line; } cases[] = {
      {522 * 2000, "Error sending packet 1 of 2000,  0 of 522 bytes, (sent 0)"},
      {300, "Error sending last packet 0,  0 of 522 bytes, sent 0 bytes"},
  };
  for (const auto& c : cases) {
    test::write_file(dir_ / "big", pattern(c.size));
    SocketPair pair;
    pair.peer.reset();
    EXPECT_EQ(send(pair, dir_ / "big"), kTransferSendFailed);
    EXPECT_EQ(logged("E-SEND", c.line), 1) << c.line;
  }
  EXPECT_EQ(logged("E-SENDFILE", "Error returning header packet..."), 2);
}

// A work file shorter than its header announced: what there was goes out,
// and the log names the block where the file ran out.
TEST_F(FileTransfer, AFileShorterThanAnnouncedIsAReadFailure) {
  test::write_file(dir_ / "short", pattern(522 * 2 + 5));
  UniqueFd fd(::open((dir_ / "short").c_str(), O_RDONLY | O_CLOEXEC));
  SocketPair pair;
  int64_t sent = -1;
  int error = -1;
  EXPECT_EQ(send_file_bytes(pair.agent.get(), fd.get(), 522 * 3, sent, error), kTransferReadFailed);
  EXPECT_EQ(sent, 522 * 2 + 5);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(drain(pair), pattern(522 * 2 + 5));
}

TEST_F(FileTransfer, ReceiveCutMidFileKeepsTheWholeBlocksAndRefusesAFileItCannotOpen) {
  const std::string body = pattern(522 + 100);
  EXPECT_EQ(receive(inf_header(3, 10) + body, dir_ / "cut"), kTransferReadFailed);
  EXPECT_EQ(test::read_file(dir_ / "cut"), body.substr(0, 522));
  EXPECT_EQ(count_in_log("I-RECVD"), 0);
  // A server that stalls mid-file: the read gives up, the whole block stays.
  SocketPair stalled;
  const std::string wire = inf_header(3, 0) + body;
  ASSERT_EQ(::write(stalled.peer.get(), wire.data(), wire.size()), static_cast<ssize_t>(wire.size()));
  EXPECT_EQ(receive_ascii_file(stalled.agent.get(), settings_, dir_ / "stalled", "127.0.0.1", buffer_, spare_, 0, 0),
            kTransferReadFailed);
  EXPECT_EQ(test::read_file(dir_ / "stalled"), body.substr(0, 522));
  // A last block longer than a block, as the field allows, arrives whole.
  EXPECT_EQ(receive(inf_header(0, 1000) + pattern(1000), dir_ / "long"), kTransferOk);
  EXPECT_EQ(test::read_file(dir_ / "long"), pattern(1000));
  // A header cut short fails before anything is written.
  EXPECT_EQ(receive(std::string("\x06\x00\x01", 3), dir_ / "cut"), kTransferReadFailed);
  EXPECT_EQ(test::read_file(dir_ / "cut"), "");

  // No acknowledgement before the file is open (the acknowledged receive is
  // covered against the real binary).
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
  EXPECT_EQ(logged("I-COMPRESS", "Running, cp " + hostile + " " + hostile + ".cp -f"), 1);
}

// The helpers the transfers and the configuration report rely on.
TEST_F(FileTransfer, RunCommandFileSizeAndAverageDataFileSize) {
  std::string output = "stale";
  EXPECT_EQ(RunCommand("head -c 5000 /dev/zero | tr '\\0' z", output), 1);
  EXPECT_EQ(output, std::string(kCommandOutputMax, 'z'));  // at most one kilobyte
  EXPECT_EQ(RunCommand("exit 3", output), 1);
  EXPECT_EQ(output, "");

  const std::string text = "line one\n" + std::string(5000, 'L') + "\nend";
  test::write_file(dir_ / "src", text);
  UniqueFile f(std::fopen((dir_ / "src").c_str(), "r"));
  EXPECT_EQ(GetFileSizeByFP(f.get()), static_cast<int64_t>(text.size()));
  EXPECT_EQ(std::fgetc(f.get()), 'l');  // rewound
  EXPECT_EQ(GetFileSizeByName(dir_ / "absent"), -1);

  // Only names with a .zud extension count (the average itself is covered
  // with the configuration report); nothing counted leaves it untouched.
  settings_.data_dir = dir_ / "data";
  test::make_dirs(settings_.data_dir);
  for (const char* name : {".zud", "zud.txt", "zud"}) test::write_file(settings_.data_dir + "/" + name, "");
  int avg = 77;
  EXPECT_EQ(get_ave_data_file_size(settings_, avg), 1);
  EXPECT_EQ(avg, 77);
  settings_.data_dir = dir_ / "absent";
  EXPECT_EQ(get_ave_data_file_size(settings_, avg), 0);
}

}  // namespace
}  // namespace kova
