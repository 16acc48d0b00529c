// The central server's side of the agent protocol: connect, send a request,
// read exact replies, and move files with the transfer sub-protocol. Used
// by kovaget and the integration tests. Every call is bounded by the
// connection's timeout; nothing throws.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/unique.h"
#include "wire/packet.h"
#include "wire/request.h"

namespace kova::client {

inline constexpr const char* kDefaultHost = "127.0.0.1";
inline constexpr int kDefaultTimeoutMs = 60000;
// The most a reply read to its end or a file received into memory may hold.
inline constexpr size_t kDefaultReplyMax = 64u << 20;

enum class Error {
  kNone,
  kConnect,      // could not connect (other than refused), or a bad host
  kRefused,      // the connection was refused
  kSend,         // a write failed
  kTimeout,      // no data within the timeout
  kShortReply,   // the agent closed before a whole reply arrived
  kErrorPacket,  // the agent answered with an ERR packet; code holds its result
  kBadReply,     // a reply that is not what the request calls for
  kLocalFile,    // a local file could not be read or written
};

struct Status {
  Error error = Error::kNone;
  int code = 0;         // result code of an ERR packet
  std::string message;  // for people, without a trailing line feed
  bool ok() const { return error == Error::kNone; }
};

// A 40-byte request: the opcode at 0 and argument fields after it, written
// little-endian; fields outside the 40 bytes are ignored.
struct Request {
  std::array<unsigned char, kRequestSize> bytes{};
  explicit Request(int opcode);
  Request& put_short(size_t offset, int value);
  Request& put_long(size_t offset, int64_t value);
  // Up to `width` bytes of text, zero-padded.
  Request& put_text(size_t offset, std::string_view text, size_t width);
};

// The transfer header as the receiver sees it.
struct TransferInfo {
  int32_t blocks = 0;   // full 522-byte blocks
  int32_t last = 0;     // bytes in the last block
  int64_t size() const { return static_cast<int64_t>(blocks) * kPacketSize + last; }
};

// The agent's plain-text answers to an update: `ack` is "OK\r\n", or
// "FAIL\r\n" in its place when the agent refused the request; `verdict` is
// "PASS\r\n" or "FAIL\r\n" for the file's checksum (empty after a refusal).
struct UpdateReplies {
  std::string ack;
  std::string verdict;
  bool passed() const { return verdict == "PASS\r\n"; }
};

// "<UPDATE_DATA> NAME SIZE CHECKSUM DIRECTORY", the update request's text.
std::string update_request_line(const std::string& name, uint64_t size, const std::string& checksum,
                                const std::string& directory);

// One connection to the agent (one request per connection).
class Connection {
 public:
  Connection() = default;

  // Connects to an IPv4 address or a name that resolves to one.
  [[nodiscard]] static Status open(const std::string& host, int port, Connection& out,
                                   int timeout_ms = kDefaultTimeoutMs);

  int fd() const { return fd_.get(); }
  // Ends the sending direction, so the agent sees the end of the request.
  void shutdown_send();

  // Keeps a copy of up to `limit` received bytes in transcript() (for hex dumps).
  void record(size_t limit) { record_limit_ = limit; }
  const std::vector<unsigned char>& transcript() const { return transcript_; }

  [[nodiscard]] Status send(const Request& request);
  [[nodiscard]] Status send_bytes(std::span<const unsigned char> bytes);
  // Opcode 254 with the tag (37 bytes, zero-padded), then the 2-byte length
  // and the payload (at most kExtendedPayloadMax bytes).
  [[nodiscard]] Status send_extended(std::string_view tag, std::span<const unsigned char> payload);

  // Exactly out.size() bytes: kShortReply when the agent closes first.
  [[nodiscard]] Status read_exact(std::span<unsigned char> out);
  // Up to out.size() bytes, fewer when the agent closes; got says how many.
  [[nodiscard]] Status read_upto(std::span<unsigned char> out, size_t& got);
  // Everything until the agent closes, at most max_bytes (more: kBadReply).
  [[nodiscard]] Status read_to_end(std::vector<unsigned char>& out, size_t max_bytes = kDefaultReplyMax);
  // A fixed-size reply whose packet code is expected_code (any code when
  // negative). An ERR packet in its place gives kErrorPacket with its code.
  [[nodiscard]] Status read_reply(std::span<unsigned char> out, int expected_code);

