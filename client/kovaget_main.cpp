// kovaget: asks a running agent one thing, as the central server would, and
// prints the answer in plain words, as a hex dump (--raw) or as one JSON
// object (--json).
//
//   kovaget [options] COMMAND [ARGS]      (kovaget --help lists both)
//
// Each command is one row of kCommands: a new request type is a new row
// and a small function built from the client library's calls. A function
// reports through Output: say() for the words, field() for the same facts
// in the JSON object; fail() for what went wrong.

#include <getopt.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "json.h"
#include "kova_client.h"
#include "replies.h"
#include "base/codes.h"
#include "update/checksum.h"

namespace {

using kova::client::Connection;
using kova::client::JsonArray;
using kova::client::JsonObject;
using kova::client::Request;
using kova::client::Status;

constexpr int kDefaultPort = 1661;
constexpr size_t kRecordLimit = 1u << 20;

// The agent pauses on purpose before it answers: 2 s in every extended
// request and 10 s before performance, raw and merge data (a merge is an
// extended request: both). The default wait for each reply allows for both
// pauses and a minute of work after them.
constexpr int kExtendedPauseMs = 2000;
constexpr int kDataPauseMs = 10000;
constexpr int kWorkMs = 60000;
constexpr int kDefaultTimeoutMs = kExtendedPauseMs + kDataPauseMs + kWorkMs;

// Exit statuses.
constexpr int kExitOk = 0;
constexpr int kExitNoReply = 1;  // no agent, no answer, a cut or malformed one, a local file
constexpr int kExitUsage = 2;
constexpr int kExitRefused = 3;  // an error packet, or a status that refuses the request
constexpr int kExitUnknownStatus = 4;

struct Options {
  std::string host = kova::client::kDefaultHost;
  int port = kDefaultPort;
  int timeout_ms = kDefaultTimeoutMs;
  bool raw = false;
  bool json = false;
  std::string out_path;
  // appdata's: only files of this day, with this suffix; purge afterwards.
  std::optional<std::string> day;
  std::optional<std::string> suffix;
  int purge_days = -1;
};

// What a command found out, in words (printed at once) or as the fields of
// the JSON object (printed at the end).
class Output {
 public:
  explicit Output(bool json) : json_(json) {}
  bool json() const { return json_; }

