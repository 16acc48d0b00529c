// A server that stops reading a large transfer, against the agent with its
// send bound cut to a second.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>

#include "platform/unique.h"
#include "support/agent_process.h"

namespace kova::test {
namespace {

using SendBound = AgentTest;

TEST_F(SendBound, AReaderThatStopsFreesItsRequestChild) {
  InstallTree tree;
  // Far more than the loopback connection's buffers hold.
  write_file(tree / "tmp/kova_sysconf_bighost.dat", std::string(32 << 20, 'c'));
  RunningAgent agent(tree, free_port(), {}, {"KOVA_DEBUG=1"}, KOVA_SHORT_SEND_AGENT_BIN);
  ASSERT_TRUE(agent.started()) << agent.launch().err;

  UniqueFd server(connect_loopback(agent.port()));
  ASSERT_TRUE(server);
  const std::string request = extended_packet("SYSCONFIG_NODE", "bighost");
  ASSERT_EQ(::send(server.get(), request.data(), request.size(), MSG_NOSIGNAL), static_cast<ssize_t>(request.size()));
  // The server keeps the connection open and reads nothing; every request
  // child the agent started (the first served its start-up probe) ends.
  EXPECT_TRUE(eventually([&] {
    const std::string log = tree.log();
    return log.find("Extended Request SYSCONFIG_NODE") != std::string::npos &&
           occurrences(log, "Request started: pid") == occurrences(log, "Request finished: pid");
  }, std::chrono::seconds(30))) << tree.log();
  const std::string log = tree.log();
  EXPECT_NE(log.find("E-WRITE,       write to socket failed Connection timed out"), std::string::npos) << log;
  EXPECT_NE(log.find("Problem sending request for <SYSCONFIG_NODE>,  Send Error"), std::string::npos) << log;
  EXPECT_TRUE(agent.alive());
}

}  // namespace
}  // namespace kova::test
