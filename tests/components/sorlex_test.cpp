#include "components/sorlex.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "component_fixture.h"

namespace kova::test {
namespace {

class Sorlex : public ComponentTest {};

// Starting, stopping and the status reply are checked against the real binary.
TEST_F(Sorlex, ASpareStartupFileIsPutInPlaceOnlyWhenThereIsNone) {
  write_file(root_ + "/tmp/sorlexagent.txt", "index=/var/idx\n");
  ASSERT_EQ(StartSORLEX_UNIX(root_, 1), kStatusRunning) << log_text();
  EXPECT_EQ(read_file(root_ + "/sorlexagent.txt"), "index=/var/idx\n");
  const int pid = std::atoi(read_file(root_ + "/tmp/sorlexagent.pid").c_str());
  EXPECT_NE(log_text().find("Sorlex Agent UP"), std::string::npos);

  write_file(root_ + "/tmp/sorlexagent.txt", "spare\n");
  EXPECT_EQ(StopSORLEX_UNIX(root_, 1), kStatusNotRunning) << log_text();
  EXPECT_TRUE(wait_for_exit(pid));
  EXPECT_NE(log_text().find("Sorlex Agent DOWN"), std::string::npos);
  EXPECT_NE(log_text().find(root_ + "/bin/sorlexagent -stop\n"), std::string::npos) << "logged as it reads, unquoted";
  EXPECT_EQ(StartSORLEX_UNIX(root_, 0), kStatusRunning);
  EXPECT_EQ(read_file(root_ + "/sorlexagent.txt"), "index=/var/idx\n");
}

}  // namespace
}  // namespace kova::test
