#include "components/sorlex.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "component_fixture.h"

namespace kova::test {
namespace {

class Sorlex : public ComponentTest {};

TEST_F(Sorlex, SpareStartupFileIsPutInPlaceAndTheProgramRunsUntilStopped) {
  write_file(root_ + "/tmp/sorlexagent.txt", "index=/var/idx\n");
  ASSERT_EQ(StartSORLEX_UNIX(root_, 1), kStatusRunning) << log_text();
  EXPECT_EQ(read_file(root_ + "/sorlexagent.txt"), "index=/var/idx\n");
  const int pid = std::atoi(read_file(root_ + "/tmp/sorlexagent.pid").c_str());
  ASSERT_GT(pid, 0);
  EXPECT_EQ(CheckSORLEX_UNIX(root_, 1), kStatusRunning);
  EXPECT_NE(log_text().find("Sorlex Agent UP"), std::string::npos);

  // An existing start-up file is left as it is.
  write_file(root_ + "/tmp/sorlexagent.txt", "spare\n");
  EXPECT_EQ(StopSORLEX_UNIX(root_, 1), kStatusNotRunning) << log_text();
  EXPECT_TRUE(wait_for_exit(pid));
  EXPECT_NE(log_text().find("Sorlex Agent DOWN"), std::string::npos);
  EXPECT_NE(log_text().find(root_ + "/bin/sorlexagent -stop\n"), std::string::npos) << "logged as it reads, unquoted";
  EXPECT_EQ(StartSORLEX_UNIX(root_, 0), kStatusRunning);
  EXPECT_EQ(read_file(root_ + "/sorlexagent.txt"), "index=/var/idx\n");
  const int second = std::atoi(read_file(root_ + "/tmp/sorlexagent.pid").c_str());
  EXPECT_EQ(StopSORLEX_UNIX(root_, 0), kStatusNotRunning);
  EXPECT_TRUE(wait_for_exit(second));
}

}  // namespace
}  // namespace kova::test
