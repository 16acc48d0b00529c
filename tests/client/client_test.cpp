#include "kova_client.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <functional>
#include <string>
#include <thread>

#include "replies.h"
#include "wire/request.h"
#include "wire/status.h"
#include "wire/wire_fixture.h"

namespace kova {
namespace {

using client::Connection;
using client::Error;
using client::Request;
using client::Status;

// One loopback connection served by `serve` on a thread, as the agent
// would: the agent side of every exchange uses the agent's own wire code.
class FakeAgent {
 public:
  explicit FakeAgent(std::function<void(int fd)> serve) {
    listener_.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    EXPECT_EQ(::listen(listener_.get(), 1), 0);
    socklen_t len = sizeof addr;
    EXPECT_EQ(::getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&addr), &len), 0);
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this, serve = std::move(serve)] {
      pollfd p{listener_.get(), POLLIN, 0};
      if (::poll(&p, 1, 10000) != 1) return;  // bounded: no client, no wait for ever
      UniqueFd conn(::accept(listener_.get(), nullptr, nullptr));
      if (conn) serve(conn.get());
    });
  }
  ~FakeAgent() { thread_.join(); }
  int port() const { return port_; }

 private:
  UniqueFd listener_;
  int port_ = 0;
  std::thread thread_;
};

class ClientTest : public test::WireTest {
 protected:
  void SetUp() override {
    test::WireTest::SetUp();
    // The agent side really waits for the client's bytes here.
    wire_hooks().wait_readable = [](int fd, int ms) {
      pollfd p{fd, POLLIN, 0};
      return ::poll(&p, 1, ms);
    };
  }
  Connection connect(const FakeAgent& agent) {
    Connection c;
    Status st = Connection::open("127.0.0.1", agent.port(), c, 5000);
    EXPECT_TRUE(st.ok()) << st.message;
    return c;
  }
};

TEST_F(ClientTest, RequestsArriveAsTheAgentReadsThem) {
  PacketBuffer seen{};
  ExtendedRequest ext;
  FrameStatus frame = FrameStatus::kLengthNotRead;
  {
    FakeAgent agent([&](int fd) {
      ASSERT_EQ(read_request(fd, seen, 0), static_cast<ssize_t>(kRequestSize));
      frame = read_extended_request(fd, seen, ext, 0);
    });
    Connection c = connect(agent);
    const std::string payload = "18-Mar-2012:10:15 payload";
    ASSERT_TRUE(c.send_extended("GET_AGENT_OS_X" + std::string(40, 'y'),
                                std::span(reinterpret_cast<const unsigned char*>(payload.data()), payload.size()))
                    .ok());
  }
  EXPECT_EQ(request_opcode(seen), kOpcodeExtended);
  EXPECT_EQ(frame, FrameStatus::kOk);
  EXPECT_EQ(std::string(ext.tag.data()), "GET_AGENT_OS_X" + std::string(23, 'y'));
  EXPECT_EQ(match_extended_tag(ext.tag.data()), ExtendedTag::kGetAgentOs);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(ext.payload.data()), static_cast<size_t>(ext.length)),
            "18-Mar-2012:10:15 payload");

  Request r(9);
  r.put_short(2, 7).put_long(4, 5001).put_long(8, -1).put_text(36, "abcdef", 6);
  EXPECT_EQ(Packet_CheckOPCODE(r.bytes), 9);
  EXPECT_EQ(Packet_CheckOPCODE(r.bytes, 2), 7);
  EXPECT_EQ(Packet_CheckLONG(r.bytes, 4), 5001);
  EXPECT_EQ(Packet_CheckLONG(r.bytes, 8), -1);
  EXPECT_EQ(std::string(r.bytes.begin() + 36, r.bytes.end()), "abcd");  // cut at 40 bytes

  Connection unused;
  std::string big(kExtendedPayloadMax + 1, 'p');
  EXPECT_EQ(unused.send_extended("X", std::span(reinterpret_cast<const unsigned char*>(big.data()), big.size())).error,
            Error::kSend);
}

