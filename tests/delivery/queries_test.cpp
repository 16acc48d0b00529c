#include "delivery/queries.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "wire/wire_fixture.h"

namespace kova::test {
namespace {

class DiskSpace : public WireTest {
 protected:
  // The answer field sent for `path`, up to its first NUL.
  std::string answer(const std::string& path) {
    SocketPair pair;
    EXPECT_EQ(process_getdiskspace_request(pair.agent.get(), {}, "127.0.0.1",
                                           reinterpret_cast<const unsigned char*>(path.data()),
                                           static_cast<int>(path.size())),
              1);
    const std::string field = pair.drain();
    EXPECT_EQ(field.size(), kAnswerField);
    return field.c_str();
  }
};

// An existing path's free space is checked against the real binary.
TEST_F(DiskSpace, MissingPathIsCreatedAndOnlyAnUnqueryablePathIsUnknown) {
  const std::string missing = dir_ / "a/b/c";
  const std::string created = answer(missing);
  EXPECT_TRUE(!created.empty() && created.find_first_not_of("0123456789") == std::string::npos) << created;
  const mode_t mask = ::umask(0);
  ::umask(mask);
  for (const std::string& d : {dir_ / "a", missing}) {
    struct stat st {};
    ASSERT_EQ(::stat(d.c_str(), &st), 0) << d;
    EXPECT_EQ(st.st_mode & 0777, 0744 & ~mask) << d;
  }
  EXPECT_EQ(logged("E-REQ-DISKSPACE", "statvfs(" + missing + ") error: "), 1);

  write_file(dir_ / "file", "x");
  EXPECT_EQ(answer(dir_ / "file/below"), "Unknown");
  EXPECT_EQ(answer(""), "Unknown");
}

}  // namespace
}  // namespace kova::test
