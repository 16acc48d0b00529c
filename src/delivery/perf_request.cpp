#include "delivery/perf_request.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <span>

#include "components/collector.h"
#include "base/clock.h"
#include "base/log.h"
#include "delivery/file_transfer.h"
#include "housekeeping/purge.h"
#include "platform/files.h"
#include "platform/process.h"
#include "platform/unique.h"
#include "settings/hardening.h"
#include "wire/request.h"
#include "wire/socket_io.h"
#include "base/codes.h"

namespace kova {
namespace {

// Length of "DD-Mon-YYYY:HH:MM".
constexpr size_t kTimeTextLength = 17;

// Data-file names by the request's OS text; the first row whose text occurs
// in it wins, so "Solaris x86" must come before "Solaris".
struct DataFileRow {
  const char* os;
  const char* prefix;  // nullptr: the name has no type prefix
  const char* extension;
};
constexpr DataFileRow kDataFileTable[] = {
    {"VMware ESX", "qdtv", ".zud-1"},  {"Linux", "qdtl", ".zud-1"},   {"AIX", "qdta", ".zud-1"},
    {"HP-UX", "qdth", ".zud-1"},       {"Solaris x86", "qdtsx", ".zud-1"}, {"Solaris", "qdts", ".zud-1"},
    {"VMS", nullptr, ".pmd"},
};

std::tm yesterday() {
  std::time_t now = clock_now();
  std::tm t{};
  localtime_r(&now, &t);
  t.tm_mday -= 1;
  t.tm_yday -= 1;
  t.tm_isdst = -1;  // yesterday may lie on the other side of a change
  std::time_t then = std::mktime(&t);
  localtime_r(&then, &t);
  return t;
}

std::string format_tm(const char* format, const std::tm& t) {
  char text[64] = {};
  std::strftime(text, sizeof text, format, &t);
  return text;
}

// Sends the work file, then deletes it unless the settings keep it; a
// failed transfer deletes it too, since the server will ask again.
int send_perf_file(int socket, const AgentSettings& settings, const std::string& perf, PacketBuffer& buffer) {
  const int result = send_ascii_file(socket, settings, perf, buffer, kTransferBlockSize);
  if (settings.keep_perf == 0) {
    if (settings.verbose == 1) log_printf("I-PERF_DEL", "Delete .PERF  %s", log_escape(perf).c_str());
    (void)delete_file(perf);
  } else if (settings.verbose == 1) {
    log_printf("I-PERF_KEEP", "Keep .PERF  %s", log_escape(perf).c_str());
  }
  return result;
}

// The memory-file check both perf requests make: 11 when it is missing.
int check_memory_file(const AgentSettings& settings) {
  if (settings.verbose == 1) log_printf("I-PERF_FINDMEM", "Find  %s...", settings.memory_file_path.c_str());
  if (!file_exists(settings.memory_file_path)) {
    log_printf("E-PERF_MEM", "Not found %s", settings.memory_file_path.c_str());
    return kResultMemoryFileNotFound;
  }
  log_printf("I-PERF_FOUNDMEM", "Found %s", settings.memory_file_path.c_str());
  return kResultOk;
}

bool write_all(int fd, const void* data, size_t n) { return Socket_writen(fd, data, n) == static_cast<ssize_t>(n); }

// Streams the raw transfer's blocks of one file; the log lines name the
// block loop or the last block by where the transfer stopped.
int send_raw_bytes(int socket, int file, int64_t size) {
  const int64_t full_end = size / kTransferBlockSize * kTransferBlockSize;
  int64_t sent = 0;
  int error = 0;
  const int result = send_file_bytes(socket, file, size, sent, error);
  const char* reason = std::strerror(error != 0 ? error : EIO);  // EIO: the file shrank under us
  if (result == kTransferReadFailed) {
    if (sent < full_end)
      log_printf("E-READ", "File read error : %s", reason);
    else
      log_printf("E-READ", "file read error:  %s", reason);
  } else if (result == kTransferSendFailed) {
    if (sent < full_end)
      log_printf("E-SEND-RAW", "Error sending packet %lld of %lld: %s",
                 static_cast<long long>(sent / kTransferBlockSize + 1),
                 static_cast<long long>(size / kTransferBlockSize), reason);
    else
      log_printf("E-SEND", "Error sending packets: %s", reason);
  }
  return result;
}

}  // namespace

// ---- time texts

std::string request_text_field(std::span<const unsigned char> bytes, size_t offset, size_t width) {
  if (offset >= bytes.size()) return {};
  std::array<char, kExtendedPayloadMax + 1> field{};
  const size_t n = std::min({width, bytes.size() - offset, field.size() - 1});
  (void)Packet_CheckString(bytes.subspan(offset), std::span<char>(field.data(), n + 1), n);
  return field.data();
}

bool is_request_time(const std::string& time) {
  // DD-Mon-YYYY:HH:MM
  static constexpr char kShape[] = "99-aaa-9999:99:99";
  if (time.size() < kTimeTextLength) return false;
  for (size_t i = 0; i < kTimeTextLength; ++i) {
    const unsigned char c = static_cast<unsigned char>(time[i]);
    const char want = kShape[i];
    const bool ok = want == '9' ? std::isdigit(c) != 0 : want == 'a' ? std::isalpha(c) != 0 : c == want;
    if (!ok) return false;
  }
  return true;
}

int formatDataFileTime(const std::string& time, std::string& out, int upper) {
  out.clear();
  if (!is_request_time(time)) return 0;
  std::string month = time.substr(3, 3);
  month[0] = static_cast<char>(upper == 1 ? std::toupper(static_cast<unsigned char>(month[0]))
                                          : std::tolower(static_cast<unsigned char>(month[0])));
  for (size_t i = 1; i < 3; ++i) month[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(month[i])));
  out = time.substr(7, 4) + month + time.substr(0, 2);
  return 1;
}