TEST_F(ClientTest, FixedRepliesErrorsAndShortReplies) {
  const struct {
    const char* name;
    std::vector<unsigned char> sent;
    size_t size;
    int expected_code;
    Error error;
    int code;
  } cases[] = {
      {"version", {10, 0, 6, 0, 0, 0, 0, 0}, 8, kPacketVers, Error::kNone, 0},
      {"err for startstop", {5, 0, 10, 0, 0, 0, 0, 0}, 4, kPacketStartStop, Error::kErrorPacket, 10},
      {"err for dcstat", {5, 0, 1, 0, 0, 0, 0, 0}, 10, kPacketDcStat, Error::kErrorPacket, 1},
      {"short", {10, 0, 6}, 8, kPacketVers, Error::kShortReply, 0},
      {"nothing", {}, 4, kPacketStartStop, Error::kShortReply, 0},
      {"wrong code", {11, 0, 3, 0}, 4, kPacketStartStop, Error::kBadReply, 0},
  };
  for (const auto& c : cases) {
    FakeAgent agent([&](int fd) {
      PacketBuffer in{};
      (void)read_request(fd, in, 0);
      if (!c.sent.empty()) {
        ASSERT_EQ(Socket_writen(fd, c.sent.data(), c.sent.size()), static_cast<ssize_t>(c.sent.size()));
      }
    });
    Connection conn = connect(agent);
    ASSERT_TRUE(conn.send(Request(14)).ok());
    std::vector<unsigned char> reply(c.size);
    Status st = conn.read_reply(reply, c.expected_code);
    EXPECT_EQ(st.error, c.error) << c.name << ": " << st.message;
    EXPECT_EQ(st.code, c.code) << c.name;
  }
  Status err{Error::kErrorPacket};
  {
    FakeAgent agent([](int fd) { socketsend_int_status(fd, 15, "<MERG>", 0); });
    Connection conn = connect(agent);
    std::array<unsigned char, 8> reply{};
    err = conn.read_reply(reply, kPacketVers);
  }
  EXPECT_EQ(err.message, "agent error 15: .MERG file not found");
}

TEST_F(ClientTest, RefusedConnectionIsReportedAsSuch) {
  int port = 0;
  {
    FakeAgent agent([](int) {});
    port = agent.port();
    Connection c = connect(agent);
  }
  Connection c;
  Status st = Connection::open("127.0.0.1", port, c, 2000);
  EXPECT_EQ(st.error, Error::kRefused) << st.message;
  EXPECT_EQ(Connection::open("127.0.0.1", 0, c, 2000).error, Error::kConnect);
}

