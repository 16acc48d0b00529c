#include "settings/hardening.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>

namespace kova::test {
namespace {

AgentSettings hardened(const std::string& server = "10.0.0.1") {
  AgentSettings s;
  s.harden = 1;
  s.server = server;
  return s;
}

// Each list and peer with the answer of the legacy rule and of hardened mode.
TEST(ServerList, HardenedModeMatchesWholeAddressesAndBlocksNeverSubstrings) {
  struct Case {
    const char* list;
    const char* peer;
    bool legacy, hard;
  };
  const Case cases[] = {
      {"10.0.0.12", "10.0.0.1", true, false},
      {"127.0.0.10", "127.0.0.1", true, false},
      {"10.1.1.1, 10.1.1.2", "10.1.1.2", true, true},  // blanks around entries
      {"10.1.1.1,,10.1.1.2,", "10.1.1.2", true, true},
      {"10.1.0.0/16", "10.1.255.7", false, true},
      {"10.1.0.0/16", "10.2.0.1", false, false},
      {"10.1.2.3/15", "10.0.9.9", false, true},  // host bits below the prefix do not count
      {"192.168.1.128/25", "192.168.1.127", false, false},
      {"192.168.1.128/25", "192.168.1.200", false, true},
      {"10.0.0.1/32", "10.0.0.1", true, true},
      {"fd00::/8", "fd12::5", false, true},
      {"fd00::/8", "fe80::1", false, false},
      {"::1", "::1", true, true},
      {"::ffff:10.0.0.0/104", "10.0.0.9", false, true},  // a mapped block is an IPv4 block
      {"10.0.0.0/8", "fd00::a00:1", false, false},        // never across families
      {"0.0.0.0", "10.9.9.9", true, true},                // every server (refused at start for -server)
      {"10.0.0.1,bogus", "10.0.0.1", true, false},        // a list that does not parse admits nobody
      {"10.0.0.0/33", "10.0.0.0", true, false},
      {"10.0.0.0/", "10.0.0.0", true, false},
      {"", "10.0.0.1", false, false},
  };
  for (const Case& c : cases) {
    AgentSettings s = hardened();
    EXPECT_EQ(server_admitted(s, c.peer, c.list), c.hard) << c.list << " " << c.peer;
    s.harden = 0;
    EXPECT_EQ(server_admitted(s, c.peer, c.list), c.legacy) << c.list << " " << c.peer;
  }
}

TEST(ServerList, HardenedModeStartsOnlyWithAListThatServesSomeone) {
  const std::pair<AgentSettings, std::string> cases[] = {
      {hardened("10.0.0.0/8, fd00::1"), ""},
      {hardened(""), "the list is empty"},
      {hardened(" , "), "the list is empty"},
      {hardened("0.0.0.0"), "instead of \"0.0.0.0\""},
      {hardened("10.0.0.1,::/0"), "instead of \"::/0\""},
      {hardened("10.1.2.3/0"), "instead of \"10.1.2.3/0\""},
      {hardened("10.0.0.256"), "registered server \"10.0.0.256\" is not an address or a CIDR block"},
      {[] { AgentSettings s = hardened(); s.settings_server = "x"; return s; }(), "settings server \"x\""},
      {[] { AgentSettings s = hardened(); s.max_requests = 0; return s; }(), "between 1 and 1024, not 0"},
      {[] { AgentSettings s = hardened(); s.max_requests = 1025; return s; }(), "not 1025"},
      {AgentSettings{}, ""},  // the legacy mode serves "0.0.0.0" as it always has
  };
  for (const auto& [settings, problem] : cases) {
    const std::string said = hardened_start_problem(settings);
    if (problem.empty())
      EXPECT_EQ(said, "") << settings.server;
    else
      EXPECT_NE(said.find(problem), std::string::npos) << said;
  }
}

TEST(Programs, HardenedModeRunsOnlyWhatLiesInTheAgentsOwnTrees) {
  AgentSettings s = hardened();
  s.install_root = "/opt/kova/";
  s.search_agent_root = "/opt/vantrel";
  const std::tuple<const char*, int, bool> cases[] = {
      {"/opt/kova/bin/vorn_monitor", 0, true},
      {"/opt/kova/bin/../../../usr/bin/vorn_monitor", 0, false},
      {"/opt/kova2/bin/vorn_monitor", 0, false},
      {"/usr/bin/vorn_monitor", 0, false},
      {"/opt/vantrel/bin/sorlexagent", 0, false},  // the default root of the search agent
      {"/opt/vantrel/bin/sorlexagent", 1, true},   // named by $SORLEX_LIBRARY
  };
  for (const auto& [program, sorlex_given, allowed] : cases) {
    s.search_agent_root_given = sorlex_given;
    s.harden = 1;
    EXPECT_EQ(program_allowed(s, program), allowed) << program;
    s.harden = 0;
    EXPECT_TRUE(program_allowed(s, program)) << program;
  }
}

}  // namespace
}  // namespace kova::test