int formatFileTime(const std::string& time, std::string& out) {
  out.clear();
  if (!is_request_time(time)) return 0;
  out = time.substr(7, 4) + time.substr(3, 3) + time.substr(0, 2) + "_" + time.substr(12, 2) + time.substr(15, 2);
  return 1;
}

int formatFileNameTime(std::string& out) {
  out = format_tm("%Y%b%d", yesterday());
  return 1;
}

// ---- data files and work files

std::string perf_data_file_name(const std::string& host, const std::string& os, const std::string& date) {
  const char* prefix = "qdt";
  const char* extension = ".zud-1";
  if (os.empty()) {
    prefix = "qdtsx";
  } else {
    for (const DataFileRow& row : kDataFileTable) {
      if (os.find(row.os) == std::string::npos) continue;
      prefix = row.prefix;
      extension = row.extension;
      break;
    }
  }
  std::string name = prefix != nullptr ? std::string(prefix) + "_" : std::string();
  return name + host + "_" + date + extension;
}

int create_perf_file(const AgentSettings& settings, const std::string& peer, const std::string& host,
                     const std::string& os, const std::string& start, const std::string& end,
                     std::string& perf_path_out, WorkFileLock* turn) {
  std::string date, when;
  if (formatDataFileTime(start, date, 1) != 1 || !is_request_time(end)) return kResultBadPacket;
  if (settings.remote == 1)
    (void)formatFileNameTime(when);
  else
    (void)formatFileTime(start, when);
  if (settings.verbose == 1) {
    log_printf("I-PERF_VAL", "Start time  %s", log_escape(start).c_str());
    log_printf("I-PERF_VAL", "End time %s", log_escape(end).c_str());
  }
  const std::string data_file = settings.data_dir + "/" + perf_data_file_name(host, os, date);
  perf_path_out = settings.remote == 1 ? settings.outgoing_dir + "/" + host + "_" + when + ".perf"
                                       : settings.tmp_dir + "/" + host + "_" + when + "_" + peer + ".perf";

  log_printf("I-PERF_ZUDFILE", "Data file: %s", log_escape(data_file).c_str());
  if (!file_exists(data_file)) {
    log_printf("E-PERF_ZUD_NOT_FND", "Data file not found: %s", log_escape(data_file).c_str());
    return kResultRawDataNotFound;
  }
  if (turn != nullptr) *turn = WorkFileLock(perf_path_out);
  // A work file kept from an earlier request must not be sent in place of
  // one the tool failed to write.
  (void)::unlink(perf_path_out.c_str());

  std::vector<std::string> argv{settings.bin_dir + "/kovaperf", "-zudunix", data_file, "-begin", start,
                                "-end", end, "-perf", perf_path_out};
  if (settings.rootdir_given != 0) {
    argv.push_back("-rootdir");
    argv.push_back(settings.install_root);
  }
  write_to_log("I-PERF_COMMAND", log_escape(command_text(argv)));
  std::string output;
  const ProgramRun run = run_program(argv, output);
  if (run == ProgramRun::kNotStarted) return kResultImageRunFailed;
  if (run == ProgramRun::kKilled) {
    // Whatever a hung tool wrote is not the range asked for: the request
    // goes on as for a tool that wrote nothing.
    log_printf("E-PERF_TIMEOUT", "%s ran longer than %d seconds and was stopped", argv[0].c_str(),
               program_deadline_seconds());
    (void)::unlink(perf_path_out.c_str());
    return kResultOk;
  }
  if (settings.verbose == 1) log_printf("I-PERF_RET", "run returned,  %s", output.c_str());
  return kResultOk;
}

