#include "kova_client.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/codes.h"
#include "update/checksum.h"

namespace kova::client {
namespace {

Status failure(Error error, std::string message, int code = 0) { return Status{error, code, std::move(message)}; }

bool resolve_ipv4(const std::string& host, in_addr& out) {
  if (::inet_pton(AF_INET, host.c_str(), &out) == 1) return true;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || found == nullptr) return false;
  out = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr;
  ::freeaddrinfo(found);
  return true;
}

}  // namespace

Status error_packet(std::span<const unsigned char> bytes) {
  int code = Packet_CheckOPCODE(bytes, 2);
  return failure(Error::kErrorPacket, "agent error " + std::to_string(code) + ": " + result_text(code), code);
}

Request::Request(int opcode) { put_short(0, opcode); }

Request& Request::put_short(size_t offset, int value) {
  kova::put_short(bytes, offset, value);
  return *this;
}

Request& Request::put_long(size_t offset, int64_t value) {
  kova::put_long(bytes, offset, value);
  return *this;
}

Request& Request::put_text(size_t offset, std::string_view text, size_t width) {
  if (offset >= bytes.size()) return *this;
  width = std::min(width, bytes.size() - offset);
  std::fill_n(bytes.begin() + static_cast<long>(offset), width, 0);
  std::copy_n(text.begin(), std::min(width, text.size()), bytes.begin() + static_cast<long>(offset));
  return *this;
}

Status Connection::open(const std::string& host, int port, Connection& out, int timeout_ms) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  if (port <= 0 || port > 65535) return failure(Error::kConnect, "bad port " + std::to_string(port));
  if (!resolve_ipv4(host, addr.sin_addr)) return failure(Error::kConnect, "cannot resolve host " + host);

  UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) return failure(Error::kConnect, std::string("socket: ") + std::strerror(errno));
  const std::string where = host + ":" + std::to_string(port);
  if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    if (errno == ECONNREFUSED) return failure(Error::kRefused, "connection refused by " + where);
    if (errno != EINPROGRESS) return failure(Error::kConnect, "connect to " + where + ": " + std::strerror(errno));
    pollfd p{fd.get(), POLLOUT, 0};
    int ready = ::poll(&p, 1, timeout_ms);
    if (ready == 0) return failure(Error::kTimeout, "timed out connecting to " + where);
    int err = 0;
    socklen_t len = sizeof err;
    if (ready < 0 || ::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
    if (err == ECONNREFUSED) return failure(Error::kRefused, "connection refused by " + where);
    if (err != 0) return failure(Error::kConnect, "connect to " + where + ": " + std::strerror(err));
  }
  out.fd_ = std::move(fd);
  out.timeout_ms_ = timeout_ms;
  out.transcript_.clear();
  return {};
}

void Connection::shutdown_send() { ::shutdown(fd_.get(), SHUT_WR); }

void Connection::keep(std::span<const unsigned char> bytes) {
  size_t room = record_limit_ > transcript_.size() ? record_limit_ - transcript_.size() : 0;
  transcript_.insert(transcript_.end(), bytes.begin(), bytes.begin() + static_cast<long>(std::min(room, bytes.size())));
}

Status Connection::wait_readable() {
  pollfd p{fd_.get(), POLLIN, 0};
  for (;;) {
    int ready = ::poll(&p, 1, timeout_ms_);
    if (ready > 0) return {};
    if (ready == 0) return failure(Error::kTimeout, "no reply from the agent within the timeout");
    if (errno != EINTR) return failure(Error::kShortReply, std::string("poll: ") + std::strerror(errno));
  }
}

Status Connection::send_bytes(std::span<const unsigned char> bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t k = ::send(fd_.get(), bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (k < 0 && errno == EINTR) continue;
    if (k < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      pollfd p{fd_.get(), POLLOUT, 0};
      if (::poll(&p, 1, timeout_ms_) <= 0) return failure(Error::kTimeout, "the agent stopped taking data");
      continue;
    }
    if (k <= 0) return failure(Error::kSend, std::string("send: ") + std::strerror(errno));
    done += static_cast<size_t>(k);
  }
  return {};
}

