// Performance data requests: the server asks for one day's collector data
// cut to a time range (kovaperf makes a ".perf" work file, which is then
// streamed with the file-transfer sub-protocol), or for whole raw data
// files by name. Every handler runs once in the connection's child and
// returns a result code (wire/status.h) for the dispatcher to report.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "platform/files.h"
#include "settings/agent_settings.h"
#include "wire/packet.h"

namespace kova {

// Width of a time field on the wire; its text is "DD-Mon-YYYY:HH:MM".
inline constexpr size_t kTimeFieldSize = 18;
// Seconds a data request waits before it reads anything more.
inline constexpr unsigned kDataRequestPause = 10;
// Longest raw data-file name accepted from the wire.
inline constexpr int kRawNameMax = 255;

// ---- time texts

// The text of a fixed-width field of a request (`width` bytes at `offset`,
// fewer when the bytes end first), cut at its first NUL.
std::string request_text_field(std::span<const unsigned char> bytes, size_t offset, size_t width);

// True when `time` begins with a well-formed "DD-Mon-YYYY:HH:MM" (digits and
// letters where they belong); the file names below are built from it.
[[nodiscard]] bool is_request_time(const std::string& time);

// "YYYYMonDD" from "DD-Mon-YYYY:HH:MM". The month's first letter is upper
// case when upper == 1, else lower case; the other two always lower case.
// Returns 1, or 0 with `out` cleared when `time` is not well formed.
int formatDataFileTime(const std::string& time, std::string& out, int upper);

// "YYYYMonDD_HHMM" from the same text, month as it stands. 1, or 0 as above.
int formatFileTime(const std::string& time, std::string& out);

// Yesterday's local date (clock_now) as "%Y%b%d". Returns 1.
int formatFileNameTime(std::string& out);

// ---- data files and work files

// The collector data file of `host` for `date` (YYYYMonDD), chosen by the
// operating-system text of the request: empty (this agent's own platform)
// or "Solaris x86" gives "qdtsx_", "Solaris" "qdts_", "VMware ESX" "qdtv_",
// "Linux" "qdtl_", "AIX" "qdta_", "HP-UX" "qdth_", anything else "qdt_",
// all with ".zud-1"; "VMS" gives "<host>_<date>.pmd". First match wins, in
// the order the table in perf_request.cpp lists.
std::string perf_data_file_name(const std::string& host, const std::string& os, const std::string& date);

// Runs kovaperf over the data file of `host` and `os` for the day of
// `start`, cut to start..end, into the ".perf" work file whose path goes
// to perf_path_out: "<tmp>/<host>_<YYYYMonDD_HHMM>_<peer>.perf", or with
// remote == 1 "<outgoing>/<host>_<yesterday>.perf". `host` must hold no
// "/". Returns 0 when the tool ran (a tool that wrote nothing shows up as
// a failed transfer, and so does one killed at the program deadline: its
// partial file is deleted and "E-PERF_TIMEOUT" logged), 12 when the data
// file does not exist (nothing run), 16 when the tool could not be
// started, 9 when a time is not well formed. With `turn`, the work file's
// lock is taken before the file is touched and left to the caller to hold
// until it has sent and removed the file.
[[nodiscard]] int create_perf_file(const AgentSettings& settings, const std::string& peer, const std::string& host,
                                   const std::string& os, const std::string& start, const std::string& end,
                                   std::string& perf_path_out, WorkFileLock* turn = nullptr);

// ---- request handlers

// Opcode 1. Waits kDataRequestPause seconds (clock_sleep), then takes the
// range at offsets 2 and 20 and the signed 16-bit purge age at 38 into
// zud_age. When `peer` is the registered settings server the age is merged
// into the collector's settings file. Needs the memory file; makes, sends
// and (unless keep_perf) deletes the ".perf" file for this host. Returns 0,
// 1 or 2 from the transfer, 9 bad times, 11 no memory file, 12 no data
// file, 16 tool not started. A failure before the transfer sends nothing
// (a missing ".perf" goes out as the empty header); the caller sends the
// error packet, and on success purges (purge_fetched_data_files).
[[nodiscard]] int process_perf_request(int socket, const AgentSettings& settings, const std::string& peer,
                                       const PacketBuffer& request, PacketBuffer& buffer, int& zud_age);

// The "PERF_NODE" extended request. Payload: start (18), end (18), signed
// 16-bit purge age (2), host name (32), then the OS text in the remaining
// bytes (none when length is 70). Like process_perf_request for that host
// and OS, without the settings merge; after a successful extraction it
// purges that host's data files older than the age itself. Returns the
// same codes; 9 also for a payload too short or a host name with "/".
[[nodiscard]] int process_perf_node_request(int socket, const AgentSettings& settings, const std::string& peer,
                                            const unsigned char* payload, int length, PacketBuffer& buffer,
                                            int& zud_age);

// The purge that follows a successful opcode-1 request from the registered
// settings server: this host's data files older than `age` days, ".zud"
// in data_dir, or with measureware_source == 1 ".gbl", ".prc", ".dsk",
// ".net", ".vol", ".cpu", ".zud" in mwa_dir. Nothing when age <= 0.
void purge_fetched_data_files(const AgentSettings& settings, int age);

// Opcodes 8 (mode 0) and 13 (mode 1); the mode changes nothing on the
// wire. Logs the request and hands it to send_zud_file.
[[nodiscard]] int process_rawdata_request(int socket, const AgentSettings& settings, const std::string& peer,
                                          const PacketBuffer& request, int mode);

// Takes the name length (16 bits at offset 2), waits kDataRequestPause
// seconds, reads that many bytes of name from the socket and sends the
// files that send_zud_files_unix finds for the name less its first four
// characters (the type prefix; a bare prefix matches every file). A name
// shorter than four characters (up to its first NUL), or longer than
// kRawNameMax, is refused with 9. 1 when the name cannot be read.
[[nodiscard]] int send_zud_file(int socket, const AgentSettings& settings, const std::string& peer,
                                const PacketBuffer& request, int mode);

// Sends every regular file in data_dir (mwa_dir with measureware_source ==
// 1) whose name contains `pattern`, in directory order: a 10-byte item
// packet (3, full 522-byte blocks, last block size, name length), the bare
// name, the bytes; then one closing packet (4, 0, 0, 0). Returns 0; 12 when
// the directory cannot be read or nothing matched (nothing sent); 4 a file
// cannot be opened, 1 read failed, 2 write failed (the server then gets no
// closing packet).
[[nodiscard]] int send_zud_files_unix(int socket, const AgentSettings& settings, const std::string& pattern,
                                      int mode);

}  // namespace kova
