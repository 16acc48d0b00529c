// Drives a request connection with arbitrary bytes through a real socket
// pair: first the framing alone (the fixed request, the extended length and
// payload, the tag match), checked against the bytes sent; then the whole
// request through the dispatcher and the handler it picks, as a request
// child runs it. The fixed waits are taken out and the handlers' files live
// in an install tree made once per process under $TMPDIR (removed at exit;
// a crash leaves it for inspection). Its bin/ holds
// only stand-ins for the two data tools, and the collector's lock file
// names a process that cannot exist, so no request starts or signals a
// program outside the tree; PATH names only the tree's bin/, so neither do
// the update's tools. Three requests name paths, and the harness rewrites
// them before they are sent: the free-space request's path and the update's
// target directory are put under the tree's scratch directory (both create
// what they name), and an application-data path that begins with "~/" has
// the tree's root for the "~" (the tree's place is not known when the seeds
// are written).
//
// Input: one flags byte, then the bytes the "server" sends.
//   bit 0: keep the sending side open after the bytes (the read loops then
//          exhaust their retries instead of seeing the end of the stream)
//   bit 1: verbose
//   bit 2: remote operation (work files named by yesterday, in outgoing/)
//   bit 3: keep work files
//   bit 4: the request comes from a server other than the controlling one
//   bit 5: application files are compressed (by a stand-in) before sending

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include "agent/agent_state.h"
#include "agent/dispatch.h"
#include "appdata/appdata.h"
#include "appdata/appdata_request.h"
#include "base/clock.h"
#include "base/log.h"
#include "components/collector.h"
#include "components/dc_lockfile.h"
#include "components/rta.h"
#include "platform/process.h"
#include "platform/unique.h"
#include "settings/command_line.h"
#include "update/update_request.h"
#include "wire/packet.h"
#include "wire/request.h"
#include "wire/socket_io.h"

