// Merge requests: the server asks for one day of this host's collector
// data merged over a time range by vorn_analyze, which writes a ".merg"
// file (sent back with the file-transfer sub-protocol) and a ".proc"
// report beside it (left for other uses, then deleted with the ".merg").
#pragma once

#include <string>

#include "platform/files.h"
#include "settings/agent_settings.h"
#include "wire/packet.h"

namespace kova {

// Runs vorn_analyze over this host's data file ("qdtsx_<host>_<YYYYMonDD>
// .zud-1" in data_dir, the day of `start`) for start..end. The outputs are
// "<tmp>/<host>_<YYYYMonDD_HHMM>_<peer>.merg" and
// "<tmp>/<host>_<YYYYMonDD_HHMM>.proc", or with remote == 1
// "<outgoing>/<host>_<yesterday>.merg" and ".proc"; their paths go to the
// out parameters. Returns 0 once the tool was tried, even when it could
// not be started or was killed at the program deadline (the transfer then
// finds no ".merg" file; a killed tool's outputs are deleted and
// "E-MERG_TIMEOUT" logged); 12 when the data file is missing, 13 when the
// tool is (nothing run); 9 when a time is not well formed. With `turn`,
// the lock on the ".proc" name (which requests from every server for the
// range share) is taken before either file is touched and left to the
// caller to hold until both are gone.
[[nodiscard]] int create_merg_file(const AgentSettings& settings, const std::string& peer, const std::string& start,
                                   const std::string& end, std::string& merg_path_out, std::string& proc_path_out,
                                   WorkFileLock* turn = nullptr);

// The "<MERG>" extended request. Waits kDataRequestPause seconds
// (clock_sleep); payload: start (18 bytes), end (18 bytes), texts of the
// form DD-Mon-YYYY:HH:MM. Needs the memory file; makes and sends the
// ".merg" file, then deletes both outputs unless keep_perf. Returns 0, 1 or
// 2 from the transfer, 9 bad payload, 11 no memory file, 12 no data file,
// 13 no vorn_analyze. A failure before the transfer sends nothing (a
// missing ".merg" goes out as the empty header); the caller reports it.
[[nodiscard]] int process_merg_request(int socket, const AgentSettings& settings, const std::string& peer,
                                       const unsigned char* payload, int length, PacketBuffer& buffer);

}  // namespace kova