Status Connection::send(const Request& request) { return send_bytes(request.bytes); }

Status Connection::send_extended(std::string_view tag, std::span<const unsigned char> payload) {
  if (payload.size() > static_cast<size_t>(kExtendedPayloadMax))
    return failure(Error::kSend, "payload longer than " + std::to_string(kExtendedPayloadMax) + " bytes");
  Request request(kOpExtended);
  request.put_text(kExtendedTagOffset, tag, kExtendedTagLength);
  std::vector<unsigned char> rest(2 + payload.size());
  kova::put_short(rest, 0, static_cast<int>(payload.size()));
  std::copy(payload.begin(), payload.end(), rest.begin() + 2);
  Status st = send(request);
  return st.ok() ? send_bytes(rest) : st;
}

Status Connection::read_upto(std::span<unsigned char> out, size_t& got) {
  got = 0;
  while (got < out.size()) {
    ssize_t k = ::recv(fd_.get(), out.data() + got, out.size() - got, 0);
    if (k == 0) break;
    if (k < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK)
        return failure(Error::kShortReply, std::string("recv: ") + std::strerror(errno));
      if (Status st = wait_readable(); !st.ok()) return st;
      continue;
    }
    keep(out.subspan(got, static_cast<size_t>(k)));
    got += static_cast<size_t>(k);
  }
  return {};
}

Status Connection::read_exact(std::span<unsigned char> out) {
  size_t got = 0;
  if (Status st = read_upto(out, got); !st.ok()) return st;
  if (got < out.size())
    return failure(Error::kShortReply, "short reply: " + std::to_string(got) + " of " + std::to_string(out.size()) +
                                           " bytes before the agent closed");
  return {};
}

Status Connection::read_to_end(std::vector<unsigned char>& out, size_t max_bytes) {
  out.clear();
  std::array<unsigned char, 65536> chunk;
  for (;;) {
    size_t got = 0;
    size_t want = std::min(chunk.size(), max_bytes + 1 - out.size());
    if (Status st = read_upto(std::span(chunk).first(want), got); !st.ok()) return st;
    out.insert(out.end(), chunk.begin(), chunk.begin() + static_cast<long>(got));
    if (out.size() > max_bytes) return failure(Error::kBadReply, "reply longer than " + std::to_string(max_bytes));
    if (got < want) return {};
  }
}

Status Connection::read_reply(std::span<unsigned char> out, int expected_code) {
  size_t got = 0;
  if (Status st = read_upto(out, got); !st.ok()) return st;
  // An ERR packet is 8 bytes; its code and result fit in the first four.
  if (got >= 4 && Packet_CheckOPCODE(out) == kPacketErr && expected_code != kPacketErr) return error_packet(out);
  if (got < out.size())
    return failure(Error::kShortReply, "short reply: " + std::to_string(got) + " of " + std::to_string(out.size()) +
                                           " bytes before the agent closed");
  if (expected_code >= 0 && Packet_CheckOPCODE(out) != expected_code)
    return failure(Error::kBadReply, "unexpected packet code " + std::to_string(Packet_CheckOPCODE(out)));
  return {};
}

Status Connection::receive_file(const std::function<bool(std::span<const unsigned char>)>& sink,
                                TransferInfo& info) {
  std::array<unsigned char, kInfSize> header{};
  if (Status st = read_reply(header, kPacketInf); !st.ok()) return st;
  info.blocks = Packet_CheckLONG(header, 2);
  // Only the low two bytes of the last-block size travel.
  info.last = static_cast<uint16_t>(Packet_CheckOPCODE(header, 6));
  if (info.blocks < 0 || info.last >= static_cast<int32_t>(kPacketSize))
    return failure(Error::kBadReply, "bad transfer header");
  int64_t remaining = info.size();
  std::vector<unsigned char> chunk(1 << 16);
  while (remaining > 0) {
    const size_t want = static_cast<size_t>(std::min<int64_t>(remaining, static_cast<int64_t>(chunk.size())));
    size_t got = 0;
    if (Status st = read_upto(std::span(chunk).first(want), got); !st.ok()) return st;
    if (got > 0 && !sink(std::span(chunk).first(got))) return failure(Error::kLocalFile, "cannot store the file");
    if (got < want)
      return failure(Error::kShortReply, "file cut short: " + std::to_string(info.size() - remaining + static_cast<int64_t>(got)) +
                                             " of " + std::to_string(info.size()) + " bytes");
    remaining -= static_cast<int64_t>(got);
  }
  return {};
}

