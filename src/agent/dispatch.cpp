#include "agent/dispatch.h"

#include <cerrno>
#include <cstring>

#include "appdata/appdata_request.h"
#include "components/collector.h"
#include "components/rta.h"
#include "components/sorlex.h"
#include "base/log.h"
#include "delivery/config_request.h"
#include "delivery/dc_node_request.h"
#include "delivery/file_transfer.h"
#include "delivery/merge_request.h"
#include "delivery/perf_request.h"
#include "delivery/queries.h"
#include "settings/hardening.h"
#include "update/update_request.h"
#include "wire/packet.h"
#include "wire/request.h"
#include "wire/socket_io.h"
#include "base/codes.h"

namespace kova {
namespace {

// Sends the first `n` bytes of a reply built in `reply`.
[[gnu::hot]] void send_reply(int fd, const PacketBuffer& reply, size_t n) { (void)Socket_writen(fd, reply.data(), n); }

void send_error(int fd, int code) {
  PacketBuffer reply{};
  Packet_CreateERR(code, reply);
  send_reply(fd, reply, 8);
}

void send_startstop(int fd, int status) {
  PacketBuffer reply{};
  send_reply(fd, reply, static_cast<size_t>(Packet_CreateSTARTSTOP(status, reply)));
}

// The handlers are called, not inlined into process_request: their buffers
// would widen the one stack frame every request runs in, and each page of
// stack a request child touches is a page copied for it.

// The collector and real-time agent state lines of a status request,
// written on the first request after start and then once a period.
void log_component_states(const AgentState& state, int dc_status, int rta_status) {
  const AgentSettings& s = state.settings;
  const CollectorState& dc = collector_state();
  if (state.command_count >= state.message_repeat) {
    switch (dc_status) {
      case kStatusRunning: if (s.verbose == 0) write_to_log("I_DC_STAT", "Data Collector Up"); break;
      case kStatusNotRunning: if (s.verbose == 0) write_to_log("I_DC_STAT", "Data Collector Down"); break;
      case kStatusNotInstalled: write_to_log("I_DC_STAT", "Data Collector not found!"); break;
      case kStatusUnknown: write_to_log("I_DC_STAT", "Data Collector Status Unknown"); break;
      case kStatusNone: break;
      default: log_printf("I_DC_STAT", "Unknown code (%d)", dc_status);
    }
    switch (rta_status) {
      case kStatusRunning: if (s.verbose == 0) write_to_log("I-RTA_STAT", "KOVArta UP"); break;
      case kStatusNotRunning: if (s.verbose == 0) write_to_log("I-RTA_STAT", "KOVArta DOWN"); break;
      case kStatusNotInstalled: write_to_log("I-RTA_STAT", "KOVArta not found"); break;
      case kStatusUnknown: write_to_log("I-RTA_STAT", "KOVArta status unknown"); break;
      case kStatusNone: break;
      default: log_printf("I-RTA_STAT", "Unknown code (%d)", rta_status);
    }
  }
  if (s.verbose == 1)
    log_printf("I-KOVA_DCSTAT_DETAIL", "returned:  dc_stat: %d  dc_interval: %d  dc_peak_interval: %d  rta_stat:%d\n",
               dc_status, dc.dc_interval, dc.dc_peak_interval, rta_status);
}

[[gnu::noinline]] int start_collector(int fd, const std::string& address, const PacketBuffer& request,
                                     const AgentSettings& s) {
  int dump = Packet_CheckOPCODE(request, 2);
  if (dump < 0 || dump > 60000) dump = 120;
  int peak = Packet_CheckOPCODE(request, 4) * 1000;
  if (peak < 0 || peak > 60000) peak = 0;
  log_printf("I-DC_START", "Start DC request from %s:    dump interval %d  peak interval %d", address.c_str(), dump,
             peak);
  int status = StartDC_UNIX(address, dump, peak, collector_state().dc_cmdline.retain, s);
  write_to_log("I-DC_START", status == kStatusRunning ? "Data Collector started" : "Data Collector not started");
  send_startstop(fd, status);
  return kDispatchCollectorStarted;
}

[[gnu::noinline]] int stop_collector(int fd, const std::string& address, const AgentSettings& s) {
  log_printf("I-REQ_DC_STOP", "Stop Data Collector request from %s", address.c_str());
  int status = StopDC_UNIX(s);
  if (status == kStatusNotRunning)
    write_to_log("I-DC_STOP", "Data Collector stopped");
  else
    log_printf("I-DC_STOP", "Data Collector NOT stopped - Code %d", status);
  send_startstop(fd, status);
  return kDispatchCollectorStopped;
}

[[gnu::noinline]] int component_status(int fd, const AgentState& state) {
  int dc_status = CheckDC_UNIX(state.settings);
  int rta_status = CheckRTA_UNIX(state.settings);
  log_component_states(state, dc_status, rta_status);
  const CollectorState& dc = collector_state();
  PacketBuffer reply{};
  int n = Packet_CreateDCSTAT(dc_status, dc.dc_interval, rta_status, dc.dc_peak_interval / 1000, reply);
  send_reply(fd, reply, static_cast<size_t>(n));
  return kDispatchStatusSent;
}

[[gnu::noinline]] int start_rta(int fd, const std::string& address, const PacketBuffer& request,
                               const AgentSettings& s) {
  int processes = Packet_CheckOPCODE(request, 2);
  int port = Packet_CheckLONG(request, 4);
  int scan_rate = Packet_CheckLONG(request, 8);
  log_printf("I-RTA_START", "Start KOVArta request from %s", address.c_str());
  log_printf("I-RTA_START", "Start KOVArta, Process: %d  Port: %d   ScanRate: %d", processes, port, scan_rate);
  int status = StartRTA_UNIX(address, processes, port, scan_rate, s);
  write_to_log("I-RTA_START", status == kStatusRunning ? "kovarta started" : "kovarta NOT started");
  send_startstop(fd, status);
  return kDispatchRtaStarted;
}

[[gnu::noinline]] int stop_rta(int fd, const std::string& address, const AgentSettings& s) {
  log_printf("I-RTA_STOP", "Stop KOVArta request from %s", address.c_str());
  int status = StopRTA_UNIX(s);
  if (status == kStatusNotRunning)
    write_to_log("I-RTA_STOP", "KOVArta stopped");
  else
    log_printf("I-RTA_STOP", "KOVArta Not stopped - Code %d", status);
  send_startstop(fd, status);
  return kDispatchRtaStopped;
}

[[gnu::noinline]] int sorlex_request(int fd, const std::string& address, int opcode, const AgentSettings& s) {
  const std::string& root = s.search_agent_root;
  int status;
  if (opcode == kOpStartSorlex) {
    log_printf("I-SORLEX_START", "Start Sorlex request from %s", address.c_str());
    status = program_allowed(s, sorlex_program_path(root)) ? StartSORLEX_UNIX(root, s.verbose)
                                                           : CheckSORLEX_UNIX(root, s.verbose);
    write_to_log("I-SORLEX_START", status == kStatusRunning ? "sorlexagent started" : "sorlexagent NOT started");
  } else if (opcode == kOpStopSorlex) {
    log_printf("I-SORLEX_STOP", "Stop SORLEX request from %s", address.c_str());
    status = program_allowed(s, sorlex_program_path(root)) ? StopSORLEX_UNIX(root, s.verbose)
                                                           : CheckSORLEX_UNIX(root, s.verbose);
    if (status == kStatusNotRunning)
      write_to_log("I-SORLEX_STOP", "SORLEX stopped");
    else
      log_printf("I-SORLEX_STOP", "SORLEX Not stopped - Code %d", status);
  } else {
    log_printf("I-SORLEX_STATUS", "Status SORLEX request from %s", address.c_str());
    status = CheckSORLEX_UNIX(root, s.verbose);
    write_to_log("I-SORLEX_STATUS", status == kStatusNotRunning ? "SORLEX stopped"
                                    : status == kStatusRunning  ? "SORLEX Started"
                                                                : "SORLEX NOT FOUND");
  }
  send_startstop(fd, status);
  return kDispatchDone;
}

[[gnu::noinline]] int receive_memory_file(int fd, const std::string& address, const AgentSettings& s) {
  PacketBuffer buffer{}, spare{};
  int result = receive_ascii_file(fd, s, s.memory_file_path, address, buffer, spare, 1, kPacketMemAck);
  if (result != 0) {
    int err = errno;
    log_printf("E-MEMF", "Problem receiving .MEMORY :  %d %s\n", err, std::strerror(err));
    send_error(fd, result);
  }
  return result;
}

[[gnu::noinline]] int perf_request(int fd, const std::string& address, const PacketBuffer& request, AgentState& state) {
  const AgentSettings& s = state.settings;
  PacketBuffer buffer{};
  const int result = process_perf_request(fd, s, address, request, buffer, state.zud_age);
  if (result == kResultRawDataNotFound)
    log_printf("E-PERF", "Problem sending .PERF :  %s\n", "zud data file not found.");
  else if (result != 0)
    log_printf("E-PERF", "Problem sending .PERF :  %d\n", result);
  if (result != 0)
    send_error(fd, result);
  else if (server_admitted(s, address, s.settings_server))
    purge_fetched_data_files(s, state.zud_age);
  return result;
}

[[gnu::noinline]] int config_request(int fd, const std::string& address, const PacketBuffer& request,
                                    const AgentSettings& s) {
  write_to_log("I-PERF", "Request CONFIG file.");
  PacketBuffer buffer{};
  int result = process_config_request(fd, s, address, request, buffer);
  if (result != 0) {
    log_printf("E-CONFIG", "Problem sending .dat :  %s\n", result_text(result));
    send_error(fd, result);
  }
  return result;
}

[[gnu::noinline]] int extended_request(int fd, const std::string& address, const PacketBuffer& request,
                                      AgentState& state) {
  ExtendedRequest ext;
  read_extended_tag(request, ext);
  log_printf("I-REQ_EXTEND", "Extended Request %s  from %s", log_escape(ext.tag.data()).c_str(), address.c_str());
  if (read_extended_payload(fd, ext, state.settings.verbose) != FrameStatus::kOk) return kDispatchDone;

  const AgentSettings& s = state.settings;
  switch (match_extended_tag(ext.tag.data())) {
    case ExtendedTag::kMerg: {
      PacketBuffer buffer{};
      const int result = process_merg_request(fd, s, address, ext.payload.data(), ext.length, buffer);
      if (result != 0) (void)socketsend_int_status(fd, result, "<MERG>", 1);
      return result;
    }
    case ExtendedTag::kAppData: {
      PacketBuffer buffer{};
      const int result = process_appdata_request(fd, s, address, ext.payload.data(), ext.length, buffer);
      // The status reply ends the exchange after the files, too.
      (void)socketsend_int_status(fd, result, "<APPDATA>", 1);
      return result;
    }
    case ExtendedTag::kPerfNode: {
      PacketBuffer buffer{};
      const int result =
          process_perf_node_request(fd, s, address, ext.payload.data(), ext.length, buffer, state.zud_age);
      if (result != 0) {
        log_printf("E-PERFNODE", "Problem sending .PERF :  %s\n", result_text(result));
        send_error(fd, result);
      }
      return result;
    }
    case ExtendedTag::kSysConfigNode: {
      (void)socketsend_char_status(fd, 0);
      PacketBuffer buffer{};
      int result = process_config_node_request(fd, s, address, ext.payload.data(), ext.length, buffer);
      if (result != 0) socketsend_int_status(fd, result, "<SYSCONFIG_NODE>", 1);
      return result;
    }
    case ExtendedTag::kGetAgentVersion:
      (void)socketsend_char_status(fd, 0);
      return process_getversion_request(fd, s);
    case ExtendedTag::kGetAgentRelease:
      (void)socketsend_char_status(fd, 0);
      return process_getrelease_request(fd, s);
    case ExtendedTag::kGetAgentOs:
      (void)socketsend_char_status(fd, 0);
      return process_getos_request(fd, s);
    case ExtendedTag::kDiskSpace:
      (void)socketsend_char_status(fd, 0);
      return process_getdiskspace_request(fd, s, address, ext.payload.data(), ext.length);
    case ExtendedTag::kUpdateData: {
      (void)socketsend_char_status(fd, 0);
      // The request line is the payload's text; its result is not used.
      const auto* text = reinterpret_cast<const char*>(ext.payload.data());
      const std::string line(text, ::strnlen(text, static_cast<size_t>(ext.length)));
      (void)process_update_request(fd, s, address, line);
      return kDispatchDone;
    }
    case ExtendedTag::kDcStatNode: {
      (void)socketsend_char_status(fd, 0);
      PacketBuffer buffer{};
      return process_dcstatus_node_request(fd, s, address, ext.payload.data(), ext.length, buffer);
    }
    case ExtendedTag::kDcStopNode: {
      (void)socketsend_char_status(fd, 0);
      PacketBuffer buffer{};
      return process_dcstop_node_request(fd, s, address, ext.payload.data(), ext.length, buffer);
    }
    case ExtendedTag::kDcStartNode: {
      (void)socketsend_char_status(fd, 0);
      PacketBuffer buffer{};
      return process_dcstart_node_request(fd, s, address, ext.payload.data(), ext.length, buffer, state.zud_age);
    }
    case ExtendedTag::kMemoryNode:
      (void)socketsend_char_status(fd, kResultMemoryNode);
      return kDispatchDone;
    case ExtendedTag::kUnknown:
      (void)socketsend_char_status(fd, kResultUnknownCode);
      log_printf("W-UKNTAG", "Unknown extended request %s  from %s", log_escape(ext.tag.data()).c_str(),
                 address.c_str());
      return kDispatchDone;
  }
  return kDispatchDone;
}

}  // namespace

[[gnu::hot]] int process_request(int fd, const std::string& address, AgentState& state, int pid) {
  const AgentSettings& s = state.settings;
  PacketBuffer request{};
  if (read_request(fd, request, s.verbose) < 0) {
    log_printf("E-READ", "Request read error:  %s\n", std::strerror(errno));
    return kDispatchReadError;
  }
  int opcode = request_opcode(request);
  if (s.verbose) log_printf("I-READ", "Check packet type... pid: %d  opcode: %d", pid, opcode);

  switch (opcode) {
    case kOpPerfData: return perf_request(fd, address, request, state);
    case kOpMemoryFile: return receive_memory_file(fd, address, s);
    case kOpStartCollector: return start_collector(fd, address, request, s);
    case kOpStopCollector: return stop_collector(fd, address, s);
    case kOpIgnored: return kDispatchDone;
    case kOpComponentStatus: return component_status(fd, state);
    case kOpTerminate: return kDispatchTerminate;
    case kOpRawData:
    case kOpRawDataMode1: return process_rawdata_request(fd, s, address, request, opcode == kOpRawData ? 0 : 1);
    case kOpStartRta: return start_rta(fd, address, request, s);
    case kOpStopRta: return stop_rta(fd, address, s);
    case kOpVersion: {
      write_to_log("I-VERS", "sending version to server 6.0 \n");
      PacketBuffer reply{};
      Packet_CreateVERS(6, 0, reply);
      send_reply(fd, reply, 8);
      return kDispatchDone;
    }
    case kOpConfig: return config_request(fd, address, request, s);
    case kOpOsId: {
      write_to_log("I-VERS", "sending os ID \n");
      PacketBuffer reply{};
      Packet_CreateOS(reply, kOsId);
      send_reply(fd, reply, 4);
      return kDispatchDone;
    }
    case kOpStartSorlex:
    case kOpStopSorlex:
    case kOpSorlexStatus: return sorlex_request(fd, address, opcode, s);
    case kOpExtended: return extended_request(fd, address, request, state);
    default:
      log_printf("E-UNKNOWN_CODE", "Unknown code from server, %s   code %d", address.c_str(), opcode);
      return kDispatchDone;
  }
}

}  // namespace kova
