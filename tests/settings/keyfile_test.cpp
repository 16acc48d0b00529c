#include "settings/keyfile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "platform/files.h"
#include "support/temp_dir.h"

namespace kova::test {
namespace {

struct Shared {
  int rate = 0;
};
struct Record : Shared {
  int number = 0;
  int given = 0;
  int hooked = 0;
  std::string text, trimmed, at_start;
};

constexpr KeyField<Shared> kSharedRate = int_key("RATE~", &Shared::rate);

void hook(Record& r, std::string_view rest) { r.hooked = static_cast<int>(rest.size()); }

constexpr KeyField<Record> kTable[] = {
    int_key("LONG_NUMBER~", &Record::number, &Record::given),  // a longer key before the one it contains
    int_key("NUMBER~", &Record::hooked),
    text_key("TEXT~", &Record::text),
    trimmed_key("TRIM~", &Record::trimmed),
    {"START~", KeyValue::kText, nullptr, &Record::at_start, nullptr, true},
    kSharedRate,
    hook_key<Record>("HOOK~", hook),
};

TEST(KeyFile, TheFirstKeyOfTheTableFoundInALineTakesItAsItsKindSays) {
  TempDir dir;
  write_file(dir / "f", "x LONG_NUMBER~ 42z\nTEXT~a~b\nTRIM~ \t u \r\n START~no\nSTART~yes\n"
                        "RATE~-7\nunknown\nHOOK~abc\nTEXT~last");
  Record r;
  int error = 0;
  EXPECT_EQ(read_key_file<Record>(dir / "f", kTable, r, error), 7);
  EXPECT_EQ(r.number, 42);
  EXPECT_EQ(r.given, 1);
  EXPECT_EQ(r.text, "las");  // a last line without a line feed loses its last character
  EXPECT_EQ(r.trimmed, "u");
  EXPECT_EQ(r.at_start, "yes");  // the key that must begin its line is not found inside one
  EXPECT_EQ(r.rate, -7);
  EXPECT_EQ(r.hooked, 4);  // "abc\n"

  EXPECT_EQ(read_key_file<Record>(dir / "missing", kTable, r, error), -1);
  EXPECT_EQ(error, ENOENT);
}

TEST(KeyFile, ReplacedAndExclusiveFilesAreWholeAndLeaveNoTemporaryBehind) {
  TempDir dir;
  const std::string path = dir / "settings";
  KeyFileText text;
  text.put("A~", 1).put("B~", "two");
  ASSERT_EQ(replace_file(path, "old\n"), 0);
  ASSERT_EQ(replace_file(path, text.text()), 0);
  EXPECT_EQ(read_file(path), "A~1\nB~two\n");

  const std::string lock = dir / "lock";
  ASSERT_EQ(create_file_exclusive(lock, "PID~1\n", 0644), 0);
  EXPECT_EQ(create_file_exclusive(lock, "PID~2\n", 0644), EEXIST);
  EXPECT_EQ(read_file(lock), "PID~1\n");
  struct stat st {};
  ASSERT_EQ(::stat(lock.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);

  EXPECT_NE(replace_file(dir / "no/such/dir/f", "x"), 0);
  int entries = 0;
  for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(dir.path())) ++entries;
  EXPECT_EQ(entries, 2);
}

}  // namespace
}  // namespace kova::test