// The agent's transfer: the INF header, then the bytes unframed.
void send_file_bytes(int fd, const std::string& content) {
  PacketBuffer b{};
  Packet_CreateINF(static_cast<int64_t>(content.size() / kPacketSize), static_cast<int64_t>(content.size() % kPacketSize), b);
  ASSERT_EQ(Socket_writen(fd, b.data(), kInfSize), static_cast<ssize_t>(kInfSize));
  if (!content.empty()) {
    ASSERT_EQ(Socket_writen(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
  }
}

TEST_F(ClientTest, ReceivesFilesTheAgentSends) {
  for (size_t size : {size_t{0}, size_t{522 * 3}, size_t{522 * 200 + 5}}) {
    std::string content(size, '\0');
    for (size_t i = 0; i < size; ++i) content[i] = static_cast<char>(i % 251);
    std::vector<unsigned char> got;
    client::TransferInfo info;
    Status st;
    {
      FakeAgent agent([&](int fd) { send_file_bytes(fd, content); });
      Connection c = connect(agent);
      st = c.receive_file_to_buffer(got, info);
    }
    EXPECT_TRUE(st.ok()) << st.message;
    EXPECT_EQ(info.blocks, static_cast<int32_t>(size / 522));
    EXPECT_EQ(std::string(got.begin(), got.end()), content) << size;
  }

  // Missing file: the empty header, then the dispatcher's ERR.
  {
    FakeAgent agent([&](int fd) {
      send_file_bytes(fd, "");
      socketsend_int_status(fd, kResultPerfFileNotFound, "perf", 0);
    });
    Connection c = connect(agent);
    client::TransferInfo info;
    ASSERT_TRUE(c.receive_file_to_path(dir_ / "got", info).ok());
    EXPECT_EQ(info.size(), 0);
    std::array<unsigned char, 8> tail{};
    EXPECT_EQ(c.read_reply(tail, -1).code, kResultPerfFileNotFound);
  }

  // A transfer cut short is a short reply, not a success.
  {
    FakeAgent agent([](int fd) {
      PacketBuffer b{};
      Packet_CreateINF(2, 0, b);
      ASSERT_EQ(Socket_writen(fd, b.data(), kInfSize + 100), static_cast<ssize_t>(kInfSize + 100));
    });
    Connection c = connect(agent);
    client::TransferInfo info;
    std::vector<unsigned char> got;
    EXPECT_EQ(c.receive_file_to_buffer(got, info).error, Error::kShortReply);
  }
}

TEST_F(ClientTest, PushesTheMemoryFileAfterTheAcknowledgement) {
  std::string content(522 * 2 + 9, 'm');
  std::string received;
  {
    FakeAgent agent([&](int fd) {
      PacketBuffer in{};
      ASSERT_EQ(read_request(fd, in, 0), static_cast<ssize_t>(kRequestSize));
      ASSERT_EQ(request_opcode(in), 2);
      Packet_CreateMEMACK(9, in);
      ASSERT_EQ(Socket_writen(fd, in.data(), kMemAckSize), static_cast<ssize_t>(kMemAckSize));
      ASSERT_EQ(Socket_readn(fd, in.data(), kInfSize, 0), static_cast<ssize_t>(kInfSize));
      received.resize(static_cast<size_t>(Packet_CheckLONG(in, 2)) * kPacketSize +
                      static_cast<size_t>(Packet_CheckOPCODE(in, 6)));
      ASSERT_EQ(Socket_readn(fd, received.data(), received.size(), 0), static_cast<ssize_t>(received.size()));
    });
    Connection c = connect(agent);
    ASSERT_TRUE(c.send(Request(2)).ok());
    Status st = c.push_memory_file(std::span(reinterpret_cast<const unsigned char*>(content.data()), content.size()));
    EXPECT_TRUE(st.ok()) << st.message;
  }
  EXPECT_EQ(received, content);

  // The agent cannot open its memory file: an ERR instead of the ack.
  FakeAgent agent([](int fd) {
    PacketBuffer in{};
    (void)read_request(fd, in, 0);
    socketsend_int_status(fd, 4, "memory", 0);
  });
  Connection c = connect(agent);
  ASSERT_TRUE(c.send(Request(2)).ok());
  Status st = c.push_memory_file({});
  EXPECT_EQ(st.error, Error::kErrorPacket);
  EXPECT_EQ(st.code, 4);
}

TEST(Replies, DecodeIntoWords) {
  const std::vector<unsigned char> dcstat{11, 0, 3, 0, 120, 0, 5, 0, 30, 0};
  client::DcStat d;
  ASSERT_TRUE(client::decode_dcstat(dcstat, d));
  EXPECT_EQ(client::component_status_words(d.dc_status), "up (3)");
  EXPECT_EQ(d.dc_interval, 120);
  EXPECT_EQ(client::component_status_words(d.rta_status), "not found (5)");
  EXPECT_EQ(d.peak_seconds, 30);
  EXPECT_FALSE(client::decode_dcstat(std::span(dcstat).first(9), d));
  EXPECT_EQ(client::component_status_words(42), "code 42");
  EXPECT_EQ(client::extended_status_words(8), "Unknown code (8)");
  EXPECT_EQ(client::extended_status_words(20), "memory node (20)");
  const std::vector<unsigned char> os{4, 0, 0, 0};
  int32_t id = 0;
  ASSERT_TRUE(client::decode_os(os, id));
  EXPECT_EQ(id, 4);
  const std::vector<unsigned char> bytes{'A', 0, 0xff};
  EXPECT_EQ(client::hex_dump(bytes), "00000000  41 00 ff" + std::string(13 * 3, ' ') + "  |A..|\n");
}

}  // namespace
}  // namespace kova
