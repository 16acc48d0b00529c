#include "appdata/appdata_request.h"

#include <algorithm>
#include <array>
#include <optional>
#include <span>
#include <vector>

#include "appdata/appdata.h"
#include "base/codes.h"
#include "base/log.h"
#include "delivery/file_transfer.h"
#include "delivery/perf_request.h"
#include "wire/request.h"
#include "wire/socket_io.h"

namespace kova {
namespace {

struct AppDataFields {
  std::string day;
  int purge = -1;
  int append_time = 0;
  int append_suffix = 0;
  std::string suffix;
  std::string app_file;
};

// Takes the payload's fields; 9 after the log line when one cannot be.
int read_fields(const unsigned char* payload, int length, AppDataFields& out) {
  if (length > kExtendedPayloadMax || (payload == nullptr && length > 0)) {
    log_printf("E-APPDATA_BADPACKET", "Payload of %d bytes is longer than %d", length, kExtendedPayloadMax);
    return kResultBadPacket;
  }
  // The fields are read from a zeroed work area of the largest payload,
  // so every text ends within it.
  std::array<unsigned char, kExtendedPayloadMax> work{};
  const size_t held = static_cast<size_t>(std::max(length, 0));
  std::copy_n(payload != nullptr ? payload : work.data(), held, work.begin());
  const std::span<const unsigned char> bytes(work.data(), held);

  if (held < kTimeFieldSize) {
    write_to_log("E-APPDATA_BADPACKET", "Failed to parse start_time from packet");
    return kResultBadPacket;
  }
  out.day = request_text_field(bytes, kAppDataDayOffset, kTimeFieldSize);
  out.purge = Packet_CheckOPCODE(work, kAppDataPurgeOffset);
  out.append_time = Packet_CheckOPCODE(work, kAppDataAppendTimeOffset);
  out.append_suffix = Packet_CheckOPCODE(work, kAppDataAppendSuffixOffset);
  if (held < kAppDataPathOffset) {
    write_to_log("E-APPDATA_BADPACKET", "Failed to parse suffix from packet");
    return kResultBadPacket;
  }
  out.suffix = request_text_field(bytes, kAppDataSuffixOffset, kAppDataSuffixWidth);
  out.app_file = request_text_field(bytes, kAppDataPathOffset, held - kAppDataPathOffset);
  if (out.app_file.size() > kAppDataPathMax) {
    write_to_log("E-APPDATA_BADPACKET", "Failed to parse appdatafile from packet");
    return kResultBadPacket;
  }
  return kResultOk;
}

}  // namespace

int process_appdata_request(int socket, const AgentSettings& settings, const std::string& peer,
                            const unsigned char* payload, int length, PacketBuffer& buffer) {
  log_printf("I-APPDATA_REQ", "APPDATA request from %s", peer.c_str());
  AppDataFields f;
  if (int result = read_fields(payload, length, f); result != kResultOk) return result;
  log_printf("I-APPDATA_VAL", "Received:  Purge  %d", f.purge);
  log_printf("I-APPDATA_VAL", "Received:  Append Time  %d", f.append_time);
  log_printf("I-APPDATA_VAL", "Received:  Append Suffix  %d", f.append_suffix);
  log_printf("I-APPDATA_VAL", "Received:  Suffix  %s", log_escape(f.suffix).c_str());
  log_printf("I-APPDATA_VAL", "Received:  AppFile  %s", log_escape(f.app_file).c_str());

  (void)appdata_build_time_filters(f.day);
  std::vector<std::string> found;
  const std::optional<std::string_view> suffix =
      f.append_suffix == 1 ? std::optional<std::string_view>(f.suffix) : std::nullopt;
  if (int result = appdata_find_files(found, settings.app_data_dir, f.app_file, appdata_state().styles, suffix,
                                      f.append_time, settings.verbose, settings.harden == 1);
      result != kResultOk)
    return result;
  if (found.empty()) return kResultRawDataNotFound;

  buffer.fill(0);
  Packet_CreateERR2(buffer, kResultOk, static_cast<int>(found.size()));
  // A server that is gone shows up in the first transfer's result.
  (void)Socket_writen(socket, buffer.data(), kErrSize);

  int result = kResultOk;
  for (const std::string& path : found) {
    std::string file = path;
    const bool compressed = settings.compression_command.size() > 1;
    if (compressed) {
      std::string out_name;
      if (compress_file(settings.compression_command, path, out_name) != 1) {
        write_to_log("E-APPDATA_COMPRESS", "Compression failed");
        return kResultCompressionFailed;
      }
      file = out_name;
    }
    std::string dir, name;
    (void)get_unix_path(file, dir, name, settings.verbose);  // a found path always splits
    const int n = Packet_CreateString(buffer, name);
    (void)Socket_writen(socket, buffer.data(), static_cast<size_t>(n));

    result = send_ascii_file(socket, settings, file, buffer, kTransferBlockSize);
    if (result != kTransferOk)
      log_printf("E-APPDATA_SEND", "Error sending %s", log_escape(name).c_str());
    else
      log_printf("I-APPDATA_SENT", "Sent %s", log_escape(name).c_str());
    if (compressed) {
      log_printf("I-APPDATA_DEL", "Deleting compressed file %s", log_escape(file).c_str());
      (void)delete_file(file);
    }
  }

  if (f.purge >= 0) (void)appdata_purge_files(f.app_file, f.suffix, f.purge, settings.verbose, settings.harden == 1);
  return result;
}

}  // namespace kova