Status Connection::receive_file_to_path(const std::string& path, TransferInfo& info) {
  UniqueFd out(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!out) return failure(Error::kLocalFile, "cannot write " + path + ": " + std::strerror(errno));
  Status st = receive_file(
      [&](std::span<const unsigned char> bytes) {
        size_t done = 0;
        while (done < bytes.size()) {
          ssize_t k = ::write(out.get(), bytes.data() + done, bytes.size() - done);
          if (k < 0 && errno == EINTR) continue;
          if (k <= 0) return false;
          done += static_cast<size_t>(k);
        }
        return true;
      },
      info);
  if (st.ok() && out.close() != 0) return failure(Error::kLocalFile, "cannot write " + path + ": " + std::strerror(errno));
  return st;
}

Status Connection::receive_file_to_buffer(std::vector<unsigned char>& out, TransferInfo& info, size_t max_bytes) {
  out.clear();
  return receive_file(
      [&](std::span<const unsigned char> bytes) {
        if (out.size() + bytes.size() > max_bytes) return false;
        out.insert(out.end(), bytes.begin(), bytes.end());
        return true;
      },
      info);
}

Status Connection::push_file(std::span<const unsigned char> bytes) {
  const int64_t blocks = static_cast<int64_t>(bytes.size() / kPacketSize);
  if (blocks > INT32_MAX) return failure(Error::kLocalFile, "file too large to announce");
  PacketBuffer header{};
  Packet_CreateINF(blocks, static_cast<int64_t>(bytes.size() % kPacketSize), header);
  if (Status st = send_bytes(std::span(header).first(kInfSize)); !st.ok()) return st;
  return send_bytes(bytes);
}

Status Connection::push_memory_file(std::span<const unsigned char> bytes) {
  std::array<unsigned char, kMemAckSize> ack{};
  size_t got = 0;
  if (Status st = read_upto(ack, got); !st.ok()) return st;
  if (got >= 4 && Packet_CheckOPCODE(ack) == kPacketErr) return error_packet(ack);
  if (got < ack.size()) return failure(Error::kShortReply, "short acknowledgement: " + std::to_string(got) + " of 10 bytes");
  if (ack[0] != 0 || ack[1] != kPacketMemAck) return failure(Error::kBadReply, "not a memory acknowledgement");
  if (Status st = push_file(bytes); !st.ok()) return st;
  return read_verdict();
}

Status Connection::read_verdict() {
  std::vector<unsigned char> verdict;
  if (Status st = read_to_end(verdict, 64); !st.ok()) return st;
  if (verdict.size() >= 4 && Packet_CheckOPCODE(verdict) == kPacketErr) return error_packet(verdict);
  if (!verdict.empty()) return failure(Error::kBadReply, "unexpected bytes after the reply");
  return {};
}

std::vector<unsigned char> appdata_payload(const AppDataQuery& query) {
  std::vector<unsigned char> out(36, 0);
  std::copy_n(query.day.begin(), std::min<size_t>(query.day.size(), 18), out.begin());
  kova::put_short(out, 18, query.purge);
  kova::put_short(out, 20, query.by_day ? 1 : 0);
  kova::put_short(out, 22, query.suffix ? 1 : 0);
  if (query.suffix) std::copy_n(query.suffix->begin(), std::min<size_t>(query.suffix->size(), 12), out.begin() + 24);
  out.insert(out.end(), query.pattern_path.begin(), query.pattern_path.end());
  return out;
}

