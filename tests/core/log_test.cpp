#include "core/log.h"

#include <gtest/gtest.h>

namespace kova {
namespace {

TEST(LogLine, TagAndCommaArePaddedToThirteenColumns) {
  EXPECT_EQ(format_log_line("Thu Feb 23 10:15:00 2012", "I-STARTED", "Agent started."),
            "Thu Feb 23 10:15:00 2012,  KOVAAGENT-I-STARTED,     Agent started.\n");
}

}  // namespace
}  // namespace kova
