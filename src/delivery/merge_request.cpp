#include "delivery/merge_request.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <span>
#include <vector>

#include "base/clock.h"
#include "base/log.h"
#include "delivery/file_transfer.h"
#include "platform/files.h"
#include "platform/process.h"
#include "delivery/perf_request.h"
#include "base/codes.h"

namespace kova {
namespace {


// The request both forms share once their fields are read.
int serve_merge(int socket, const AgentSettings& settings, const std::string& peer, const std::string& start,
                const std::string& end, PacketBuffer& buffer) {
  if (settings.verbose == 1) log_printf("I-MERG_FINDMEM", "Find  %s...", settings.memory_file_path.c_str());
  if (!file_exists(settings.memory_file_path)) return kResultMemoryFileNotFound;
  if (settings.verbose == 1) log_printf("I-MEM_FOUNDMEM", "Found %s", settings.memory_file_path.c_str());

  std::string merg, proc;
  WorkFileLock turn;  // held until both work files are sent and gone
  if (int result = create_merg_file(settings, peer, start, end, merg, proc, &turn); result != kResultOk)
    return result;
  const int result = send_ascii_file(socket, settings, merg, buffer, kTransferBlockSize);
  if (settings.keep_perf == 0) {
    log_printf("I-MERG_DEL", "Delete .MERG  %s", merg.c_str());
    (void)delete_file(merg);
    log_printf("I-PROC_DEL", "Delete .PROC  %s", proc.c_str());
    (void)delete_file(proc);
  }
  return result;
}

// Reads the two times of a merge payload; 9 after the log line when one
// is missing or not of the request form.
int read_times(std::span<const unsigned char> bytes, std::string& start, std::string& end) {
  start = request_text_field(bytes, 0, kTimeFieldSize);
  if (bytes.size() < kTimeFieldSize || !is_request_time(start)) {
    write_to_log("I-MERG", "Failed to read start_time from packet");
    return kResultBadPacket;
  }
  end = request_text_field(bytes, kTimeFieldSize, kTimeFieldSize);
  if (bytes.size() < 2 * kTimeFieldSize || !is_request_time(end)) {
    write_to_log("I-MERG_BADPACKET", "Failed to read end_time from packet");
    return kResultBadPacket;
  }
  return kResultOk;
}

std::span<const unsigned char> payload_bytes(const unsigned char* payload, int length) {
  return payload != nullptr && length > 0 ? std::span<const unsigned char>(payload, static_cast<size_t>(length))
                                          : std::span<const unsigned char>();
}

}  // namespace

int create_merg_file(const AgentSettings& settings, const std::string& peer, const std::string& start,
                     const std::string& end, std::string& merg_path_out, std::string& proc_path_out,
                     WorkFileLock* turn) {
  std::string date, when;
  if (formatDataFileTime(start, date, 1) != 1 || !is_request_time(end)) return kResultBadPacket;
  if (settings.remote == 1)
    (void)formatFileNameTime(when);
  else
    (void)formatFileTime(start, when);
  // Merges are made of this host's own data only, whatever the request.
  const std::string data_name = "qdtsx_" + settings.hostname + "_" + date + ".zud-1";
  const std::string data_file = settings.data_dir + "/" + data_name;
  const std::string tool = settings.bin_dir + "/vorn_analyze";
  const std::string base = settings.hostname + "_" + when;
  if (settings.remote == 1) {
    merg_path_out = settings.outgoing_dir + "/" + base + ".merg";
    proc_path_out = settings.outgoing_dir + "/" + base + ".proc";
  } else {
    merg_path_out = settings.tmp_dir + "/" + base + "_" + peer + ".merg";
    proc_path_out = settings.tmp_dir + "/" + base + ".proc";
  }
  if (settings.verbose == 1) {
    log_printf("I-MERG_VAL", "Start time  %s", log_escape(start).c_str());
    log_printf("I-MERG_VAL", "End time %s", log_escape(end).c_str());
    log_printf("I-MERG", "Data file %s", data_file.c_str());
  }
  if (!file_exists(data_file)) {
    if (settings.verbose == 1) log_printf("I-ZUDNOTFND", "Data file not found, %s", data_file.c_str());
    return kResultRawDataNotFound;
  }
  if (!file_exists(tool)) {
    if (settings.verbose == 1) log_printf("I-IMGNOTFND", "%s not found", tool.c_str());
    return kResultAnalyzeNotInstalled;
  }
  if (turn != nullptr) *turn = WorkFileLock(proc_path_out);
  // A ".merg" kept from an earlier request must not stand in for one the
  // tool failed to write.
  (void)::unlink(merg_path_out.c_str());

  std::vector<std::string> argv{tool,  "-zudunix", data_file,     "-begin",  start,        "-end",
                                end,   "-merg",    merg_path_out, "-report", proc_path_out};
  if (settings.rootdir_given != 0) {
    argv.push_back("-rootdir");
    argv.push_back(settings.install_root);
  }
  write_to_log("I-MERG_COMMAND", log_escape(command_text(argv)));
  std::string output;
  const ProgramRun run = run_program(argv, output);
  if (run == ProgramRun::kKilled) {
    // As for a tool that wrote nothing: the transfer announces no file.
    log_printf("E-MERG_TIMEOUT", "%s ran longer than %d seconds and was stopped", tool.c_str(),
               program_deadline_seconds());
    (void)::unlink(merg_path_out.c_str());
    (void)::unlink(proc_path_out.c_str());
  } else if (run == ProgramRun::kFinished && settings.verbose == 1) {
    log_printf("I-MERG_RETURNED", "run returned,  %s", output.c_str());
  }
  return kResultOk;
}

int process_merg_request(int socket, const AgentSettings& settings, const std::string& peer,
                         const unsigned char* payload, int length, PacketBuffer& buffer) {
  log_printf("I-REQ_MERG", "MERG request from %s", peer.c_str());
  clock_sleep(kDataRequestPause);
  std::string start, end;
  if (int result = read_times(payload_bytes(payload, length), start, end); result != kResultOk) return result;
  if (settings.verbose != 0) {
    log_printf("I-MERG_VAL", "start : %s", log_escape(start).c_str());
    log_printf("I-MERG_VAL", "end : %s", log_escape(end).c_str());
  }
  return serve_merge(socket, settings, peer, start, end, buffer);
}

}  // namespace kova
