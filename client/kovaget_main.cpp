// kovaget: asks a running agent one thing, as the central server would, and
// prints the answer in plain words (or as a hex dump with --raw).
//
//   kovaget [-s host] [-p port] [-t seconds] [--raw] [-o path] COMMAND [ARGS]
//
// Each command is one row of kCommands: a new request type is a new row
// and a small function built from the client library's calls.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "kova_client.h"
#include "replies.h"
#include "base/codes.h"
#include "update/checksum.h"

namespace {

using kova::client::Connection;
using kova::client::Request;
using kova::client::Status;

constexpr int kDefaultPort = 1661;
constexpr size_t kRecordLimit = 1u << 20;

struct Options {
  std::string host = kova::client::kDefaultHost;
  int port = kDefaultPort;
  int timeout_ms = kova::client::kDefaultTimeoutMs;
  bool raw = false;
  std::string out_path;
};

using Args = std::vector<std::string>;

struct Session {
  Options options;
  Connection connection;
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

int fail(const Status& st) {
  std::fprintf(stderr, "kovaget: %s\n", st.message.c_str());
  return st.error == kova::client::Error::kErrorPacket ? 3 : 1;
}

int bad_argument(const std::string& what) {
  std::fprintf(stderr, "kovaget: bad argument: %s\n", what.c_str());
  return 2;
}

// The received bytes as a hex dump; true when --raw asked for that instead
// of words.
bool print_raw(Session& s) {
  if (!s.options.raw) return false;
  std::fputs(kova::client::hex_dump(s.connection.transcript()).c_str(), stdout);
  if (s.connection.transcript().size() >= kRecordLimit) std::printf("(first %zu bytes shown)\n", kRecordLimit);
  return true;
}

// On a failure, what did arrive is still shown when --raw asked for it.
int fail_after_raw(Session& s, const Status& st) {
  print_raw(s);
  return fail(st);
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
  if (!print_raw(s) && kova::client::decode_version(reply, v)) std::printf("agent protocol version %d.%d\n", v.major, v.minor);
  return 0;
}

int run_os(Session& s, const Args&) {
  std::array<unsigned char, kova::kOsSize> reply{};
  Status st = simple_exchange(s, Request(16), -1, reply);
  if (!st.ok()) return fail_after_raw(s, st);
  int32_t id = 0;
  if (!print_raw(s) && kova::client::decode_os(reply, id)) std::printf("operating-system id %d\n", id);
  return 0;
}

int run_status(Session& s, const Args&) {
  std::array<unsigned char, kova::kDcStatSize> reply{};
  Status st = simple_exchange(s, Request(6), kova::kPacketDcStat, reply);
  if (!st.ok()) return fail_after_raw(s, st);
  kova::client::DcStat d;
  if (!print_raw(s) && kova::client::decode_dcstat(reply, d)) {
    std::printf("data collector: %s, interval %d s, peak interval %d s\n",
                kova::client::component_status_words(d.dc_status).c_str(), d.dc_interval, d.peak_seconds);
    std::printf("real-time agent: %s\n", kova::client::component_status_words(d.rta_status).c_str());
  }
  return 0;
}

// Start, stop and status requests of the components: one STARTSTOP reply.
int run_startstop(Session& s, const Request& request, const char* component) {
  std::array<unsigned char, kova::kStartStopSize> reply{};
  Status st = simple_exchange(s, request, kova::kPacketStartStop, reply);
  if (!st.ok()) return fail_after_raw(s, st);
  int status = 0;
  if (!print_raw(s) && kova::client::decode_startstop(reply, status))
    std::printf("%s: %s\n", component, kova::client::component_status_words(status).c_str());
  return 0;
}

int run_dcstart(Session& s, const Args& a) {
  long dump = 0, peak = 0;
  if (!parse_int(a[0], -32768, 32767, dump)) return bad_argument("DUMP " + a[0]);
  if (!parse_int(a[1], -32768, 32767, peak)) return bad_argument("PEAK " + a[1]);
  Request r(3);
  r.put_short(2, static_cast<int>(dump)).put_short(4, static_cast<int>(peak));
  return run_startstop(s, r, "data collector");
}

int run_rtastart(Session& s, const Args& a) {
  long process = 0, port = 0, rate = 0;
  if (!parse_int(a[0], -32768, 32767, process)) return bad_argument("PROCESS " + a[0]);
  if (!parse_int(a[1], INT32_MIN, INT32_MAX, port)) return bad_argument("PORT " + a[1]);
  if (!parse_int(a[2], INT32_MIN, INT32_MAX, rate)) return bad_argument("SCANRATE " + a[2]);
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
  if (!print_raw(s)) std::printf("terminate sent; the agent closed the connection\n");
  return 0;
}

int run_memory(Session& s, const Args& a) {
  std::vector<unsigned char> file;
  if (!kova::client::read_local_file(a[0], file)) {
    std::fprintf(stderr, "kovaget: cannot read %s: %s\n", a[0].c_str(), std::strerror(errno));
    return 1;
  }
  Status st = connect_and_send(s, Request(2));
  if (st.ok()) st = s.connection.push_memory_file(file);
  if (!st.ok()) return fail_after_raw(s, st);
  if (!print_raw(s)) std::printf("memory file %s sent (%zu bytes)\n", a[0].c_str(), file.size());
  return 0;
}

// Prints or stores whatever follows: into -o when given, else as hex.
int deliver_rest(Session& s, std::span<const unsigned char> rest) {
  if (!s.options.out_path.empty()) {
    std::FILE* f = std::fopen(s.options.out_path.c_str(), "wb");
    bool ok = f != nullptr && std::fwrite(rest.data(), 1, rest.size(), f) == rest.size();
    if (f != nullptr && std::fclose(f) != 0) ok = false;
    if (!ok) {
      std::fprintf(stderr, "kovaget: cannot write %s\n", s.options.out_path.c_str());
      return 1;
    }
    std::printf("%zu bytes written to %s\n", rest.size(), s.options.out_path.c_str());
  } else if (!rest.empty()) {
    std::fputs(kova::client::hex_dump(rest).c_str(), stdout);
  }
  return 0;
}

// Any opcode; the reply is shown raw. With -o the reply is taken as a
// transferred file (INF header, then the bytes) and stored there.
int run_opcode(Session& s, const Args& a) {
  long opcode = 0;
  if (!parse_int(a[0], -32768, 32767, opcode)) return bad_argument("opcode " + a[0]);
  Status st = connect_and_send(s, Request(static_cast<int>(opcode)));
  if (!st.ok()) return fail(st);
  if (!s.options.out_path.empty()) {
    kova::client::TransferInfo info;
    st = s.connection.receive_file_to_path(s.options.out_path, info);
    if (!st.ok()) return fail(st);
    std::printf("%lld bytes (%d blocks + %d) written to %s\n", static_cast<long long>(info.size()), info.blocks,
                info.last, s.options.out_path.c_str());
    return 0;
  }
  std::vector<unsigned char> reply;
  st = s.connection.read_to_end(reply);
  if (!st.ok()) return fail(st);
  if (reply.empty()) std::printf("(no reply)\n");
  std::fputs(kova::client::hex_dump(reply).c_str(), stdout);
  return 0;
}

int run_ext(Session& s, const Args& a) {
  const std::string payload = a.size() > 1 ? a[1] : "";
  Status st = Connection::open(s.options.host, s.options.port, s.connection, s.options.timeout_ms);
  if (!st.ok()) return fail(st);
  s.connection.record(kRecordLimit);
  st = s.connection.send_extended(a[0], bytes_of(payload));
  std::vector<unsigned char> reply;
  if (st.ok()) st = s.connection.read_to_end(reply);
  if (!st.ok()) return fail_after_raw(s, st);
  if (print_raw(s)) return 0;
  // Every extended request the agent takes is answered; silence is a refusal.
  if (reply.size() < kova::kStatusSize)
    return fail(Status{kova::client::Error::kShortReply, 0,
                       "short reply: " + std::to_string(reply.size()) + " of 8 bytes before the agent closed"});
  const int status = kova::Packet_CheckOPCODE(reply);
  if (status == kova::kPacketErr) return fail(kova::client::error_packet(reply));
  std::printf("status: %s\n", kova::client::extended_status_words(status).c_str());
  return deliver_rest(s, std::span(reply).subspan(kova::kStatusSize));
}

// A transferred file: stored with -o, else written to standard output. A
// file the agent could not send comes as an empty transfer followed by an
// ERR packet, which makes this a failure.
int take_file(Session& s, const char* what) {
  kova::client::TransferInfo info;
  std::vector<unsigned char> bytes;
  Status st = s.options.out_path.empty() ? s.connection.receive_file_to_buffer(bytes, info)
                                         : s.connection.receive_file_to_path(s.options.out_path, info);
  if (st.ok()) st = s.connection.read_verdict();
  if (!st.ok()) return fail(st);
  if (s.options.out_path.empty())
    std::fwrite(bytes.data(), 1, bytes.size(), stdout);
  else
    std::printf("%s: %lld bytes written to %s\n", what, static_cast<long long>(info.size()), s.options.out_path.c_str());
  return 0;
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
  if (!st.ok()) return fail(st);
  return take_file(s, what);
}

// perf [START END [AGE]]: the extracted performance data of a time range
// (default: today). The agent waits ten seconds before it answers.
int run_perf(Session& s, const Args& a) {
  const std::string start = a.size() > 0 ? a[0] : today("00:00");
  const std::string end = a.size() > 1 ? a[1] : today("23:59");
  long age = 14;
  if (a.size() > 2 && !parse_int(a[2], -32768, 32767, age)) return bad_argument("AGE " + a[2]);
  Request r(1);
  r.put_text(2, start, 18).put_text(20, end, 18).put_short(38, static_cast<int>(age));
  Status st = connect_and_send(s, r);
  if (!st.ok()) return fail(st);
  return take_file(s, "performance data");
}

int run_config(Session& s, const Args&) {
  Status st = connect_and_send(s, Request(15));
  if (!st.ok()) return fail(st);
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
  if (a.size() > 1 && !parse_int(a[1], 0, 1, mode)) return bad_argument("MODE " + a[1]);
  Request r(mode == 0 ? 8 : 13);
  r.put_short(2, static_cast<int>(name.size()));
  Status st = connect_and_send(s, r);
  if (st.ok()) st = s.connection.send_bytes(bytes_of(name));
  if (!st.ok()) return fail(st);
  for (int files = 0;; ++files) {
    std::array<unsigned char, 10> item{};
    const int code = [&] {
      st = s.connection.read_exact(std::span(item).first(8));
      return st.ok() ? kova::Packet_CheckOPCODE(item) : -1;
    }();
    if (code == kova::kPacketErr) return fail(kova::client::error_packet(item));
    if (st.ok()) st = s.connection.read_exact(std::span(item).subspan(8));
    if (!st.ok()) return fail(st);
    if (code == 4) {  // the closing packet
      if (files == 0) std::printf("no files\n");
      return 0;
    }
    if (code != 3) return fail(Status{kova::client::Error::kBadReply, 0, "unexpected packet " + std::to_string(code)});
    const int64_t size = static_cast<int64_t>(kova::Packet_CheckLONG(item, 2)) * 522 +
                         static_cast<uint16_t>(kova::Packet_CheckOPCODE(item, 6));
    if (size < 0 || static_cast<uint64_t>(size) > kova::client::kDefaultReplyMax)
      return fail(Status{kova::client::Error::kBadReply, 0, "bad file size " + std::to_string(size)});
    std::string file_name(static_cast<size_t>(kova::Packet_CheckOPCODE(item, 8)), '\0');
    if (st = s.connection.read_exact(std::span(reinterpret_cast<unsigned char*>(file_name.data()), file_name.size()));
        !st.ok())
      return fail(st);
    if (file_name.find('/') != std::string::npos || file_name == "." || file_name == "..")
      return fail(Status{kova::client::Error::kBadReply, 0, "bad file name from the agent"});
    std::vector<unsigned char> bytes(static_cast<size_t>(size));
    if (st = s.connection.read_exact(bytes); !st.ok()) return fail(st);
    if (s.options.out_path.empty()) {
      std::printf("%s: %lld bytes\n", file_name.c_str(), static_cast<long long>(size));
      continue;
    }
    const std::string path = s.options.out_path + "/" + file_name;
    std::FILE* f = std::fopen(path.c_str(), "wb");
    bool ok = f != nullptr && std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    if (f != nullptr && std::fclose(f) != 0) ok = false;
    if (!ok) return fail(Status{kova::client::Error::kLocalFile, 0, "cannot write " + path});
    std::printf("%s: %lld bytes written\n", path.c_str(), static_cast<long long>(size));
  }
}

// appdata [-d DAY] [-x SUFFIX] [-P DAYS] PATTERN_PATH: the files of a
// registered application directory whose names hold the pattern (and the
// day in one of the agent's date styles, and the suffix), stored in the -o
// directory (default the current one) under their sent names. -P purges
// the pattern's files older than DAYS + 1 days afterwards.
int run_appdata(Session& s, const Args& a) {
  kova::client::AppDataQuery query;
  query.day = today("00:00");
  for (size_t i = 0; i < a.size(); ++i) {
    const bool has_value = i + 1 < a.size();
    long days = 0;
    if (a[i] == "-d" && has_value) {
      query.day = a[++i];
      if (query.day.size() == 11) query.day += ":00:00";  // DD-Mon-YYYY
      if (query.day.size() != 17) return bad_argument("DAY " + a[i] + " (DD-Mon-YYYY[:HH:MM])");
      query.by_day = true;
    } else if (a[i] == "-x" && has_value) {
      query.suffix = a[++i];
      if (query.suffix->empty() || query.suffix->size() > 12) return bad_argument("SUFFIX " + a[i] + " (1 to 12 bytes)");
    } else if (a[i] == "-P" && has_value && parse_int(a[i + 1], -32768, 32767, days)) {
      query.purge = static_cast<int>(days);
      ++i;
    } else if (a[i].starts_with('-') || !query.pattern_path.empty()) {
      return bad_argument(a[i]);
    } else {
      query.pattern_path = a[i];
    }
  }
  if (query.pattern_path.empty()) return bad_argument("PATTERN_PATH missing");
  const std::string out_dir = s.options.out_path.empty() ? "." : s.options.out_path;
  Status st = Connection::open(s.options.host, s.options.port, s.connection, s.options.timeout_ms);
  std::vector<std::string> names;
  if (st.ok()) st = kova::client::fetch_appdata(s.connection, query, out_dir, names);
  for (const std::string& name : names) std::printf("%s/%s\n", out_dir.c_str(), name.c_str());
  if (!st.ok()) return fail(st);
  std::printf("%zu file%s written\n", names.size(), names.size() == 1 ? "" : "s");
  return 0;
}

// The small answers: a 32-byte text field after the acknowledgement.
int text_answer(Session& s, const char* tag, std::string_view payload, const char* what) {
  std::array<unsigned char, 32> field{};
  Status st = ext_request(s, tag, payload, kova::kResultOk);
  if (st.ok()) st = s.connection.read_exact(field);
  if (!st.ok()) return fail_after_raw(s, st);
  if (!print_raw(s))
    std::printf("%s: %s\n", what, std::string(reinterpret_cast<const char*>(field.data()), 32).c_str());
  return 0;
}

int run_agentversion(Session& s, const Args&) { return text_answer(s, "GET_AGENT_VERSION", "", "agent version"); }
int run_release(Session& s, const Args&) { return text_answer(s, "GET_AGENT_RELEASE", "", "agent release"); }
int run_agentos(Session& s, const Args&) { return text_answer(s, "GET_AGENT_OS", "", "operating system"); }
int run_diskspace(Session& s, const Args& a) { return text_answer(s, "<DISKSPACE>", a[0], "free megabytes"); }

int run_memorynode(Session& s, const Args&) {
  Status st = ext_request(s, "MEMORY_NODE", "", kova::kResultMemoryNode);
  if (!st.ok()) return fail_after_raw(s, st);
  if (!print_raw(s)) std::printf("status: %s\n", kova::client::extended_status_words(kova::kResultMemoryNode).c_str());
  return 0;
}

// sysconfig HOST: the configuration report of this host or of a node.
int run_sysconfig(Session& s, const Args& a) {
  Status st = ext_request(s, "SYSCONFIG_NODE", a[0], kova::kResultOk);
  if (!st.ok()) return fail(st);
  return take_file(s, "configuration report");
}

// perfnode HOST [OS [START END [AGE]]]: performance data of a node's day.
int run_perfnode(Session& s, const Args& a) {
  const std::string os = a.size() > 1 ? a[1] : "";
  const std::string start = a.size() > 2 ? a[2] : today("00:00");
  const std::string end = a.size() > 3 ? a[3] : today("23:59");
  long age = 14;
  if (a.size() > 4 && !parse_int(a[4], -32768, 32767, age)) return bad_argument("AGE " + a[4]);
  const std::string age_field{static_cast<char>(age & 0xff), static_cast<char>((age >> 8) & 0xff)};
  return ext_file(s, "PERF_NODE", fields({start, end}, 18) + age_field + fields({a[0]}, 32) + os, "performance data");
}

// dcstatnode HOST OS DNS: the collector's state for a node.
int run_dcstatnode(Session& s, const Args& a) {
  std::array<unsigned char, kova::kDcStatSize> reply{};
  Status st = ext_request(s, "DCSTAT_NODE", fields(a, 64), kova::kResultOk);
  if (st.ok()) st = s.connection.read_reply(reply, kova::kPacketDcStat);
  if (!st.ok()) return fail_after_raw(s, st);
  kova::client::DcStat d;
  if (!print_raw(s) && kova::client::decode_dcstat(reply, d))
    std::printf("data collector on %s: %s, interval %d s, peak interval %d s\n", a[0].c_str(),
                kova::client::component_status_words(d.dc_status).c_str(), d.dc_interval, d.peak_seconds);
  return 0;
}

// dcstopnode HOST OS, dcstartnode HOST OS IP DUMP PEAK: the collector's
// state afterwards, a 4-byte status in 8 bytes.
int node_control(Session& s, const char* tag, const Args& a) {
  std::array<unsigned char, 8> reply{};
  Status st = ext_request(s, tag, fields(a, 64), kova::kResultOk);
  if (st.ok()) st = s.connection.read_exact(reply);
  if (!st.ok()) return fail_after_raw(s, st);
  if (!print_raw(s))
    std::printf("data collector on %s: %s\n", a[0].c_str(),
                kova::client::component_status_words(kova::Packet_CheckLONG(reply)).c_str());
  return 0;
}

int run_dcstopnode(Session& s, const Args& a) { return node_control(s, "DCSTOP_NODE", a); }
int run_dcstartnode(Session& s, const Args& a) { return node_control(s, "DCSTART_NODE", a); }

// update FILE DIRECTORY: FILE as an update archive for DIRECTORY on the
// agent's host; prints the agent's answers. Exit 0 on PASS.
int run_update(Session& s, const Args& a) {
  kova::client::UpdateReplies replies;
  Status st = Connection::open(s.options.host, s.options.port, s.connection, s.options.timeout_ms);
  if (st.ok()) st = s.connection.push_update_file(a[0], a[1], replies);
  if (!st.ok()) return fail(st);
  for (const std::string& reply : {replies.ack, replies.verdict})
    if (!reply.empty()) std::printf("%s\n", reply.substr(0, reply.size() - 2).c_str());
  return replies.passed() ? 0 : 1;
}

// checksum FILE: the update checksum of FILE, as the agent computes it.
int run_checksum(Session&, const Args& a) {
  std::string text;
  if (kova::Rijndael_Checksum_Text(a[0], text) != 1) {
    std::fprintf(stderr, "kovaget: cannot read %s\n", a[0].c_str());
    return 1;
  }
  std::printf("%s\n", text.c_str());
  return 0;
}

struct Command {
  const char* name;
  const char* args;
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
    {"appdata", "[-d -x -P] PATTERN_PATH", 1, 7,
     "files of a registered application directory into -o, default . (<APPDATA>); -d DAY, -x SUFFIX, -P purge DAYS",
     run_appdata},
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

void usage(std::FILE* to) {
  std::fprintf(to, "usage: kovaget [-s host] [-p port] [-t seconds] [--raw] [-o path] COMMAND [ARGS]\n"
                   "defaults: -s %s -p %d -t %d\ncommands:\n",
               kova::client::kDefaultHost, kDefaultPort, kova::client::kDefaultTimeoutMs / 1000);
  for (const Command& c : kCommands) {
    std::string head = std::string(c.name) + (c.args[0] != '\0' ? std::string(" ") + c.args : "");
    std::fprintf(to, "  %-36s %s\n", head.c_str(), c.help);
  }
}

}  // namespace

int main(int argc, char** argv) {
  Session session;
  Options& o = session.options;
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; ++i) {
    const std::string opt = argv[i];
    const bool has_value = i + 1 < argc;
    long v = 0;
    if (opt == "--raw") {
      o.raw = true;
    } else if (opt == "-h" || opt == "--help") {
      usage(stdout);
      return 0;
    } else if (opt == "-s" && has_value) {
      o.host = argv[++i];
    } else if (opt == "-p" && has_value && parse_int(argv[i + 1], 1, 65535, v)) {
      o.port = static_cast<int>(v);
      ++i;
    } else if (opt == "-t" && has_value && parse_int(argv[i + 1], 1, 86400, v)) {
      o.timeout_ms = static_cast<int>(v * 1000);
      ++i;
    } else if (opt == "-o" && has_value) {
      o.out_path = argv[++i];
    } else {
      std::fprintf(stderr, "kovaget: bad option %s\n", opt.c_str());
      usage(stderr);
      return 2;
    }
  }
  if (i >= argc) {
    usage(stderr);
    return 2;
  }
  const std::string name = argv[i++];
  const Args args(argv + i, argv + argc);
  for (const Command& c : kCommands) {
    if (name != c.name) continue;
    if (args.size() < c.min_args || args.size() > c.max_args) {
      std::fprintf(stderr, "kovaget: usage: %s %s\n", c.name, c.args);
      return 2;
    }
    return c.run(session, args);
  }
  std::fprintf(stderr, "kovaget: unknown command %s\n", name.c_str());
  usage(stderr);
  return 2;
}
