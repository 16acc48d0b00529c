#include "delivery/file_transfer.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cerrno>
#include <functional>
#include <string>
#include <tuple>

#include "platform/unique.h"
#include "wire/wire_fixture.h"

namespace kova::test {
namespace {

std::string pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 31 + i / 522) & 0xff);
  return s;
}

class FileTransfer : public WireTest {
 protected:
  // Receives into `path` what the peer sends as `wire`, the peer then closing (or stalling).
  int receive(const std::string& wire, const std::string& path, bool peer_closes = true) {
    SocketPair pair;
    pair.from_peer(wire, peer_closes);
    return receive_ascii_file(pair.agent.get(), settings_, path, "127.0.0.1", buffer_, spare_, 0, 0);
  }
  int send(SocketPair& pair, const std::string& path) {
    return send_ascii_file(pair.agent.get(), settings_, path, buffer_, kTransferBlockSize);
  }

  AgentSettings settings_;
  PacketBuffer buffer_{}, spare_{};
};

// Around the 522-byte block and the 128-block chunk the transfer moves at once.
TEST_F(FileTransfer, SendsHeaderThenExactBytesAndReceivesThemBack) {
  for (size_t size : {0, 1, 521, 522, 522 * 3, 522 * 128, 522 * 128 + 1, 522 * 130 + 17}) {
    const std::string content = pattern(size);
    write_file(dir_ / "out.dat", content);
    SocketPair pair;
    ASSERT_EQ(send(pair, dir_ / "out.dat"), kTransferOk) << size;
    const std::string wire = pair.drain();
    EXPECT_EQ(wire, transfer_of(content)) << size;
    EXPECT_EQ(receive(wire, dir_ / "in.dat"), kTransferOk) << size;
    EXPECT_EQ(read_file(dir_ / "in.dat"), content) << size;
  }
  EXPECT_EQ(WaitCounter::waits, 0);
}

TEST_F(FileTransfer, SendFailuresMissingFileOrClosedPeer) {
  SocketPair missing;
  EXPECT_EQ(send(missing, dir_ / "absent"), kTransferReadFailed);
  EXPECT_EQ(missing.drain(), inf_header(0, 0));  // the empty header still goes out
  EXPECT_EQ(logged("W-OPEN", "Unable to open " + (dir_ / "absent") + " , No such file or directory"), 1);

  // A closed peer: the log names the block that failed.
  const struct { size_t size; const char* line; } cases[] = {
      {522 * 2000, "Error sending packet 1 of 2000,  0 of 522 bytes, (sent 0)"},
      {300, "Error sending last packet 0,  0 of 522 bytes, sent 0 bytes"},
  };
  for (const auto& c : cases) {
    write_file(dir_ / "big", pattern(c.size));
    SocketPair pair;
    pair.peer.reset();
    EXPECT_EQ(send(pair, dir_ / "big"), kTransferSendFailed);
    EXPECT_EQ(logged("E-SEND", c.line), 1) << c.line;
  }
  EXPECT_EQ(logged("E-SENDFILE", "Error returning header packet..."), 2);
}

// A server that stops reading: the send waits its bound (cut to nothing
// here) once, fails as a send to a server that went away does, and
// whatever the request sends after it fails without waiting again.
TEST_F(FileTransfer, APeerThatStopsReadingFailsTheSendAtTheBound) {
  static int waits = 0;
  wire_hooks().wait_writable = [](int, int) { return ++waits, 0; };
  const std::string big = pattern(4 << 20);  // more than a socket pair holds
  write_file(dir_ / "big", big);
  const struct { const char* path; std::function<bool(int fd)> send; const char* line; } cases[] = {
      {"Socket_writen", [&](int fd) { return Socket_writen(fd, big.data(), big.size()) == -1; }, nullptr},
      {"sendfile",
       [&](int fd) { return send_ascii_file(fd, settings_, dir_ / "big", buffer_, 522) == kTransferSendFailed; },
       "Error sending packet "},
  };
  for (const auto& c : cases) {
    waits = 0;
    SocketPair pair;
    EXPECT_TRUE(c.send(pair.agent.get())) << c.path;
    EXPECT_EQ(waits, 1) << c.path;
    EXPECT_EQ(::fcntl(pair.agent.get(), F_GETFL) & O_NONBLOCK, 0) << c.path;  // left as it was
    EXPECT_EQ(Socket_writen(pair.agent.get(), "x", 1), -1) << c.path;
    EXPECT_EQ(waits, 1) << c.path;
    const std::string got = pair.drain();
    EXPECT_LT(got.size(), big.size()) << c.path;
    if (c.line != nullptr) {
      EXPECT_EQ(logged("E-SEND", c.line), 1) << c.path;
    }
  }
  EXPECT_EQ(logged("E-WRITE", "write to socket failed Connection timed out"), 2);
  EXPECT_EQ(logged("E-WRITE", "write to socket failed Broken pipe"), 2);
}