namespace {

// Well below a socket pair's buffer, so writing never blocks.
constexpr size_t kMaxInput = 8192;

// Above the largest pid the kernel hands out (2^22).
constexpr int kNoSuchPid = 4194305;

void check(bool ok) {
  if (!ok) __builtin_trap();
}

int no_wait(int, int) { return 0; }
void no_sleep(unsigned) {}
// A connection that is full stays full: the send bound passes at once.
int never_writable(int, int) { return 0; }

std::time_t g_now = 0;
std::time_t fixed_now() { return g_now; }

void write_text(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// A stand-in data tool: writes a few lines to the file after `flag`.
void write_tool(const std::string& path, const char* flag) {
  write_text(path, std::string("#!/bin/sh\n") +
                       "while [ $# -gt 1 ]; do\n"
                       "  [ \"$1\" = " + flag + " ] && printf '2024-03-05 12:00 1 0.40\\n' > \"$2\"\n"
                       "  shift\n"
                       "done\n");
  ::chmod(path.c_str(), 0755);
}

// Everything a request sees, set up once: the install tree, the agent's
// state as start-up leaves it, and the component records.
struct Harness {
  std::string root;
  std::string scratch;  // where the free-space and update requests' directories go
  kova::AgentState state;
  kova::CollectorState collector;
  kova::RtaSettings rta;
};

Harness make_harness() {
  Harness h;
  const char* tmp = std::getenv("TMPDIR");
  std::string root = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/kovafuzz.XXXXXX";
  check(::mkdtemp(root.data()) != nullptr);
  h.root = root;
  for (const char* d : {"bin", "data", "logs", "tmp", "tmp/update", "outgoing", "settings", "update", "mwa",
                        "legacy", "sorlex", "sorlex/bin", "scratch", "appdata"})
    std::filesystem::create_directories(root + "/" + d);
  h.scratch = root + "/scratch";
  // Every default install path, the components' included, now lies in the tree.
  ::setenv("VANTREL_LIBRARY", root.c_str(), 1);
  ::setenv("SORLEX_LIBRARY", (root + "/sorlex").c_str(), 1);
  ::setenv("PATH", (root + "/bin").c_str(), 1);
  ::unsetenv("KOVA_KEEP_CONFIG");
  ::unsetenv("KOVA_KEEP_PERF");

  kova::AgentSettings& s = h.state.settings;
  kova::kova_init_command_line(s);
  kova::kova_adjust_path_settings(s, root);
  s.rootdir_given = 1;
  s.data_dir = root + "/data";
  s.search_agent_root = root + "/sorlex";
  s.use_lock = 0;
  s.fork = 0;

  write_tool(s.bin_dir + "/kovaperf", "-perf");
  write_tool(s.bin_dir + "/vorn_analyze", "-merg");
  write_tool(s.bin_dir + "/squeeze", "-o");
  s.app_data_dir = root + "/appdata," + root + "/logs";
  for (const char* name : {"web_20240305.log", "web_05-Mar-2024.txt", "web_20240304.log", "web.log"})
    write_text(root + "/appdata/" + name, "GET /index.html 200\n");
  write_text(s.settings_dir + "/date_formats.txt", "YYYYMMDD\nDD-Mmm-YYYY\nMMDDYY\n");
  (void)kova::appdata_read_formats(root);
  write_text(s.memory_file_path, "memory\n");
  const std::string samples = "1709636400 2024-03-05 12:00:00 0.42 0.35 0.30 812344 213\n";
  for (const std::string& name : {"qdtsx_" + s.hostname, std::string("qdtl_nodehost"), std::string("qdtv_nodehost"),
                                  std::string("nodehost")})
    write_text(s.data_dir + "/" + name + (name == "nodehost" ? "_2024Mar05.pmd" : "_2024Mar05.zud-1"), samples);
  write_text(s.tmp_dir + "/kova_sysconf_nodehost.dat", "HOST:nodehost\n");
  write_text(s.collector_lock_path, "PID~" + std::to_string(kNoSuchPid) +
                                        "\nVERSION~vORN Monitor 5.0\nWRITE_RATE~120\nPEAK_RATE~0\n"
                                        "CURRENT_DATA_FILE~" + s.data_dir + "/qdtsx_" + s.hostname +
                                        "_2024Mar05.zud-1\n");

  // As start-up reads them; the older generations are looked for in the tree.
  kova::CollectorState& dc = kova::collector_state();
  kova::kova_determine_dc_version(s, dc.dc_version, {root + "/legacy", s.bin_dir});
  kova::dc_init_command_line(dc.dc_cmdline);
  kova::dc_adjust_path_settings(dc.dc_cmdline, root);
  (void)kova::dc_write_settings_file(dc.dc_cmdline);
  kova::dc_parse_startup_file(dc.dc_cmdline);
  kova::RtaSettings& rta = kova::rta_cmdline();
  kova::rta_init_command_line(rta);
  kova::rta_adjust_path_settings(rta, root);
  (void)kova::rta_write_settings_file(rta);
  kova::rta_parse_startup_file(rta);
  h.collector = dc;
  h.rta = rta;

  // The request child's surroundings: children reaped by the system, the
  // waits taken out, a fixed clock (6 March 2024, so the fixture files,
  // written today, are never old enough to purge), the log formatted and
  // dropped.
  struct sigaction ignore_children {};
  ignore_children.sa_handler = SIG_IGN;
  sigemptyset(&ignore_children.sa_mask);
  ignore_children.sa_flags = SA_NOCLDWAIT;
  ::sigaction(SIGCHLD, &ignore_children, nullptr);
  kova::wire_hooks().wait_readable = no_wait;
  kova::wire_hooks().wait_writable = never_writable;
  std::tm day{};
  day.tm_year = 124, day.tm_mon = 2, day.tm_mday = 6, day.tm_hour = 9, day.tm_isdst = -1;
  g_now = std::mktime(&day);
  kova::process_clock() = kova::Clock{fixed_now, no_sleep};
  kova::program_limits().deadline_ms = 10000;
  kova::log_state().logfile = "/dev/null";
  return h;
}

Harness& harness() {
  static Harness h = make_harness();
  static const bool cleaned_at_exit = [] {
    return std::atexit([] {
      std::error_code ec;
      std::filesystem::remove_all(harness().root, ec);
    }) == 0;
  }();
  (void)cleaned_at_exit;
  return h;
}

// The payload of a well-framed extended request in `bytes` with the tag
// `tag`, rewritten by `rewrite` (and cut to the largest payload), with its
// length field to match. False, and nothing changed, for any other
// request: a bad packet's payload reaches no handler.
template <typename Rewrite>
bool rewrite_payload(std::string& bytes, kova::ExtendedTag tag, Rewrite rewrite) {
  constexpr size_t kPayloadAt = kova::kRequestSize + 2;
  if (bytes.size() < kPayloadAt) return false;
  kova::PacketBuffer head{};
  std::copy_n(bytes.begin(), kPayloadAt, head.begin());
  if (kova::request_opcode(head) != kova::kOpExtended) return false;
  kova::ExtendedRequest ext;
  kova::read_extended_tag(head, ext);
  if (kova::match_extended_tag(ext.tag.data()) != tag) return false;
  const int declared = kova::Packet_CheckOPCODE(head, kova::kRequestSize);
  if (declared <= 0 || declared > kova::kExtendedPayloadMax || bytes.size() - kPayloadAt < size_t(declared))
    return false;

  std::string payload = bytes.substr(kPayloadAt, static_cast<size_t>(declared));
  if (!rewrite(payload)) return false;
  payload.resize(std::min(payload.size(), size_t{kova::kExtendedPayloadMax}));
  kova::PacketBuffer length{};
  kova::Packet_CreateShort(length, static_cast<int>(payload.size()));
  bytes = bytes.substr(0, kova::kRequestSize) + std::string(reinterpret_cast<const char*>(length.data()), 2) +
          payload + bytes.substr(kPayloadAt + static_cast<size_t>(declared));
  return true;
}

// The free-space path goes under the scratch directory, its dots made "_"
// so that no ".." climbs out. True when the request was one.
bool confine_disk_space_path(std::string& bytes, const std::string& scratch) {
  return rewrite_payload(bytes, kova::ExtendedTag::kDiskSpace, [&](std::string& payload) {
    std::replace(payload.begin(), payload.end(), '.', '_');
    payload = scratch + "/" + payload;
    return true;
  });
}

// The update's target directory, the fourth word of its line, goes under
// the scratch directory when the handler would act on the line (the rest
// of the line is not read). True when the request was one.
bool confine_update_directory(std::string& bytes, const std::string& scratch) {
  return rewrite_payload(bytes, kova::ExtendedTag::kUpdateData, [&](std::string& payload) {
    const std::string line(payload.c_str());
    const kova::UpdateRequest request = kova::parse_update_request(line);
    if (request.words < 4 || kova::update_request_refusal(request) != nullptr) return false;
    std::string directory = request.directory;
    std::replace(directory.begin(), directory.end(), '.', '_');
    payload = "<UPDATE_DATA> " + request.name + " " + request.size + " " + request.checksum + " " + scratch +
              directory + payload.substr(line.size());
    return true;
  });
}

// "~/" at the start of an application-data path stands for the tree's root.
void place_app_data_path(std::string& bytes, const std::string& root) {
  (void)rewrite_payload(bytes, kova::ExtendedTag::kAppData, [&](std::string& payload) {
    if (payload.size() < kova::kAppDataPathOffset + 2 || payload.compare(kova::kAppDataPathOffset, 2, "~/") != 0)
      return false;
    payload.replace(kova::kAppDataPathOffset, 1, root);
    return true;
  });
}

void empty_scratch(const std::string& scratch) {
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(scratch, ec))
    std::filesystem::remove_all(entry.path(), ec);
}

struct SocketPair {
  kova::UniqueFd agent, server;
  SocketPair(const uint8_t* data, size_t size, bool keep_open) {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return;
    agent.reset(fds[0]), server.reset(fds[1]);
    if (size > 0 && ::write(server.get(), data, size) != static_cast<ssize_t>(size)) agent.reset();
    if (!keep_open) server.reset();
  }
};

// The framing alone, with its invariants.
void check_framing(const uint8_t* data, size_t size, bool keep_open, int verbose) {
  SocketPair pair(data, size, keep_open);
  if (!pair.agent) return;
  kova::PacketBuffer request;
  const ssize_t n = kova::read_request(pair.agent.get(), request, verbose);
  check(n <= static_cast<ssize_t>(kova::kRequestSize));
  if (n < 0) return;
  check(n == static_cast<ssize_t>(std::min(size, kova::kRequestSize)));
  if (kova::request_opcode(request) != kova::kOpExtended) return;

  kova::ExtendedRequest ext;
  kova::read_extended_tag(request, ext);
  const kova::FrameStatus status = kova::read_extended_payload(pair.agent.get(), ext, verbose);
  check(ext.tag.back() == '\0' && std::strlen(ext.tag.data()) <= kova::kExtendedTagLength);
  check(ext.length >= 0 && ext.length <= kova::kExtendedPayloadMax);
  if (status == kova::FrameStatus::kOk) {
    check(ext.declared <= 0 ? ext.length == 0 : ext.length == ext.declared);
    check(ext.length == 0 || std::memcmp(ext.payload.data(), data + kova::kRequestSize + 2,
                                         static_cast<size_t>(ext.length)) == 0);
  } else {
    check(ext.length == 0);
    if (status == kova::FrameStatus::kLengthTooLarge) check(ext.declared > kova::kExtendedPayloadMax);
  }
  const kova::ExtendedTag tag = kova::match_extended_tag(ext.tag.data());
  if (tag != kova::ExtendedTag::kUnknown) {
    bool found = false;
    for (const auto& row : kova::extended_tag_table()) found = found || row.tag == tag;
    check(found);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Harness& h = harness();
  if (size < 1 || size > kMaxInput) return 0;
  const uint8_t flags = data[0];
  std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  const bool keep_open = (flags & 1) != 0;
  const int verbose = (flags & 2) != 0 ? 1 : 0;

  check_framing(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), keep_open, verbose);

  // Each request starts from the state start-up left, as a request child
  // starts from the listening process's.
  kova::AgentState state = h.state;
  state.settings.verbose = verbose;
  state.settings.remote = (flags & 4) != 0 ? 1 : 0;
  state.settings.keep_perf = (flags & 8) != 0 ? 1 : 0;
  if ((flags & 16) != 0) state.settings.settings_server = "10.9.9.9";
  if ((flags & 32) != 0) state.settings.compression_command = state.settings.bin_dir + "/squeeze * -o *.gz";
  kova::collector_state() = h.collector;
  kova::rta_cmdline() = h.rta;
  kova::log_state().verbose = false;

  const bool scratch_used = confine_disk_space_path(bytes, h.scratch) || confine_update_directory(bytes, h.scratch);
  place_app_data_path(bytes, h.root);
  SocketPair pair(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), keep_open);
  if (pair.agent) (void)kova::process_request(pair.agent.get(), "127.0.0.1", state, 0);
  if (scratch_used) empty_scratch(h.scratch);
  return 0;
}