  [[gnu::format(printf, 2, 3)]] void say(const char* format, ...) {
    if (json_) return;
    va_list args;
    va_start(args, format);
    std::vfprintf(stdout, format, args);
    va_end(args);
  }
  template <typename T>
  void field(std::string_view key, const T& value) {
    fields_.add(key, value);
  }
  void field_json(std::string_view key, std::string_view json) { fields_.add_json(key, json); }
  // Bytes as they came: raw into standard output, or a JSON string field.
  void bytes(std::string_view key, std::span<const unsigned char> bytes) {
    if (json_)
      fields_.add(key, std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    else
      std::fwrite(bytes.data(), 1, bytes.size(), stdout);
  }
  const JsonObject& fields() const { return fields_; }

 private:
  bool json_;
  JsonObject fields_;
};

using Args = std::vector<std::string>;

struct Session {
  Options options;
  Connection connection;
  Output out{false};
};

bool parse_int(const std::string& text, long low, long high, long& out) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  long v = std::strtol(text.c_str(), &end, 0);
  if (errno != 0 || *end != '\0' || v < low || v > high) return false;
  out = v;
  return true;
}

std::span<const unsigned char> bytes_of(std::string_view text) {
  return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

const char* error_name(kova::client::Error error) {
  using kova::client::Error;
  switch (error) {
    case Error::kNone: return "none";
    case Error::kConnect: return "connect";
    case Error::kRefused: return "connection_refused";
    case Error::kSend: return "send";
    case Error::kTimeout: return "timeout";
    case Error::kShortReply: return "short_reply";
    case Error::kErrorPacket: return "refused";
    case Error::kBadReply: return "bad_reply";
    case Error::kLocalFile: return "local_file";
  }
  return "unknown";
}

// Says what went wrong on standard error and in the JSON object.
int fail(Session& s, const Status& st) {
  std::fprintf(stderr, "kovaget: %s\n", st.message.c_str());
  s.out.field("error", error_name(st.error));
  s.out.field("message", st.message);
  if (st.error == kova::client::Error::kErrorPacket) {
    if (st.code != 0) s.out.field("agent_code", st.code);
    return kExitRefused;
  }
  return kExitNoReply;
}

int bad_argument(Session& s, const std::string& what) {
  std::fprintf(stderr, "kovaget: bad argument: %s\n", what.c_str());
  s.out.field("error", "usage");
  s.out.field("message", "bad argument: " + what);
  return kExitUsage;
}

// A component state: its code and name as fields; kExitUnknownStatus when
// the agent could not tell (99) or sent a code no component state has.
int component_state(Session& s, std::string_view prefix, int status) {
  s.out.field(std::string(prefix) + "status", status);
  s.out.field(std::string(prefix) + "state", kova::client::component_state_name(status));
  if (kova::client::component_state_known(status)) return kExitOk;
  const std::string message = "unknown status " + std::to_string(status);
  std::fprintf(stderr, "kovaget: %s\n", message.c_str());
  s.out.field("error", "unknown_status");
  s.out.field("message", message);
  return kExitUnknownStatus;
}

// The received bytes as a hex dump; true when --raw asked for that instead
// of words. With --json the bytes become a field beside the decoded ones.
bool print_raw(Session& s) {
  if (!s.options.raw) return false;
  const auto& received = s.connection.transcript();
  if (s.out.json()) {
    s.out.field("received_hex", kova::client::hex_string(received));
    return false;
  }
  std::fputs(kova::client::hex_dump(received).c_str(), stdout);
  if (received.size() >= kRecordLimit) std::printf("(first %zu bytes shown)\n", kRecordLimit);
  return true;
}

// On a failure, what did arrive is still shown when --raw asked for it.
int fail_after_raw(Session& s, const Status& st) {
  print_raw(s);
  return fail(s, st);
}

Status connect_and_send(Session& s, const Request& request) {
  Status st = Connection::open(s.options.host, s.options.port, s.connection, s.options.timeout_ms);
  if (!st.ok()) return st;
  s.connection.record(kRecordLimit);
  return s.connection.send(request);
}

// Requests answered with one fixed-size packet.
template <size_t N>
Status simple_exchange(Session& s, const Request& request, int expected_code, std::array<unsigned char, N>& reply) {
  Status st = connect_and_send(s, request);
  if (st.ok()) st = s.connection.read_reply(reply, expected_code);
  return st;
}

int run_version(Session& s, const Args&) {
  std::array<unsigned char, kova::kVersSize> reply{};
  Status st = simple_exchange(s, Request(14), kova::kPacketVers, reply);
  if (!st.ok()) return fail_after_raw(s, st);
  kova::client::Version v;
  if (!print_raw(s) && kova::client::decode_version(reply, v)) {
    s.out.say("agent protocol version %d.%d\n", v.major, v.minor);
    s.out.field("major", v.major);
    s.out.field("minor", v.minor);
  }
  return kExitOk;
}

int run_os(Session& s, const Args&) {
  std::array<unsigned char, kova::kOsSize> reply{};
  Status st = simple_exchange(s, Request(16), -1, reply);
  if (!st.ok()) return fail_after_raw(s, st);
  int32_t id = 0;
  if (!print_raw(s) && kova::client::decode_os(reply, id)) {
    s.out.say("operating-system id %d\n", id);
    s.out.field("os_id", id);
  }
  return kExitOk;
}

int run_status(Session& s, const Args&) {
  std::array<unsigned char, kova::kDcStatSize> reply{};
  Status st = simple_exchange(s, Request(6), kova::kPacketDcStat, reply);
  if (!st.ok()) return fail_after_raw(s, st);
  kova::client::DcStat d;
  if (print_raw(s) || !kova::client::decode_dcstat(reply, d)) return kExitOk;
  s.out.say("data collector: %s, interval %d s, peak interval %d s\n",
            kova::client::component_status_words(d.dc_status).c_str(), d.dc_interval, d.peak_seconds);
  s.out.say("real-time agent: %s\n", kova::client::component_status_words(d.rta_status).c_str());
  s.out.field("collector_interval_s", d.dc_interval);
  s.out.field("peak_interval_s", d.peak_seconds);
  const int collector = component_state(s, "collector_", d.dc_status);
  const int rta = component_state(s, "rta_", d.rta_status);
  return collector != kExitOk ? collector : rta;
}

// Start, stop and status requests of the components: one STARTSTOP reply.
int run_startstop(Session& s, const Request& request, const char* component) {
  std::array<unsigned char, kova::kStartStopSize> reply{};
  Status st = simple_exchange(s, request, kova::kPacketStartStop, reply);
  if (!st.ok()) return fail_after_raw(s, st);
  int status = 0;
  if (print_raw(s) || !kova::client::decode_startstop(reply, status)) return kExitOk;
  s.out.say("%s: %s\n", component, kova::client::component_status_words(status).c_str());
  s.out.field("component", component);
  return component_state(s, "", status);
}

int run_dcstart(Session& s, const Args& a) {
  long dump = 0, peak = 0;
  if (!parse_int(a[0], -32768, 32767, dump)) return bad_argument(s, "DUMP " + a[0]);
  if (!parse_int(a[1], -32768, 32767, peak)) return bad_argument(s, "PEAK " + a[1]);
  Request r(3);
  r.put_short(2, static_cast<int>(dump)).put_short(4, static_cast<int>(peak));
  return run_startstop(s, r, "data collector");
}

int run_rtastart(Session& s, const Args& a) {
  long process = 0, port = 0, rate = 0;
  if (!parse_int(a[0], -32768, 32767, process)) return bad_argument(s, "PROCESS " + a[0]);
  if (!parse_int(a[1], INT32_MIN, INT32_MAX, port)) return bad_argument(s, "PORT " + a[1]);
  if (!parse_int(a[2], INT32_MIN, INT32_MAX, rate)) return bad_argument(s, "SCANRATE " + a[2]);
  Request r(9);
  r.put_short(2, static_cast<int>(process)).put_long(4, port).put_long(8, rate);
  return run_startstop(s, r, "real-time agent");
}

int run_dcstop(Session& s, const Args&) { return run_startstop(s, Request(4), "data collector"); }
int run_rtastop(Session& s, const Args&) { return run_startstop(s, Request(10), "real-time agent"); }
int run_sorlexstart(Session& s, const Args&) { return run_startstop(s, Request(18), "search agent"); }
int run_sorlexstop(Session& s, const Args&) { return run_startstop(s, Request(19), "search agent"); }
int run_sorlexstatus(Session& s, const Args&) { return run_startstop(s, Request(20), "search agent"); }

int run_terminate(Session& s, const Args&) {
  Status st = connect_and_send(s, Request(7));
  std::vector<unsigned char> reply;
  if (st.ok()) st = s.connection.read_to_end(reply, 64);
  if (!st.ok()) return fail_after_raw(s, st);
  if (!print_raw(s)) s.out.say("terminate sent; the agent closed the connection\n");
  s.out.field("closed", true);
  return kExitOk;
}

int run_memory(Session& s, const Args& a) {
  std::vector<unsigned char> file;
  if (!kova::client::read_local_file(a[0], file))
    return fail(s, Status{kova::client::Error::kLocalFile, 0, "cannot read " + a[0] + ": " + std::strerror(errno)});
  Status st = connect_and_send(s, Request(2));
  if (st.ok()) st = s.connection.push_memory_file(file);
  if (!st.ok()) return fail_after_raw(s, st);
  if (!print_raw(s)) s.out.say("memory file %s sent (%zu bytes)\n", a[0].c_str(), file.size());
  s.out.field("file", a[0]);
  s.out.field("bytes", static_cast<int64_t>(file.size()));
  return kExitOk;
}

// Writes `bytes` to `path`; false when it cannot.
bool store(const std::string& path, std::span<const unsigned char> bytes) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  bool ok = f != nullptr && std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  if (f != nullptr && std::fclose(f) != 0) ok = false;
  return ok;
}

// Prints or stores whatever follows: into -o when given, else as hex.
int deliver_rest(Session& s, std::span<const unsigned char> rest) {
  s.out.field("rest_bytes", static_cast<int64_t>(rest.size()));
  if (!s.options.out_path.empty()) {
    if (!store(s.options.out_path, rest))
      return fail(s, Status{kova::client::Error::kLocalFile, 0, "cannot write " + s.options.out_path});
    s.out.say("%zu bytes written to %s\n", rest.size(), s.options.out_path.c_str());
    s.out.field("path", s.options.out_path);
  } else if (!rest.empty()) {
    s.out.say("%s", kova::client::hex_dump(rest).c_str());
    s.out.field("rest_hex", kova::client::hex_string(rest));
  }
  return kExitOk;
}

// Any opcode; the reply is shown raw. With -o the reply is taken as a
// transferred file (INF header, then the bytes) and stored there. No reply
// at all is a failure: the agent sends nothing for an opcode it does not
// serve.
int run_opcode(Session& s, const Args& a) {
  long opcode = 0;
  if (!parse_int(a[0], -32768, 32767, opcode)) return bad_argument(s, "opcode " + a[0]);
  s.out.field("opcode", static_cast<int64_t>(opcode));
  Status st = connect_and_send(s, Request(static_cast<int>(opcode)));
  if (!st.ok()) return fail(s, st);
  if (!s.options.out_path.empty()) {
    kova::client::TransferInfo info;
    st = s.connection.receive_file_to_path(s.options.out_path, info);
    if (!st.ok()) return fail(s, st);
    s.out.say("%lld bytes (%d blocks + %d) written to %s\n", static_cast<long long>(info.size()), info.blocks,
              info.last, s.options.out_path.c_str());
    s.out.field("bytes", info.size());
    s.out.field("path", s.options.out_path);
    return kExitOk;
  }
  std::vector<unsigned char> reply;
  st = s.connection.read_to_end(reply);
  if (!st.ok()) return fail(s, st);
  if (reply.empty()) {
    s.out.say("(no reply)\n");
    return fail(s, Status{kova::client::Error::kShortReply, 0, "no reply: the agent closed the connection"});
  }
  s.out.say("%s", kova::client::hex_dump(reply).c_str());
  s.out.field("bytes", static_cast<int64_t>(reply.size()));
  s.out.field("reply_hex", kova::client::hex_string(reply));
  return kExitOk;
}

// An extended request; its status, then whatever follows. Status 8 is the
// agent's refusal of a tag it does not know.
int run_ext(Session& s, const Args& a) {
  const std::string payload = a.size() > 1 ? a[1] : "";
  s.out.field("tag", a[0]);
  Status st = Connection::open(s.options.host, s.options.port, s.connection, s.options.timeout_ms);
  if (!st.ok()) return fail(s, st);
  s.connection.record(kRecordLimit);
  st = s.connection.send_extended(a[0], bytes_of(payload));
  std::vector<unsigned char> reply;
  if (st.ok()) st = s.connection.read_to_end(reply);
  if (!st.ok()) return fail_after_raw(s, st);
  if (print_raw(s)) return kExitOk;
  // Every extended request the agent takes is answered; silence is a refusal.
  if (reply.size() < kova::kStatusSize)
    return fail(s, Status{kova::client::Error::kShortReply, 0,
                          "short reply: " + std::to_string(reply.size()) + " of 8 bytes before the agent closed"});
  const int status = kova::Packet_CheckOPCODE(reply);
  if (status == kova::kPacketErr) return fail(s, kova::client::error_packet(reply));
  s.out.say("status: %s\n", kova::client::extended_status_words(status).c_str());
  s.out.field("status", status);
  s.out.field("status_text", kova::client::extended_status_words(status));
  const int delivered = deliver_rest(s, std::span(reply).subspan(kova::kStatusSize));
  if (delivered != kExitOk) return delivered;
  if (status == kova::kResultUnknownCode)
    return fail(s, Status{kova::client::Error::kErrorPacket, status, "the agent does not know the tag " + a[0]});
  return kExitOk;
}

// A transferred file: stored with -o, else written to standard output (or
// into the JSON object). A file the agent could not send comes as an empty
// transfer followed by an ERR packet, which makes this a failure.
int take_file(Session& s, const char* what) {
  kova::client::TransferInfo info;
  std::vector<unsigned char> bytes;
  Status st = s.options.out_path.empty() ? s.connection.receive_file_to_buffer(bytes, info)
                                         : s.connection.receive_file_to_path(s.options.out_path, info);
  if (st.ok()) st = s.connection.read_verdict();
  if (!st.ok()) return fail(s, st);
  s.out.field("what", what);
  s.out.field("bytes", info.size());
  if (s.options.out_path.empty()) {
    s.out.bytes("content", bytes);
  } else {
    s.out.say("%s: %lld bytes written to %s\n", what, static_cast<long long>(info.size()), s.options.out_path.c_str());
    s.out.field("path", s.options.out_path);
  }
  return kExitOk;
}

// Today's time range in the server's form: "DD-Mon-YYYY:00:00" and ":23:59".
std::string today(const char* hour_minute) {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char day[32];
  std::strftime(day, sizeof day, "%d-%b-%Y:", &local);
  return std::string(day) + hour_minute;
}

// Extended requests by name: the tag and payload, then the agent's 8-byte
// status, which must be `expected`; anything else is the agent's refusal.
Status ext_request(Session& s, const char* tag, std::string_view payload, int expected) {
  Status st = Connection::open(s.options.host, s.options.port, s.connection, s.options.timeout_ms);
  if (!st.ok()) return st;
  s.connection.record(kRecordLimit);
  st = s.connection.send_extended(tag, bytes_of(payload));
  std::array<unsigned char, kova::kStatusSize> status{};
  if (st.ok()) st = s.connection.read_reply(status, -1);
  if (!st.ok()) return st;
  const int code = kova::Packet_CheckOPCODE(status);
  if (code != expected)
    return Status{kova::client::Error::kErrorPacket, code,
                  std::string("agent answered ") + tag + " with " + kova::client::extended_status_words(code)};
  return st;
}

// Text fields of `width` bytes, zero-padded, as node requests carry them.
std::string fields(const Args& a, size_t width) {
  std::string out;
  for (const std::string& field : a) {
    out += field.substr(0, width);
    out.append(width - std::min(width, field.size()), '\0');
  }
  return out;
}

// Extended requests answered by a transferred file, with no status first.
int ext_file(Session& s, const char* tag, const std::string& payload, const char* what) {
  Status st = Connection::open(s.options.host, s.options.port, s.connection, s.options.timeout_ms);
  if (st.ok())
    st = s.connection.send_extended(tag, bytes_of(payload));
  if (!st.ok()) return fail(s, st);
  return take_file(s, what);
}

// perf [START END [AGE]]: the extracted performance data of a time range
// (default: today). The agent waits ten seconds before it answers.
int run_perf(Session& s, const Args& a) {
  const std::string start = a.size() > 0 ? a[0] : today("00:00");
  const std::string end = a.size() > 1 ? a[1] : today("23:59");
  long age = 14;
  if (a.size() > 2 && !parse_int(a[2], -32768, 32767, age)) return bad_argument(s, "AGE " + a[2]);
  Request r(1);
  r.put_text(2, start, 18).put_text(20, end, 18).put_short(38, static_cast<int>(age));
  Status st = connect_and_send(s, r);
  if (!st.ok()) return fail(s, st);
  return take_file(s, "performance data");
}

int run_config(Session& s, const Args&) {
  Status st = connect_and_send(s, Request(15));
  if (!st.ok()) return fail(s, st);
  return take_file(s, "configuration report");
}

// merge [START END]: the merged report of a time range (default: today).
int run_merge(Session& s, const Args& a) {
  const std::string start = a.size() > 0 ? a[0] : today("00:00");
  const std::string end = a.size() > 1 ? a[1] : today("23:59");
  return ext_file(s, "<MERG>", fields({start, end}, 18), "merged report");
}

// raw NAME [MODE]: the collector's data files that match NAME less its
// four-letter type prefix, each behind a 10-byte packet and its name, then a
// closing packet. Stored under their own names in the -o directory, else
// listed. Mode 1 asks with opcode 13 instead of 8; the answer is the same.
int run_raw(Session& s, const Args& a) {
  const std::string& name = a[0];
  long mode = 0;
  if (a.size() > 1 && !parse_int(a[1], 0, 1, mode)) return bad_argument(s, "MODE " + a[1]);
  Request r(mode == 0 ? 8 : 13);
  r.put_short(2, static_cast<int>(name.size()));
  Status st = connect_and_send(s, r);
  if (st.ok()) st = s.connection.send_bytes(bytes_of(name));
  if (!st.ok()) return fail(s, st);
  JsonArray listed;
  for (int files = 0;; ++files) {
    std::array<unsigned char, 10> item{};
    const int code = [&] {
      st = s.connection.read_exact(std::span(item).first(8));
      return st.ok() ? kova::Packet_CheckOPCODE(item) : -1;
    }();
    if (code == kova::kPacketErr) return fail(s, kova::client::error_packet(item));
    if (st.ok()) st = s.connection.read_exact(std::span(item).subspan(8));
    if (!st.ok()) return fail(s, st);
    if (code == 4) {  // the closing packet
      if (files == 0) s.out.say("no files\n");
      s.out.field_json("files", listed.str());
      return kExitOk;
    }
    if (code != 3)
      return fail(s, Status{kova::client::Error::kBadReply, 0, "unexpected packet " + std::to_string(code)});
    const int64_t size = static_cast<int64_t>(kova::Packet_CheckLONG(item, 2)) * 522 +
                         static_cast<uint16_t>(kova::Packet_CheckOPCODE(item, 6));
    if (size < 0 || static_cast<uint64_t>(size) > kova::client::kDefaultReplyMax)
      return fail(s, Status{kova::client::Error::kBadReply, 0, "bad file size " + std::to_string(size)});
    std::string file_name(static_cast<size_t>(kova::Packet_CheckOPCODE(item, 8)), '\0');
    if (st = s.connection.read_exact(std::span(reinterpret_cast<unsigned char*>(file_name.data()), file_name.size()));
        !st.ok())
      return fail(s, st);
    if (file_name.find('/') != std::string::npos || file_name == "." || file_name == "..")
      return fail(s, Status{kova::client::Error::kBadReply, 0, "bad file name from the agent"});
    std::vector<unsigned char> bytes(static_cast<size_t>(size));
    if (st = s.connection.read_exact(bytes); !st.ok()) return fail(s, st);
    JsonObject entry;
    entry.add("name", file_name).add("bytes", size);
    if (s.options.out_path.empty()) {
      s.out.say("%s: %lld bytes\n", file_name.c_str(), static_cast<long long>(size));
      listed.add_json(entry.str());
      continue;
    }
    const std::string path = s.options.out_path + "/" + file_name;
    if (!store(path, bytes)) return fail(s, Status{kova::client::Error::kLocalFile, 0, "cannot write " + path});
    s.out.say("%s: %lld bytes written\n", path.c_str(), static_cast<long long>(size));
    listed.add_json(entry.add("path", path).str());
  }
}

// appdata PATTERN_PATH, with -d DAY, -x SUFFIX, -P DAYS: the files of a
// registered application directory whose names hold the pattern (and the
// day in one of the agent's date styles, and the suffix), stored in the -o
// directory (default the current one) under their sent names. -P purges
// the pattern's files older than DAYS + 1 days afterwards.
int run_appdata(Session& s, const Args& a) {
  kova::client::AppDataQuery query;
  query.day = today("00:00");
  if (s.options.day) {
    query.day = *s.options.day;
    if (query.day.size() == 11) query.day += ":00:00";  // DD-Mon-YYYY
    if (query.day.size() != 17) return bad_argument(s, "DAY " + *s.options.day + " (DD-Mon-YYYY[:HH:MM])");
    query.by_day = true;
  }
  if (s.options.suffix) {
    query.suffix = s.options.suffix;
    if (query.suffix->empty() || query.suffix->size() > 12)
      return bad_argument(s, "SUFFIX " + *s.options.suffix + " (1 to 12 bytes)");
  }
  query.purge = s.options.purge_days;
  query.pattern_path = a[0];
  const std::string out_dir = s.options.out_path.empty() ? "." : s.options.out_path;
  Status st = Connection::open(s.options.host, s.options.port, s.connection, s.options.timeout_ms);
  std::vector<std::string> names;
  if (st.ok()) st = kova::client::fetch_appdata(s.connection, query, out_dir, names);
  JsonArray paths;
  for (const std::string& name : names) {
    s.out.say("%s/%s\n", out_dir.c_str(), name.c_str());
    paths.add_json(kova::client::json_string(out_dir + "/" + name));
  }
  s.out.field_json("files", paths.str());
  if (!st.ok()) return fail(s, st);
  s.out.say("%zu file%s written\n", names.size(), names.size() == 1 ? "" : "s");
  return kExitOk;
}

// The small answers: a 32-byte text field after the acknowledgement.
int text_answer(Session& s, const char* tag, std::string_view payload, const char* what) {
  std::array<unsigned char, 32> field{};
  Status st = ext_request(s, tag, payload, kova::kResultOk);
  if (st.ok()) st = s.connection.read_exact(field);
  if (!st.ok()) return fail_after_raw(s, st);
  // The field as the agent filled it, up to its first NUL.
  const std::string text(reinterpret_cast<const char*>(field.data()), 32);
  if (!print_raw(s)) s.out.say("%s: %s\n", what, text.c_str());
  s.out.field("what", what);
  s.out.field("text", std::string_view(text.c_str()));
  return kExitOk;
}

int run_agentversion(Session& s, const Args&) { return text_answer(s, "GET_AGENT_VERSION", "", "agent version"); }
int run_release(Session& s, const Args&) { return text_answer(s, "GET_AGENT_RELEASE", "", "agent release"); }
int run_agentos(Session& s, const Args&) { return text_answer(s, "GET_AGENT_OS", "", "operating system"); }
int run_diskspace(Session& s, const Args& a) { return text_answer(s, "<DISKSPACE>", a[0], "free megabytes"); }

int run_memorynode(Session& s, const Args&) {
  Status st = ext_request(s, "MEMORY_NODE", "", kova::kResultMemoryNode);
  if (!st.ok()) return fail_after_raw(s, st);
  if (!print_raw(s)) s.out.say("status: %s\n", kova::client::extended_status_words(kova::kResultMemoryNode).c_str());
  s.out.field("status", static_cast<int>(kova::kResultMemoryNode));
  s.out.field("status_text", kova::client::extended_status_words(kova::kResultMemoryNode));
  return kExitOk;
}

// sysconfig HOST: the configuration report of this host or of a node.
int run_sysconfig(Session& s, const Args& a) {
  Status st = ext_request(s, "SYSCONFIG_NODE", a[0], kova::kResultOk);
  if (!st.ok()) return fail(s, st);
  return take_file(s, "configuration report");
}

// perfnode HOST [OS [START END [AGE]]]: performance data of a node's day.
int run_perfnode(Session& s, const Args& a) {
  const std::string os = a.size() > 1 ? a[1] : "";
  const std::string start = a.size() > 2 ? a[2] : today("00:00");
  const std::string end = a.size() > 3 ? a[3] : today("23:59");
  long age = 14;
  if (a.size() > 4 && !parse_int(a[4], -32768, 32767, age)) return bad_argument(s, "AGE " + a[4]);
  const std::string age_field{static_cast<char>(age & 0xff), static_cast<char>((age >> 8) & 0xff)};
  return ext_file(s, "PERF_NODE", fields({start, end}, 18) + age_field + fields({a[0]}, 32) + os, "performance data");
}

// A node request that the agent cannot read (a field too long or missing,
// a host name that is no file name) is answered with the acknowledgement
// alone: the connection closes where the reply would be. That is the
// agent's refusal, reported as one with the bad-packet code.
Status read_node_reply(Session& s, const char* tag, std::span<unsigned char> reply) {
  size_t got = 0;
  Status st = s.connection.read_upto(reply, got);
  if (!st.ok()) return st;
  if (got == 0)
    return Status{kova::client::Error::kErrorPacket, kova::kResultBadPacket,
                  std::string("agent closed without answering ") + tag + ": " +
                      kova::result_text(kova::kResultBadPacket) + " (the agent log says which field)"};
  if (got < reply.size())
    return Status{kova::client::Error::kShortReply, 0,
                  "short reply: " + std::to_string(got) + " of " + std::to_string(reply.size()) + " bytes"};
  return st;
}

// dcstatnode HOST OS DNS: the collector's state for a node. An OS text
// containing "ESX" asks after the virtual host's collector.
int run_dcstatnode(Session& s, const Args& a) {
  std::array<unsigned char, kova::kDcStatSize> reply{};
  Status st = ext_request(s, "DCSTAT_NODE", fields(a, 64), kova::kResultOk);
  if (st.ok()) st = read_node_reply(s, "DCSTAT_NODE", reply);
  kova::client::DcStat d;
  if (st.ok() && !kova::client::decode_dcstat(reply, d))
    st = Status{kova::client::Error::kBadReply, 0, "not a status packet"};
  if (!st.ok()) return fail_after_raw(s, st);
  if (print_raw(s)) return kExitOk;
  s.out.say("data collector on %s: %s, interval %d s, peak interval %d s\n", a[0].c_str(),
            kova::client::component_status_words(d.dc_status).c_str(), d.dc_interval, d.peak_seconds);
  s.out.field("host", a[0]);
  s.out.field("collector_interval_s", d.dc_interval);
  s.out.field("peak_interval_s", d.peak_seconds);
  return component_state(s, "collector_", d.dc_status);
}

// dcstopnode HOST OS, dcstartnode HOST OS IP DUMP PEAK: the collector's
// state afterwards, a 4-byte status in 8 bytes.
int node_control(Session& s, const char* tag, const Args& a) {
  std::array<unsigned char, kova::kNodeStatusSize> reply{};
  Status st = ext_request(s, tag, fields(a, 64), kova::kResultOk);
  if (st.ok()) st = read_node_reply(s, tag, reply);
  if (!st.ok()) return fail_after_raw(s, st);
  if (print_raw(s)) return kExitOk;
  const int status = kova::Packet_CheckLONG(reply);
  s.out.say("data collector on %s: %s\n", a[0].c_str(), kova::client::component_status_words(status).c_str());
  s.out.field("host", a[0]);
  return component_state(s, "collector_", status);
}

int run_dcstopnode(Session& s, const Args& a) { return node_control(s, "DCSTOP_NODE", a); }
int run_dcstartnode(Session& s, const Args& a) { return node_control(s, "DCSTART_NODE", a); }

// update FILE DIRECTORY: FILE as an update archive for DIRECTORY on the
// agent's host; prints the agent's answers. FAIL is the agent's refusal.
int run_update(Session& s, const Args& a) {
  kova::client::UpdateReplies replies;
  Status st = Connection::open(s.options.host, s.options.port, s.connection, s.options.timeout_ms);
  if (st.ok()) st = s.connection.push_update_file(a[0], a[1], replies);
  if (!st.ok()) return fail(s, st);
  for (const auto& [key, reply] : {std::pair{"ack", replies.ack}, std::pair{"verdict", replies.verdict}}) {
    if (reply.empty()) continue;
    const std::string line = reply.substr(0, reply.size() - 2);
    s.out.say("%s\n", line.c_str());
    s.out.field(key, line);
  }
  if (replies.passed()) return kExitOk;
  return fail(s, Status{kova::client::Error::kErrorPacket, 0, "the agent did not take the update"});
}

// checksum FILE: the update checksum of FILE, as the agent computes it.
int run_checksum(Session& s, const Args& a) {
  std::string text;
  if (kova::Rijndael_Checksum_Text(a[0], text) != 1)
    return fail(s, Status{kova::client::Error::kLocalFile, 0, "cannot read " + a[0]});
  s.out.say("%s\n", text.c_str());
  s.out.field("file", a[0]);
  s.out.field("checksum", text);
  return kExitOk;
}

struct Command {
  const char* name;
  const char* args;  // each argument's type is in kArguments
  size_t min_args;
  size_t max_args;
  const char* help;
  int (*run)(Session&, const Args&);
};

constexpr Command kCommands[] = {
    {"version", "", 0, 0, "agent protocol version (opcode 14)", run_version},
    {"os", "", 0, 0, "operating-system id (opcode 16)", run_os},
    {"status", "", 0, 0, "collector and real-time agent status (opcode 6)", run_status},
    {"terminate", "", 0, 0, "end the agent's request process, or a -nofork agent (opcode 7)", run_terminate},
    {"memory", "FILE", 1, 1, "send FILE as the memory file (opcode 2)", run_memory},
    {"dcstart", "DUMP PEAK", 2, 2, "start the data collector (opcode 3)", run_dcstart},
    {"dcstop", "", 0, 0, "stop the data collector (opcode 4)", run_dcstop},
    {"rtastart", "PROCESS PORT SCANRATE", 3, 3, "start the real-time agent (opcode 9)", run_rtastart},
    {"rtastop", "", 0, 0, "stop the real-time agent (opcode 10)", run_rtastop},
    {"sorlexstart", "", 0, 0, "start the search agent (opcode 18)", run_sorlexstart},
    {"sorlexstop", "", 0, 0, "stop the search agent (opcode 19)", run_sorlexstop},
    {"sorlexstatus", "", 0, 0, "search agent status (opcode 20)", run_sorlexstatus},
    {"perf", "[START END [AGE]]", 0, 3, "performance data of a time range, default today (opcode 1)", run_perf},
    {"raw", "NAME [MODE]", 1, 2, "the collector's raw data files matching NAME (opcode 8, mode 1: 13; -o: a directory)",
     run_raw},
    {"merge", "[START END]", 0, 2, "the merged report of a time range, default today (<MERG>)", run_merge},
    {"appdata", "[-d DAY] [-x SUFFIX] [-P DAYS] PATTERN_PATH", 1, 1,
     "files of a registered application directory into -o, default . (<APPDATA>)", run_appdata},
    {"config", "", 0, 0, "the system configuration report (opcode 15)", run_config},
    {"agentversion", "", 0, 0, "the agent's version text (GET_AGENT_VERSION)", run_agentversion},
    {"release", "", 0, 0, "the agent's release text (GET_AGENT_RELEASE)", run_release},
    {"agentos", "", 0, 0, "the agent's operating-system text (GET_AGENT_OS)", run_agentos},
    {"diskspace", "PATH", 1, 1, "free megabytes of the file system holding PATH (<DISKSPACE>)", run_diskspace},
    {"sysconfig", "HOST", 1, 1, "the configuration report of HOST (SYSCONFIG_NODE)", run_sysconfig},
    {"perfnode", "HOST [OS [START END [AGE]]]", 1, 5, "performance data of a node, default today (PERF_NODE)",
     run_perfnode},
    {"dcstatnode", "HOST OS DNS", 3, 3, "the data collector's state on a node (DCSTAT_NODE)", run_dcstatnode},
    {"dcstopnode", "HOST OS", 2, 2, "stop the data collector of a node (DCSTOP_NODE)", run_dcstopnode},
    {"dcstartnode", "HOST OS IP DUMP PEAK", 5, 5, "start the data collector of a node (DCSTART_NODE)", run_dcstartnode},
    {"memorynode", "", 0, 0, "the memory-node request (MEMORY_NODE)", run_memorynode},
    {"opcode", "N", 1, 1, "send a bare request with opcode N; print the reply raw (-o: store a file)", run_opcode},
    {"ext", "TAG [PAYLOAD]", 1, 2, "send an extended request (opcode 254)", run_ext},
    {"update", "FILE DIRECTORY", 2, 2, "send FILE as an update to unpack in DIRECTORY (<UPDATE_DATA>)", run_update},
    {"checksum", "FILE", 1, 1, "print the update checksum of FILE (no request)", run_checksum},
};

// What each argument of kCommands is.
struct Argument {
  const char* name;
  const char* type;
};

constexpr Argument kArguments[] = {
    {"START END", "time, DD-Mon-YYYY:HH:MM in the agent's local time, e.g. 05-Mar-2024:13:30"},
    {"AGE", "days, integer -32768..32767 (default 14): older data files are purged afterwards"},
    {"DUMP", "collector dump interval in seconds, integer -32768..32767 (the agent makes 0..60000 of it)"},
    {"PEAK", "peak interval in seconds, integer -32768..32767 (the agent makes 0..60 of it)"},
    {"PROCESS", "integer -32768..32767, passed to the real-time agent"},
    {"PORT", "integer, the real-time agent's port"},
    {"SCANRATE", "integer, the real-time agent's scan rate"},
    {"FILE", "a local file"},
    {"PATH", "a path on the agent's host"},
    {"NAME", "text: a data-file name whose first four letters are its type"},
    {"MODE", "0 or 1 (default 0)"},
    {"HOST OS", "text: a node's host name and operating system"},
    {"DNS IP", "text: a node's DNS name and address"},
    {"N", "opcode, integer -32768..32767"},
    {"TAG", "text, up to 37 bytes"},
    {"PAYLOAD", "text, up to 2048 bytes"},
    {"PATTERN_PATH", "a registered directory, \"/\", then a name pattern (\"*\" ends it)"},
    {"DAY", "DD-Mon-YYYY or DD-Mon-YYYY:HH:MM"},
    {"SUFFIX", "text, 1 to 12 bytes"},
    {"DAYS", "days, integer -32768..32767"},
    {"DIRECTORY", "an absolute directory on the agent's host"},
};

void usage(std::FILE* to) {
  std::fprintf(to,
               "usage: kovaget [options] COMMAND [ARGS]\n"
               "Asks a KOVA host agent one thing, as the central server would.\n"
               "options (anywhere on the line; -- ends them):\n"
               "  -s, --host HOST        the agent's IPv4 address or host name (default %s)\n"
               "  -p, --port PORT        the agent's port, 1..65535 (default %d)\n"
               "  -t, --timeout SECONDS  the longest wait for each reply, 1..86400 (default %d: the agent\n"
               "                         pauses 2 s in every extended request and 10 s before\n"
               "                         performance, raw and merge data, then works)\n"
               "  -o, --output PATH      store a transferred file at PATH (raw, appdata: a directory)\n"
               "  -d, --day DAY          appdata: only files of DAY, DD-Mon-YYYY[:HH:MM]\n"
               "  -x, --suffix SUFFIX    appdata: only names holding SUFFIX, 1 to 12 bytes\n"
               "  -P, --purge DAYS       appdata: then purge the pattern's files older than DAYS + 1 days\n"
               "      --raw              print the received bytes as a hex dump\n"
               "      --json             print one JSON object (bytes outside printable ASCII as \\u00XX)\n"
               "  -V, --version          print kovaget's version\n"
               "  -h, --help             print this help\n"
               "commands:\n",
               kova::client::kDefaultHost, kDefaultPort, kDefaultTimeoutMs / 1000);
  size_t width = 0;
  for (const Command& c : kCommands) width = std::max(width, std::strlen(c.name) + 1 + std::strlen(c.args));
  for (const Command& c : kCommands) {
    std::string head = std::string(c.name) + (c.args[0] != '\0' ? std::string(" ") + c.args : "");
    std::fprintf(to, "  %-*s  %s\n", static_cast<int>(width), head.c_str(), c.help);
  }
  std::fprintf(to, "arguments:\n");
  for (const Argument& a : kArguments) std::fprintf(to, "  %-9s  %s\n", a.name, a.type);
  std::fprintf(to,
               "exit status: 0 done, 1 no reply or a failed exchange, 2 a usage error, 3 the agent refused\n"
               "the request, 4 the agent reported an unknown status\n");
}

// Ends the run: with --json, prints the one object.
int finish(Session& s, const std::string& command, int status) {
  if (s.out.json()) {
    JsonObject result;
    result.add("command", command).merge(s.out.fields()).add("ok", status == kExitOk).add("exit_status", status);
    std::printf("%s\n", result.str().c_str());
    std::fflush(stdout);
  }
  return status;
}

int usage_error(Session& s, const std::string& command, const std::string& message) {
  if (!message.empty()) std::fprintf(stderr, "kovaget: %s\n", message.c_str());
  usage(stderr);
  s.out.field("error", "usage");
  s.out.field("message", message);
  return finish(s, command, kExitUsage);
}

}  // namespace

