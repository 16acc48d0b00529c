#include "settings/hardening.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "base/log.h"
#include "platform/files.h"

namespace kova {
namespace {

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// The non-empty entries of a ","-separated list, blanks trimmed.
std::vector<std::string_view> list_entries(std::string_view list) {
  std::vector<std::string_view> entries;
  while (!list.empty()) {
    const size_t comma = list.find(',');
    if (std::string_view entry = trimmed(list.substr(0, comma)); !entry.empty()) entries.push_back(entry);
    list = comma == std::string_view::npos ? std::string_view() : list.substr(comma + 1);
  }
  return entries;
}

// True when the first `bits` bits of a and b agree.
bool same_leading_bits(const std::array<unsigned char, 16>& a, const std::array<unsigned char, 16>& b, int bits) {
  const size_t whole = static_cast<size_t>(bits / 8);
  if (std::memcmp(a.data(), b.data(), whole) != 0) return false;
  if (bits % 8 == 0) return true;
  const auto mask = static_cast<unsigned char>(0xff << (8 - bits % 8));
  return (a[whole] & mask) == (b[whole] & mask);
}

// An entry that admits every peer ("0.0.0.0", "::", any "/0"), or only the
// unspecified addresses no peer ever has: all its significant bits are zero.
bool admits_everyone(const AddressBlock& block) {
  return std::all_of(block.bytes.begin(), block.bytes.end(), [](unsigned char b) { return b == 0; });
}

}  // namespace

bool parse_address_block(std::string_view text, AddressBlock& out) {
  out = AddressBlock{};
  std::string_view address = text;
  int prefix = -1;
  if (const size_t slash = text.find('/'); slash != std::string_view::npos) {
    address = text.substr(0, slash);
    const std::string_view bits = text.substr(slash + 1);
    const auto [end, error] = std::from_chars(bits.data(), bits.data() + bits.size(), prefix);
    if (bits.empty() || error != std::errc{} || end != bits.data() + bits.size()) return false;
  }
  const std::string literal(address);  // inet_pton needs the terminating NUL
  int width;
  if (::inet_pton(AF_INET, literal.c_str(), out.bytes.data()) == 1) {
    width = 32;
  } else if (::inet_pton(AF_INET6, literal.c_str(), out.bytes.data()) == 1) {
    width = 128;
    out.v6 = true;
  } else {
    return false;
  }
  if (prefix < 0) prefix = width;
  if (prefix > width) return false;
  static constexpr unsigned char kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  if (out.v6 && prefix >= 96 && std::memcmp(out.bytes.data(), kMappedPrefix, 12) == 0) {
    std::memmove(out.bytes.data(), out.bytes.data() + 12, 4);
    std::fill(out.bytes.begin() + 4, out.bytes.end(), 0);
    out.v6 = false;
    prefix -= 96;
  }
  // Host bits are cleared, so that a block compares by its prefix alone.
  for (int bit = prefix; bit < 128; ++bit) out.bytes[static_cast<size_t>(bit / 8)] &= ~(0x80 >> (bit % 8));
  out.prefix = prefix;
  return true;
}

bool is_address_literal(std::string_view text) {
  AddressBlock block;
  return text.find('/') == std::string_view::npos && parse_address_block(text, block);
}

bool parse_server_list(std::string_view list, std::vector<AddressBlock>& out, std::string& bad) {
  out.clear();
  for (std::string_view entry : list_entries(list)) {
    AddressBlock block;
    if (!parse_address_block(entry, block)) {
      bad = entry;
      return false;
    }
    out.push_back(block);
  }
  return true;
}

std::string effective_server_list(std::string_view list) {
  std::vector<AddressBlock> blocks;
  std::string bad, out;
  if (!parse_server_list(list, blocks, bad)) return {};
  for (const AddressBlock& block : blocks) {
    char text[INET6_ADDRSTRLEN] = {};
    ::inet_ntop(block.v6 ? AF_INET6 : AF_INET, block.bytes.data(), text, sizeof text);
    if (!out.empty()) out += ',';
    out += text;
    if (block.prefix != (block.v6 ? 128 : 32)) out += "/" + std::to_string(block.prefix);
  }
  return out;
}

bool address_in_blocks(std::string_view address, std::span<const AddressBlock> blocks) {
  AddressBlock peer;
  if (!is_address_literal(address) || !parse_address_block(address, peer)) return false;
  return std::any_of(blocks.begin(), blocks.end(), [&](const AddressBlock& block) {
    return block.v6 == peer.v6 && same_leading_bits(block.bytes, peer.bytes, block.prefix);
  });
}

[[gnu::hot]] bool server_admitted(const AgentSettings& settings, const std::string& address, const std::string& list) {
  if (settings.harden != 1) return validateConsole(address, list) == 1;
  if (list == kAnyServer) return true;
  std::vector<AddressBlock> blocks;
  std::string bad;
  return parse_server_list(list, blocks, bad) && address_in_blocks(address, blocks);
}

std::string hardened_start_problem(const AgentSettings& s) {
  if (s.harden != 1) return {};
  const std::vector<std::string_view> servers = list_entries(s.server);
  if (servers.empty())
    return "kovaagent, hardened mode needs the registered servers (-server or KOVASERVER~); the list is empty\n";
  for (std::string_view entry : servers) {
    AddressBlock block;
    if (!parse_address_block(entry, block))
      return string_printf(
          "kovaagent, hardened mode: registered server \"%.*s\" is not an address or a CIDR block\n",
          static_cast<int>(entry.size()), entry.data());
    if (admits_everyone(block))
      return string_printf(
          "kovaagent, hardened mode never serves every server: name the registered servers with -server or "
          "KOVASERVER~ instead of \"%.*s\"\n",
          static_cast<int>(entry.size()), entry.data());
  }
  std::vector<AddressBlock> blocks;
  std::string bad;
  if (s.settings_server != kAnyServer && !parse_server_list(s.settings_server, blocks, bad))
    return string_printf("kovaagent, hardened mode: settings server \"%s\" is not an address or a CIDR block\n",
                         bad.c_str());
  if (s.max_requests < 1 || s.max_requests > kMaxRequestsLimit)
    return string_printf("kovaagent, hardened mode: MAX_REQUESTS must be between 1 and %d, not %d\n",
                         kMaxRequestsLimit, s.max_requests);
  return {};
}

bool program_allowed(const AgentSettings& s, const std::string& program) {
  if (s.harden != 1) return true;
  if (path_inside(program, s.install_root)) return true;
  if (s.search_agent_root_given == 1 && path_inside(program, s.search_agent_root)) return true;
  log_printf("W-HARDENED", "Hardened mode: %s is outside the install root %s, not run", program.c_str(),
             s.install_root.c_str());
  return false;
}

}  // namespace kova
