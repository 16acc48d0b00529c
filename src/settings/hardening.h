// Hardened mode, the opt-in switch ("-harden", "HARDEN~1") for sites on
// networks they do not trust: registered servers named exactly or by CIDR
// block, programs run only from the agent's own tree. Without the switch
// every answer here is the one the agent has always given.
#pragma once

#include <array>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "settings/agent_settings.h"

namespace kova {

// One entry of a server list: an address, or a block of them.
struct AddressBlock {
  std::array<unsigned char, 16> bytes{};  // network order; IPv4 uses the first 4
  bool v6 = false;
  int prefix = 0;  // leading bits that must match: 32 or 128 for one address
};

// "10.1.0.0/16", "10.1.2.3", "fd00::/8", "::1"; an IPv4-mapped IPv6 entry is
// taken as the IPv4 address or block it maps, since peers are matched in
// dotted form. Host bits below the prefix are ignored. False when `text` is
// none of these.
[[nodiscard]] bool parse_address_block(std::string_view text, AddressBlock& out);

// True when `text` is an IPv4 or IPv6 address literal (no prefix).
[[nodiscard]] bool is_address_literal(std::string_view text);

// Parses a ","-separated list; blanks around an entry are ignored and empty
// entries skipped. False at the first entry that is not an address or a
// block; `bad` then holds it.
[[nodiscard]] bool parse_server_list(std::string_view list, std::vector<AddressBlock>& out, std::string& bad);

// The list as hardened mode applies it, for people to check: each entry an
// address, or a block with its host bits cleared, IPv4-mapped entries as
// IPv4, joined by ","; "" when the list does not parse.
std::string effective_server_list(std::string_view list);

// True when the address literal `address` equals one entry of `blocks` or
// lies in one of its blocks. Never a substring match.
[[nodiscard]] bool address_in_blocks(std::string_view address, std::span<const AddressBlock> blocks);

// Whether the peer `address` is one of the servers `list` names. Hardened:
// "0.0.0.0" stands for every server (start-up refuses it for the registered
// list, so it only ever widens the settings server to every registered
// one), otherwise an exact or CIDR match; a list that does not parse admits
// nobody. Otherwise the legacy rule of validateConsole.
[[nodiscard]] bool server_admitted(const AgentSettings& settings, const std::string& address,
                                   const std::string& list);

// Why the agent must not start in hardened mode with these settings, as one
// line for standard error; empty when it may (always, when the mode is off).
std::string hardened_start_problem(const AgentSettings& settings);

// Whether the agent may run `program`. Hardened: only from inside the install
// root, or the search agent's root when $SORLEX_LIBRARY named it; anything
// else is logged ("W-HARDENED") and refused. Always true when the mode is off.
[[nodiscard]] bool program_allowed(const AgentSettings& settings, const std::string& program);

}  // namespace kova