int main(int argc, char** argv) {
  Session session;
  Options& o = session.options;
  // --json decides the form of every answer, usage errors included.
  for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i)
    if (std::strcmp(argv[i], "--json") == 0) o.json = true;
  session.out = Output(o.json);

  enum { kRaw = 256, kJson };
  static const option kLong[] = {
      {"host", required_argument, nullptr, 's'}, {"port", required_argument, nullptr, 'p'},
      {"timeout", required_argument, nullptr, 't'}, {"output", required_argument, nullptr, 'o'},
      {"raw", no_argument, nullptr, kRaw},       {"json", no_argument, nullptr, kJson},
      {"day", required_argument, nullptr, 'd'},   {"suffix", required_argument, nullptr, 'x'},
      {"purge", required_argument, nullptr, 'P'},
      {"version", no_argument, nullptr, 'V'},     {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  for (int c; (c = getopt_long(argc, argv, "s:p:t:o:d:x:P:Vh", kLong, nullptr)) != -1;) {
    long v = 0;
    switch (c) {
      case 's': o.host = optarg; break;
      case 'p':
        if (!parse_int(optarg, 1, 65535, v)) return usage_error(session, "", std::string("bad port ") + optarg);
        o.port = static_cast<int>(v);
        break;
      case 't':
        if (!parse_int(optarg, 1, 86400, v)) return usage_error(session, "", std::string("bad timeout ") + optarg);
        o.timeout_ms = static_cast<int>(v * 1000);
        break;
      case 'o': o.out_path = optarg; break;
      case 'd': o.day = optarg; break;
      case 'x': o.suffix = optarg; break;
      case 'P':
        if (!parse_int(optarg, -32768, 32767, v)) return usage_error(session, "", std::string("bad DAYS ") + optarg);
        o.purge_days = static_cast<int>(v);
        break;
      case kRaw: o.raw = true; break;
      case kJson: break;
      case 'V':
        if (o.json)
          std::printf("{\"program\":\"kovaget\",\"version\":\"%s\"}\n", KOVA_VERSION);
        else
          std::printf("kovaget %s\n", KOVA_VERSION);
        return kExitOk;
      case 'h': usage(stdout); return kExitOk;
      default: return usage_error(session, "", "");  // getopt has said what
    }
  }
  if (optind >= argc) return usage_error(session, "", "no command");
  const std::string name = argv[optind];
  const Args args(argv + optind + 1, argv + argc);
  for (const Command& c : kCommands) {
    if (name != c.name) continue;
    if (args.size() < c.min_args || args.size() > c.max_args)
      return usage_error(session, name, std::string("usage: ") + c.name + " " + c.args);
    return finish(session, name, c.run(session, args));
  }
  return usage_error(session, name, "unknown command " + name);
}
