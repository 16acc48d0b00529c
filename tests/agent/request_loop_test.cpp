#include "agent/request_loop.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <tuple>

namespace kova::test {
namespace {

// A shortage of descriptors or buffers pauses the loop and is logged once a second; other failures as before.
TEST(AcceptFailure, ShortagesPauseAndAreLoggedOnceASecond) {
  std::time_t last = -1;
  const std::tuple<int, std::time_t, bool, bool> steps[] = {
      {EMFILE, 100, true, true},  {EMFILE, 100, false, true},      {ENFILE, 100, false, true},
      {ENOBUFS, 101, true, true}, {ECONNABORTED, 101, true, false}, {ECONNABORTED, 101, true, false},
      {ENOMEM, 101, false, true}, {EMFILE, 102, true, true},
  };
  for (const auto& [err, now, logged, paused] : steps) {
    const AcceptFailure failure = judge_accept_failure(err, now, last);
    EXPECT_EQ(std::tuple(failure.log, failure.pause), std::tuple(logged, paused)) << err << " at " << now;
  }
}

}  // namespace
}  // namespace kova::test
