// The "<APPDATA>" extended request: the server fetches the files of
// another application from a registered directory, by name pattern and
// optionally day and suffix, and may have the old ones purged afterwards.
#pragma once

#include <cstddef>
#include <string>

#include "settings/agent_settings.h"
#include "wire/packet.h"

namespace kova {

// Payload layout: the requested day in the agent's date form (18 bytes),
// the purge age in days (signed 16 bits; below 0: no purge), the
// append-time flag (16 bits; 1: select by the day's date styles), the
// append-suffix flag (16 bits; 1: the suffix restricts), the suffix (12
// bytes), then the directory and name pattern to the payload's end.
inline constexpr size_t kAppDataDayOffset = 0;
inline constexpr size_t kAppDataPurgeOffset = 18;
inline constexpr size_t kAppDataAppendTimeOffset = 20;
inline constexpr size_t kAppDataAppendSuffixOffset = 22;
inline constexpr size_t kAppDataSuffixOffset = 24;
inline constexpr size_t kAppDataSuffixWidth = 12;
inline constexpr size_t kAppDataPathOffset = 36;
// Longest directory and pattern taken (the text, less trailing NULs).
inline constexpr size_t kAppDataPathMax = 1023;

// Serves the request. On success the server receives an ERR2 packet (0,
// number of files), then for each file a STRING packet with its bare name
// and its transfer; a file is first compressed with
// settings.compression_command when that is longer than one character, and
// the compressed copy deleted after sending. Afterwards, with a purge age
// of 0 or more, the pattern's old files are purged. Returns the last
// transfer's result; 9 for a payload whose fields cannot be taken (or
// longer than 2048 bytes), 12 when nothing matched, 17 / 18 when the
// directory is not registered / cannot be opened, 19 when compression
// failed (the request ends at that file). Nothing is sent on a failure
// before the count; the caller sends the status reply in every case.
[[nodiscard]] int process_appdata_request(int socket, const AgentSettings& settings, const std::string& peer,
                                          const unsigned char* payload, int length, PacketBuffer& buffer);

}  // namespace kova
