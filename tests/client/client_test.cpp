#include "kova_client.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <netinet/in.h>
#include <sys/socket.h>

#include <functional>
#include <string>
#include <thread>
#include <tuple>

#include "json.h"
#include "replies.h"
#include "support/fixed_clock.h"
#include "wire/request.h"
#include "base/codes.h"
#include "wire/wire_fixture.h"

namespace kova {
namespace {

using client::Connection, client::Error, client::Status;
using Bytes = std::vector<unsigned char>;

auto bytes_of(const std::string& s) { return std::span(reinterpret_cast<const unsigned char*>(s.data()), s.size()); }

class ClientTest : public ::testing::Test {
 protected:
  // A loopback connection; `serve` plays the agent, with the agent's own wire code, on a thread.
  Connection agent(std::function<void(int fd)> serve) {
    UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET, addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    EXPECT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&addr), len), 0);
    EXPECT_EQ(::listen(listener.get(), 1), 0);
    EXPECT_EQ(::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&addr), &len), 0);
    Connection c;
    const Status st = Connection::open("127.0.0.1", ntohs(addr.sin_port), c, 5000);
    EXPECT_TRUE(st.ok()) << st.message;
    // Connected, so queued: the accept does not wait (and fails when not connected).
    thread_ = std::jthread([conn = UniqueFd(::accept(listener.get(), nullptr, nullptr)), serve = std::move(serve)] {
      if (conn) serve(conn.get());
    });
    return c;
  }

  std::jthread thread_;  // joined when replaced and at the end of the test
  test::TempDir dir_;
};

TEST_F(ClientTest, RequestsArriveAsTheAgentReadsThem) {
  PacketBuffer seen{};
  ExtendedRequest ext;
  FrameStatus frame = FrameStatus::kLengthNotRead;
  test::FixedClock clock(std::time(nullptr));  // the agent's pause after an extended request passes at once
  Connection c = agent([&](int fd) {
    ASSERT_EQ(read_request(fd, seen, 0), static_cast<ssize_t>(kRequestSize));
    read_extended_tag(seen, ext);
    frame = read_extended_payload(fd, ext, 0);
  });
  ASSERT_TRUE(c.send_extended("GET_AGENT_OS_X" + std::string(40, 'y'), bytes_of("18-Mar-2012:10:15 x")).ok());
  thread_.join();
  EXPECT_EQ(frame, FrameStatus::kOk);
  EXPECT_EQ(std::string(ext.tag.data()), "GET_AGENT_OS_X" + std::string(23, 'y'));  // cut to the tag field
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(ext.payload.data()), ext.length), "18-Mar-2012:10:15 x");
  EXPECT_EQ(Connection().send_extended("X", bytes_of(std::string(kExtendedPayloadMax + 1, 'p'))).error, Error::kSend);

  client::Request r(9);
  r.put_short(2, 7).put_long(4, 5001).put_long(8, -1).put_text(36, "abcdef", 6);
  EXPECT_EQ(Bytes(r.bytes.begin(), r.bytes.begin() + 12), (Bytes{9, 0, 7, 0, 0x89, 0x13, 0, 0, 255, 255, 255, 255}));
  EXPECT_EQ(std::string(r.bytes.begin() + 36, r.bytes.end()), "abcd");  // cut at 40 bytes
}

// Size 0 stands for the memory file push, whose acknowledgement an ERR replaces.
TEST_F(ClientTest, FixedRepliesErrorsShortRepliesAndRefusals) {
  const struct { Bytes sent; size_t size; int expect; Error error; int code; const char* message; } cases[] = {
      {{10, 0, 6, 0, 0, 0, 0, 0}, 8, kPacketVers, Error::kNone, 0, ""},
      {{5, 0, 10, 0, 0, 0, 0, 0}, 4, kPacketStartStop, Error::kErrorPacket, 10, ""},
      {{5, 0, 15, 0, 0, 0, 0, 0}, 10, kPacketDcStat, Error::kErrorPacket, 15, "agent error 15: .MERG file not found"},
      {{5, 0, 4, 0, 0, 0, 0, 0}, 0, -1, Error::kErrorPacket, 4, ""},
      {{10, 0, 6}, 8, kPacketVers, Error::kShortReply, 0, ""},
      {{}, 4, kPacketStartStop, Error::kShortReply, 0, ""},
      {{11, 0, 3, 0}, 4, kPacketStartStop, Error::kBadReply, 0, ""},  // not the expected code
  };
  for (const auto& c : cases) {
    Connection conn = agent([sent = c.sent](int fd) {
      PacketBuffer in{};
      (void)read_request(fd, in, 0);
      ASSERT_EQ(Socket_writen(fd, sent.data(), sent.size()), static_cast<ssize_t>(sent.size()));
    });
    ASSERT_TRUE(conn.send(client::Request(c.size == 0 ? 2 : 14)).ok());
    Bytes reply(c.size);
    const Status st = c.size == 0 ? conn.push_memory_file({}) : conn.read_reply(reply, c.expect);
    EXPECT_EQ(std::tuple(st.error, st.code), std::tuple(c.error, c.code)) << st.message;
    EXPECT_NE(st.message.find(c.message), std::string::npos) << st.message;
  }
}