// ---- request handlers

int process_perf_request(int socket, const AgentSettings& settings, const std::string& peer,
                         const PacketBuffer& request, PacketBuffer& buffer, int& zud_age) {
  log_printf("I-REQ_PERF", "PERF request from %s", peer.c_str());
  // The server sends the request before its data is settled; the pause is
  // part of the protocol.
  clock_sleep(kDataRequestPause);

  const std::string start = request_text_field(request, 2, kTimeFieldSize);
  const std::string end = request_text_field(request, 20, kTimeFieldSize);
  if (!is_request_time(start) || !is_request_time(end)) return kResultBadPacket;
  zud_age = Packet_CheckOPCODE(request, 38);
  log_printf("I-RCV_VALUE", "Received purge value %d", zud_age);

  if (settings.verbose == 1) log_printf("I-VAL", "Validate %s: to %s", peer.c_str(), settings.settings_server.c_str());
  if (server_admitted(settings, peer, settings.settings_server)) {
    // Only the controlling server's retention reaches the collector; the
    // file is re-read first so that changes made since start-up survive.
    DcSettings& dc = collector_state().dc_cmdline;
    dc_adjust_path_settings(dc, settings.install_root);
    (void)dc_parse_startup_file(dc);
    if (compare_dc_settings(dc, 0, -1, zud_age) == 1) write_to_log("I-DC_SAVE", "Data collector settings saved.");
  }

  if (int result = check_memory_file(settings); result != kResultOk) return result;
  std::string perf;
  WorkFileLock turn;  // held until the work file is sent and gone
  if (int result = create_perf_file(settings, peer, settings.hostname, "", start, end, perf, &turn);
      result != kResultOk)
    return result;
  return send_perf_file(socket, settings, perf, buffer);
}