// A work file shorter than its header announced: what there was goes out,
// and the log names the block where the file ran out.
TEST_F(FileTransfer, AFileShorterThanAnnouncedIsAReadFailure) {
  write_file(dir_ / "short", pattern(522 * 2 + 5));
  UniqueFd fd(::open((dir_ / "short").c_str(), O_RDONLY | O_CLOEXEC));
  SocketPair pair;
  int64_t sent = -1;
  int error = -1;
  EXPECT_EQ(send_file_bytes(pair.agent.get(), fd.get(), 522 * 3, sent, error), kTransferReadFailed);
  EXPECT_EQ(std::tuple(sent, error), std::tuple(522 * 2 + 5, 0));
  EXPECT_EQ(pair.drain(), pattern(522 * 2 + 5));
}

TEST_F(FileTransfer, ReceiveCutMidFileKeepsTheWholeBlocksAndRefusesAFileItCannotOpen) {
  const std::string body = pattern(522 + 100);
  EXPECT_EQ(receive(inf_header(3, 10) + body, dir_ / "cut"), kTransferReadFailed);
  EXPECT_EQ(read_file(dir_ / "cut"), body.substr(0, 522));
  EXPECT_EQ(count_in_log("I-RECVD"), 0);
  // A server that stalls mid-file: the read gives up, the whole block stays.
  EXPECT_EQ(receive(inf_header(3, 0) + body, dir_ / "stalled", false), kTransferReadFailed);
  EXPECT_EQ(read_file(dir_ / "stalled"), body.substr(0, 522));
  // A last block longer than a block, as the field allows, arrives whole.
  EXPECT_EQ(receive(inf_header(0, 1000) + pattern(1000), dir_ / "long"), kTransferOk);
  EXPECT_EQ(read_file(dir_ / "long"), pattern(1000));
  // A header cut short fails before anything is written.
  EXPECT_EQ(receive(std::string("\x06\x00\x01", 3), dir_ / "cut"), kTransferReadFailed);
  EXPECT_EQ(read_file(dir_ / "cut"), "");

  // No acknowledgement before the file is open (the acknowledged receive is
  // covered against the real binary).
  SocketPair refused;
  EXPECT_EQ(receive_ascii_file(refused.agent.get(), settings_, dir_ / "no/such/dir", "10.1.1.1", buffer_, spare_,
                               1, 9),
            kTransferOpenFailed);
  EXPECT_EQ(refused.drain(), "");
  EXPECT_EQ(logged("E-OPEN", "Unable to open " + (dir_ / "no/such/dir") + " : No such file or directory"), 1);
}

// Hardened: refused before anything is read past the header when above
// 64 MiB; replaced by rename, so the old file stands until the new is whole.
TEST_F(FileTransfer, HardenedReceiveRefusesOversizeAndReplacesOnlyWhenWhole) {
  settings_.harden = 1;
  const std::string path = dir_ / "memory", body = pattern(600);
  write_file(path, "old");
  constexpr int64_t kMax = kReceiveMaxBytes;
  EXPECT_EQ(receive(inf_header(kMax / 522, kMax % 522) + body, path), kTransferReadFailed);  // allowed, then cut
  EXPECT_EQ(receive(inf_header(kMax / 522, kMax % 522 + 1) + body, path), kTransferRefused);
  EXPECT_EQ(std::tuple(errno, read_file(path)), std::tuple(EFBIG, "old"));
  EXPECT_EQ(receive(transfer_of(body), path), kTransferOk);
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(std::tuple(read_file(path) == body, st.st_mode & 0777), std::tuple(true, 0644u));
}

// A file name reaches the compression shell as one quoted word; the
// operator's template decides the rest.
TEST_F(FileTransfer, CompressRunsTheTemplateOnTheQuotedFileName) {
  std::string out;
  EXPECT_EQ(compress_file("gzip *", dir_ / "x", out), 0);
  EXPECT_EQ(logged("E-COMPRESS", "compression command doesnt contain an output file"), 1);

  const std::string hostile = dir_ / "a b'c;touch pwned";  // an injected touch would land in dir_
  write_file(hostile, "payload");
  EXPECT_EQ(compress_file("cd " + dir_.path() + " && cp * *.cp", hostile, out), 1);
  EXPECT_EQ(out, hostile + ".cp");
  EXPECT_EQ(read_file(out), "payload");
  EXPECT_FALSE(file_exists(dir_ / "pwned"));
  EXPECT_EQ(logged("I-COMPRESS", "Running, cd " + dir_.path() + " && cp " + hostile + " " + hostile + ".cp"), 1);
}

}  // namespace
}  // namespace kova::test
