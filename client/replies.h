// Reply packets decoded into plain values and words, for kovaget and tests.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace kova::client {

struct Version {
  int major = 0;
  int minor = 0;
};

struct DcStat {
  int dc_status = 0;
  int dc_interval = 0;     // seconds
  int rta_status = 0;
  int peak_seconds = 0;
};

// Each takes the bytes of one reply; false when they are too few or carry
// another packet code.
[[nodiscard]] bool decode_version(std::span<const unsigned char> bytes, Version& out);
[[nodiscard]] bool decode_dcstat(std::span<const unsigned char> bytes, DcStat& out);
[[nodiscard]] bool decode_startstop(std::span<const unsigned char> bytes, int& status);
[[nodiscard]] bool decode_os(std::span<const unsigned char> bytes, int32_t& id);

// "up", "down", "not found", "unknown", "none" for the component states 3,
// 4, 5, 99 and 0; "" for any other code.
std::string component_state_name(int status);

// True for the states a component can be in; false for 99 ("unknown") and
// any code the agent does not send.
bool component_state_known(int status);

// "up (3)", "down (4)", "not found (5)", "unknown (99)", "none (0)", or
// "code N" for any other.
std::string component_status_words(int status);

// Words for the status at the start of an extended reply: "accepted (0)",
// "memory node (20)", or the result code's text.
std::string extended_status_words(int status);

// Offset, hex bytes and printable characters, 16 bytes a line.
std::string hex_dump(std::span<const unsigned char> bytes);

// Two lower-case hex digits a byte, nothing between them.
std::string hex_string(std::span<const unsigned char> bytes);

}  // namespace kova::client