int process_perf_node_request(int socket, const AgentSettings& settings, const std::string& peer,
                              const unsigned char* payload, int length, PacketBuffer& buffer, int& zud_age) {
  log_printf("I-REQ_PERF_NODE", "PERF NODE request from %s", peer.c_str());
  clock_sleep(kDataRequestPause);

  // Work on a copy: the fields are read as terminated texts.
  const std::vector<unsigned char> copy(payload, payload + std::max(length, 0));
  const std::span<const unsigned char> bytes(copy);
  constexpr size_t kAgeOffset = 2 * kTimeFieldSize;
  constexpr size_t kHostOffset = kAgeOffset + 2;
  constexpr size_t kHostField = 32;
  constexpr size_t kOsOffset = kHostOffset + kHostField;

  const std::string start = request_text_field(bytes, 0, kTimeFieldSize);
  if (bytes.size() < kTimeFieldSize || !is_request_time(start)) {
    write_to_log("W-PERFNODE", "Failed to read start_time from packet");
    return kResultBadPacket;
  }
  const std::string end = request_text_field(bytes, kTimeFieldSize, kTimeFieldSize);
  if (bytes.size() < kAgeOffset || !is_request_time(end)) {
    write_to_log("W-PERFNODE_BADPACKET", "Failed to read end_time from packet");
    return kResultBadPacket;
  }
  const std::string host = request_text_field(bytes, kHostOffset, kHostField);
  // The host name becomes part of file names in the data directory.
  if (bytes.size() < kOsOffset || host.find('/') != std::string::npos) {
    write_to_log("W-PERFNODE_BADPACKET", "Failed to read hostname from packet");
    return kResultBadPacket;
  }
  const std::string os = request_text_field(bytes, kOsOffset, bytes.size() - kOsOffset);
  const int age = Packet_CheckOPCODE(bytes, kAgeOffset);

  if (settings.verbose != 0) {
    log_printf("I-PERF_VAL", "host : %s", log_escape(host).c_str());
    log_printf("I-PERF_VAL", "OS : %s", log_escape(os).c_str());
    log_printf("I-PERF_VAL", "start : %s", log_escape(start).c_str());
    log_printf("I-PERF_VAL", "end : %s", log_escape(end).c_str());
    log_printf("I-PERF_VAL", "retain : %d", age);
  }
  zud_age = age;
  log_printf("I-RCV_VALUE", "Received purge value %d", age);
  if (settings.verbose == 1) log_printf("I-VAL", "Validate %s: to %s", peer.c_str(), settings.settings_server.c_str());

  if (int result = check_memory_file(settings); result != kResultOk) return result;
  std::string perf;
  WorkFileLock turn;  // held until the work file is sent and gone
  if (int result = create_perf_file(settings, peer, host, os, start, end, perf, &turn); result != kResultOk)
    return result;
  const int result = send_perf_file(socket, settings, perf, buffer);
  turn = WorkFileLock();

  // The data was extracted, so the host's old files may go whether or not
  // the server took the bytes.
  if (settings.verbose != 0)
    log_printf("I-PERF_KEEP", "Purging data files for %s (os %s)  from %s older then %d days\n",
               log_escape(host).c_str(), log_escape(os).c_str(), settings.data_dir.c_str(), age);
  if (os.find("ESX") != std::string::npos)
    (void)purge_data_file1(settings.data_dir, host, "qdtv", ".zud", age, settings.verbose);
  else
    (void)purge_data_file(settings.data_dir, host, ".zud", age, settings.verbose);
  return result;
}

void purge_fetched_data_files(const AgentSettings& settings, int age) {
  if (settings.measureware_source != 1) {
    (void)purge_data_file(settings.data_dir, settings.hostname, ".zud", age, settings.verbose);
    return;
  }
  for (const char* extension : {".gbl", ".prc", ".dsk", ".net", ".vol", ".cpu", ".zud"})
    (void)purge_data_file(settings.mwa_dir, settings.hostname, extension, age, settings.verbose);
}

int process_rawdata_request(int socket, const AgentSettings& settings, const std::string& peer,
                            const PacketBuffer& request, int mode) {
  if (settings.verbose != 0) log_printf("I-REQ_DATA", "Request for data from :%s", peer.c_str());
  return send_zud_file(socket, settings, peer, request, mode);
}

