#include "settings/hardening.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace kova::test {
namespace {

AgentSettings hardened(const std::string& server = "10.0.0.1") {
  AgentSettings s;
  s.harden = 1, s.server = server;
  return s;
}

// Each list and peer with the answer of the legacy rule and of hardened mode.
TEST(ServerList, HardenedModeMatchesWholeAddressesAndBlocksNeverSubstrings) {
  const std::tuple<const char*, const char*, bool, bool> cases[] = {
      {"127.0.0.10", "127.0.0.1", true, false},
      {"10.1.1.1, 10.1.1.2,,", "10.1.1.2", true, true},
      {"10.1.0.0/16", "10.1.255.7", false, true},
      {"10.1.2.3/15", "10.0.9.9", false, true},  // host bits below the prefix do not count
      {"192.168.1.128/25", "192.168.1.127", false, false},
      {"fd00::/8", "fd12::5", false, true},
      {"fd00::/8", "fe80::1", false, false},
      {"::ffff:10.0.0.0/104", "10.0.0.9", false, true},  // a mapped block is an IPv4 block
      {"10.0.0.0/8", "fd00::a00:1", false, false},
      {"0.0.0.0", "10.9.9.9", true, true},             // refused at start for the registered list
      {"10.0.0.1,bogus", "10.0.0.1", true, false},     // a list that does not parse admits nobody
      {"10.0.0.0/33", "10.0.0.0", true, false},
  };
  for (const auto& [list, peer, legacy, hard] : cases) {
    AgentSettings s = hardened();
    EXPECT_EQ(server_admitted(s, peer, list), hard) << list << " " << peer;
    s.harden = 0;
    EXPECT_EQ(server_admitted(s, peer, list), legacy) << list << " " << peer;
  }
  EXPECT_EQ(effective_server_list(" 10.1.2.3/15,::ffff:10.0.0.0/104, fd00::1/8,::1"),
            "10.0.0.0/15,10.0.0.0/8,fd00::/8,::1");
}

// The real binary shows "0.0.0.0" and an empty list refused.
TEST(ServerList, HardenedModeStartsOnlyWithAListThatServesSomeone) {
  AgentSettings too_many = hardened();
  too_many.max_requests = 1025;
  for (const auto& [settings, problem] : std::initializer_list<std::pair<AgentSettings, std::string>>{
           {hardened("10.0.0.0/8, fd00::1"), ""}, {hardened("10.0.0.1,::/0"), "instead of \"::/0\""},
           {hardened("10.1.2.3/0"), "instead of"}, {hardened("10.0.0.256"), "\"10.0.0.256\" is not an address"},
           {too_many, "not 1025"}}) {
    const std::string said = hardened_start_problem(settings);
    EXPECT_TRUE(problem.empty() ? said.empty() : said.find(problem) != std::string::npos) << said;
  }
}

TEST(Programs, HardenedModeRunsOnlyWhatLiesInTheAgentsOwnTrees) {
  AgentSettings s = hardened();
  s.install_root = "/opt/kova/", s.search_agent_root = "/opt/vantrel";
  for (const auto& [program, sorlex_given, allowed] : std::initializer_list<std::tuple<const char*, int, bool>>{
           {"/opt/kova/bin/vorn_monitor", 0, true}, {"/opt/kova/bin/../../../usr/bin/x", 0, false},
           {"/opt/kova2/bin/x", 0, false}, {"/opt/vantrel/bin/sorlexagent", 0, false},
           {"/opt/vantrel/bin/sorlexagent", 1, true}}) {
    s.search_agent_root_given = sorlex_given, s.harden = 1;
    EXPECT_EQ(program_allowed(s, program), allowed) << program;
    s.harden = 0;
    EXPECT_TRUE(program_allowed(s, program)) << program;
  }
}

}  // namespace
}  // namespace kova::test