  // A transferred file: the 8-byte INF header, then its bytes handed to
  // `sink` in pieces (sink returns false to fail with kLocalFile). An ERR
  // packet in place of the header gives kErrorPacket.
  [[nodiscard]] Status receive_file(const std::function<bool(std::span<const unsigned char>)>& sink,
                                    TransferInfo& info);
  [[nodiscard]] Status receive_file_to_path(const std::string& path, TransferInfo& info);
  [[nodiscard]] Status receive_file_to_buffer(std::vector<unsigned char>& out, TransferInfo& info,
                                              size_t max_bytes = kDefaultReplyMax);

  // What the agent sends after a request's data until it closes: nothing,
  // or an ERR packet (kErrorPacket with its code); anything else is kBadReply.
  [[nodiscard]] Status read_verdict();

  // Sends a file to the agent: the INF header, then the bytes.
  [[nodiscard]] Status push_file(std::span<const unsigned char> bytes);
  // The memory file (opcode 2 already sent): waits for the 10-byte
  // acknowledgement, pushes the file and reads the agent's verdict (nothing,
  // or an ERR packet) until it closes.
  [[nodiscard]] Status push_memory_file(std::span<const unsigned char> bytes);

  // The update exchange: the "<UPDATE_DATA>" request carrying
  // `request_line`, the agent's status 0 and acknowledgement, then, after
  // an OK, the file's bytes and the agent's verdict. A refusal or a failed
  // checksum is no failure of the exchange: `replies` tells.
  [[nodiscard]] Status push_update(std::string_view request_line, std::span<const unsigned char> bytes,
                                   UpdateReplies& replies);
  // The local file at `path` as an update for `directory`: its name, size
  // and checksum (computed as the agent computes it) in the request line.
  [[nodiscard]] Status push_update_file(const std::string& path, const std::string& directory,
                                        UpdateReplies& replies);

 private:
  [[nodiscard]] Status wait_readable();
  void keep(std::span<const unsigned char> bytes);

  UniqueFd fd_;
  int timeout_ms_ = kDefaultTimeoutMs;
  size_t record_limit_ = 0;
  std::vector<unsigned char> transcript_;
};

// What a "<APPDATA>" request asks for.
struct AppDataQuery {
  std::string day;                    // "DD-Mon-YYYY:HH:MM"
  int purge = -1;                     // purge the pattern's files older than purge + 1 days; below 0: none
  bool by_day = false;                // only names holding the day in one of the agent's date styles
  std::optional<std::string> suffix;  // only names holding this (at most 12 bytes)
  std::string pattern_path;           // a registered directory, "/", a name pattern ("*" ends it)
};

// The request's payload: day (18), purge, by_day and suffix flags (16 bits
// each), suffix (12), then the pattern path.
std::vector<unsigned char> appdata_payload(const AppDataQuery& query);

// Sends "<APPDATA>" on a fresh connection and stores each file the agent
// sends in `out_dir` under its sent name (a name with "/", or "." or "..",
// is refused as kBadReply). `names` receives the names in the order they
// came. Ends with the agent's status reply: 0 is success, anything else
// kErrorPacket with its code (12 nothing matched, 17 not registered, 18
// not opened, 19 compression failed, a transfer's code), also after files.
[[nodiscard]] Status fetch_appdata(Connection& connection, const AppDataQuery& query, const std::string& out_dir,
                                   std::vector<std::string>& names);

// The failure an ERR packet stands for: kErrorPacket with its result code.
Status error_packet(std::span<const unsigned char> bytes);

// Reads a whole local file; false when it cannot be read.
[[nodiscard]] bool read_local_file(const std::string& path, std::vector<unsigned char>& out);

}  // namespace kova::client