int send_zud_file(int socket, const AgentSettings& settings, const std::string& peer, const PacketBuffer& request,
                  int mode) {
  log_printf("I-REQ_RAW", "Data file request from %s", peer.c_str());
  const int length = Packet_CheckOPCODE(request, 2);
  log_printf("I-RAWDATA_NAMLEN", "data name len: %d", length);
  if (length < 4 || length > kRawNameMax) {
    log_printf("W-RAWDATA_NAME", "Data file name refused, length %d", length);
    return kResultBadPacket;
  }
  clock_sleep(kDataRequestPause);

  std::array<char, kRawNameMax + 1> field{};
  const ssize_t got = Socket_readn(socket, field.data(), static_cast<size_t>(length), settings.verbose);
  if (got != length) {
    log_printf("E-RAWDATA_READ", "Unable to read %s, %s", peer.c_str(),
               got < 0 ? std::strerror(errno) : "connection closed");
    return kTransferReadFailed;
  }
  const std::string name = field.data();
  log_printf("I-RAWDATA_FILE", "data filename: %s", log_escape(name).c_str());
  if (settings.verbose != 0) log_printf("I-RAWDATA_FILE", "Requested file:  %s", log_escape(name).c_str());
  // The first four characters are the type prefix; what follows is matched
  // anywhere in the names.
  if (name.size() < 4) {
    log_printf("W-RAWDATA_NAME", "Data file name refused, length %d", static_cast<int>(name.size()));
    return kResultBadPacket;
  }
  return send_zud_files_unix(socket, settings, name.substr(4), mode);
}

int send_zud_files_unix(int socket, const AgentSettings& settings, const std::string& pattern, int mode) {
  const std::string& directory = settings.measureware_source == 1 ? settings.mwa_dir : settings.data_dir;
  UniqueDir dir(::opendir(directory.c_str()));
  if (!dir) {
    log_printf("E-OPENDIR", "Not able to open %s, %s", directory.c_str(), std::strerror(errno));
    return kResultRawDataNotFound;
  }
  PacketBuffer packet{};
  int sent_files = 0;
  while (const dirent* entry = ::readdir(dir.get())) {
    const std::string name = entry->d_name;
    if (name.find(pattern) == std::string::npos) continue;
    UniqueFd file(::openat(::dirfd(dir.get()), entry->d_name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!file && errno == ELOOP) continue;  // a symbolic link is not the collector's file
    if (!file) {
      log_printf("E-OPEN", "Unable to open %s", log_escape(name).c_str());
      return kTransferOpenFailed;
    }
    struct stat st {};
    if (::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode)) continue;

    const int64_t size = st.st_size;
    const int64_t blocks = size / kTransferBlockSize;
    const int last = static_cast<int>(size % kTransferBlockSize);
    const int name_length = static_cast<int>(name.size());
    log_printf("I-RAW", "sending packet %d %lld %d %d\n", 3, static_cast<long long>(blocks), last, name_length);
    packet.fill(0);
    CreateZUDData(3, blocks, last, name_length, packet, mode);
    if (!write_all(socket, packet.data(), kZudDataSize)) {
      log_printf("E-SEND", "Error sending packets: %s", std::strerror(errno));
      return kTransferSendFailed;
    }
    log_printf("I-RAW", "sending FNAME %s, %d\n", log_escape(name).c_str(), name_length);
    if (!write_all(socket, name.data(), name.size())) {
      log_printf("E-SEND", "Error sending packets: %s", std::strerror(errno));
      return kTransferSendFailed;
    }
    if (int result = send_raw_bytes(socket, file.get(), size); result != kTransferOk) return result;
    log_printf("I-SENT", "RAW data file %s sent, (%lld bytes of %lld bytes)", log_escape(name).c_str(),
               static_cast<long long>(size), static_cast<long long>(size));
    ++sent_files;
  }
  if (sent_files == 0) {
    log_printf("E-OPEN", "Unable to open %s.zud-1", log_escape(pattern).c_str());
    return kResultRawDataNotFound;
  }
  packet.fill(0);
  CreateZUDData(4, 0, 0, 0, packet, mode);
  if (!write_all(socket, packet.data(), kZudDataSize)) {
    log_printf("E-SEND", "Error sending packets: %s", std::strerror(errno));
    return kTransferSendFailed;
  }
  return kResultOk;
}

}  // namespace kova