Status fetch_appdata(Connection& connection, const AppDataQuery& query, const std::string& out_dir,
                     std::vector<std::string>& names) {
  names.clear();
  if (Status st = connection.send_extended("<APPDATA>", appdata_payload(query)); !st.ok()) return st;
  // The count is an ERR packet with result 0 and the number of files; a
  // refusal is the status reply alone.
  std::array<unsigned char, kErrSize> packet{};
  if (Status st = connection.read_reply(packet, kPacketErr); !st.ok()) return st;
  if (Packet_CheckOPCODE(packet, 2) != 0) return error_packet(packet);
  const int count = static_cast<uint16_t>(Packet_CheckOPCODE(packet, 4));
  if (count == 0) return {};  // a bare status 0: nothing was sent
  for (int i = 0; i < count; ++i) {
    // A failure mid-way (compression) puts the status reply where a name belongs.
    if (Status st = connection.read_reply(packet, kPacketString); !st.ok()) return st;
    std::string name(static_cast<uint16_t>(Packet_CheckOPCODE(packet, 2)), '\0');
    if (Status st = connection.read_exact(std::span(reinterpret_cast<unsigned char*>(name.data()), name.size()));
        !st.ok())
      return st;
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
        name.find('\0') != std::string::npos)
      return failure(Error::kBadReply, "bad file name from the agent");
    TransferInfo info;
    if (Status st = connection.receive_file_to_path(out_dir + "/" + name, info); !st.ok()) return st;
    names.push_back(name);
  }
  if (Status st = connection.read_reply(packet, kPacketErr); !st.ok()) return st;
  return Packet_CheckOPCODE(packet, 2) == 0 ? Status{} : error_packet(packet);
}

std::string update_request_line(const std::string& name, uint64_t size, const std::string& checksum,
                                const std::string& directory) {
  return "<UPDATE_DATA> " + name + " " + std::to_string(size) + " " + checksum + " " + directory;
}

Status Connection::push_update(std::string_view request_line, std::span<const unsigned char> bytes,
                               UpdateReplies& replies) {
  replies = {};
  Status st = send_extended("<UPDATE_DATA>", {reinterpret_cast<const unsigned char*>(request_line.data()),
                                              request_line.size()});
  std::array<unsigned char, kStatusSize> status{};
  if (st.ok()) st = read_reply(status, -1);
  if (!st.ok()) return st;
  if (Packet_CheckOPCODE(status) != kResultOk)
    return failure(Error::kBadReply, "agent answered the update with status " +
                                         std::to_string(Packet_CheckOPCODE(status)));
  const auto text_reply = [&](size_t n, std::string& out) {
    std::string text(n, '\0');
    Status got = read_exact({reinterpret_cast<unsigned char*>(text.data()), n});
    out += text;
    return got;
  };
  // "OK\r\n", or "FAIL\r\n" in its place: the first four bytes tell which.
  if (st = text_reply(4, replies.ack); st.ok() && replies.ack == "FAIL") st = text_reply(2, replies.ack);
  if (!st.ok()) return st;
  if (replies.ack == "FAIL\r\n") return {};
  if (replies.ack != "OK\r\n") return failure(Error::kBadReply, "unexpected acknowledgement of the update");
  if (st = send_bytes(bytes); st.ok()) st = text_reply(6, replies.verdict);
  if (!st.ok()) return st;
  if (replies.verdict != "PASS\r\n" && replies.verdict != "FAIL\r\n")
    return failure(Error::kBadReply, "unexpected verdict on the update");
  return {};
}

Status Connection::push_update_file(const std::string& path, const std::string& directory,
                                    UpdateReplies& replies) {
  std::vector<unsigned char> bytes;
  std::string checksum;
  if (!read_local_file(path, bytes) || Rijndael_Checksum_Text(path, checksum) != 1)
    return failure(Error::kLocalFile, "cannot read " + path);
  const std::string name = path.substr(path.find_last_of('/') + 1);
  return push_update(update_request_line(name, bytes.size(), checksum, directory), bytes, replies);
}

bool read_local_file(const std::string& path, std::vector<unsigned char>& out) {
  out.clear();
  UniqueFd in(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!in) return false;
  unsigned char buf[65536];
  for (;;) {
    ssize_t k = ::read(in.get(), buf, sizeof buf);
    if (k < 0 && errno == EINTR) continue;
    if (k < 0) return false;
    if (k == 0) return true;
    out.insert(out.end(), buf, buf + k);
  }
}

}  // namespace kova::client