// The agent's transfer: the header, then the bytes unframed, the last `cut` of them never sent.
void send_file_bytes(int fd, const std::string& content, size_t cut = 0) {
  const std::string wire = test::transfer_of(content);
  ASSERT_EQ(Socket_writen(fd, wire.data(), wire.size() - cut), static_cast<ssize_t>(wire.size() - cut));
}

TEST_F(ClientTest, ReceivesFilesTheAgentSends) {
  client::TransferInfo info;
  Bytes got;
  for (size_t size : {size_t{0}, size_t{522 * 3}, size_t{522 * 200 + 5}}) {
    std::string content(size, '\0');
    for (size_t i = 0; i < size; ++i) content[i] = static_cast<char>(i % 251);
    EXPECT_TRUE(agent([content](int fd) { send_file_bytes(fd, content); }).receive_file_to_buffer(got, info).ok());
    EXPECT_EQ(std::string(got.begin(), got.end()), content) << size;
  }
  // A transfer cut short is a short reply, not a success.
  Connection cut = agent([](int fd) { send_file_bytes(fd, std::string(522 * 2, 'c'), 522 * 2 - 100); });
  EXPECT_EQ(cut.receive_file_to_buffer(got, info).error, Error::kShortReply);

  // Missing file: the empty header, then the dispatcher's ERR.
  Connection c = agent([](int fd) {
    send_file_bytes(fd, "");
    socketsend_int_status(fd, kResultPerfFileNotFound, "perf", 0);
  });
  ASSERT_TRUE(c.receive_file_to_path(dir_ / "got", info).ok());
  EXPECT_EQ(info.size(), 0);
  EXPECT_EQ(c.read_verdict().code, kResultPerfFileNotFound);
}

TEST(Replies, DecodeAndDump) {
  client::DcStat d;
  ASSERT_TRUE(client::decode_dcstat(Bytes{11, 0, 3, 0, 120, 0, 5, 0, 30, 0}, d));
  EXPECT_EQ(std::tuple(d.dc_status, d.dc_interval, d.rta_status, d.peak_seconds), std::tuple(3, 120, 5, 30));
  EXPECT_FALSE(client::decode_dcstat(Bytes{11, 0, 3, 0, 120, 0, 5, 0, 30}, d));  // one byte short
  EXPECT_EQ(client::hex_dump(Bytes{'A', 0, 0xff}), "00000000  41 00 ff" + std::string(13 * 3, ' ') + "  |A..|\n");
}

// Every byte value survives as one code point, the output is plain ASCII,
// and a parser reads the object back as it was built.
TEST(Json, WritesAnyBytesAsAnObjectAParserReadsBack) {
  std::string every;
  for (int b = 0; b < 256; ++b) every += static_cast<char>(b);
  client::JsonArray list;
  list.add_json(client::JsonObject().add("n", int64_t{-5}).str());
  client::JsonObject o;
  o.add("text", "a\"b\\c\n\t").add("bytes", every).add("ok", true).add("big", int64_t{1} << 40);
  o.add_json("list", list.str()).merge(client::JsonObject().add("more", 1));
  const std::string out = o.str();
  for (unsigned char c : out) EXPECT_TRUE(c >= 0x20 && c < 0x7f) << static_cast<int>(c);

  const nlohmann::json j = nlohmann::json::parse(out, nullptr, false);
  ASSERT_FALSE(j.is_discarded()) << out;
  EXPECT_EQ(j["text"], "a\"b\\c\n\t");
  // The parser hands the string over as UTF-8: code points up to 0xff take one or two bytes.
  const std::string utf8 = j["bytes"].get<std::string>();
  std::string back;
  for (size_t i = 0; i < utf8.size(); ++i) {
    const auto c = static_cast<unsigned char>(utf8[i]);
    back += c < 0x80 ? static_cast<char>(c) : static_cast<char>(((c & 0x1f) << 6) | (utf8[++i] & 0x3f));
  }
  EXPECT_EQ(back, every);
  EXPECT_EQ(std::tuple(j["ok"].get<bool>(), j["big"].get<int64_t>(), j["list"][0]["n"].get<int>(), j["more"].get<int>()),
            std::tuple(true, int64_t{1} << 40, -5, 1));
  EXPECT_EQ(client::hex_string(Bytes{0x0a, 0, 0xff}), "0a00ff");
}

}  // namespace
}  // namespace kova
