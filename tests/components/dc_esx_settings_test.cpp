#include "components/dc_esx_settings.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <tuple>

#include "components/field_encoding.h"
#include "support/temp_dir.h"

namespace kova::test {
namespace {

TEST(FieldEncoding, RotatesOnlyThePrintableRangeAndDecodesExactly522Bytes) {
  const std::pair<std::string, std::string> cases[] = {
      {"abc", "mno"},
      {"s~ r", " +,~"},                  // both ends of the range wrap
      {"a\tb\x7f\xe9", "m\tn\x7f\xe9"},  // outside 32..126: kept
  };
  for (const auto& [plain, encoded] : cases) {
    std::string out = "left over";
    EXPECT_EQ(encode(plain, out), 1);
    EXPECT_EQ(out, encoded) << plain;
    std::array<char, kDecodeLength> back{};
    encoded.copy(back.data(), back.size());
    decode(back);
    EXPECT_EQ(std::string(back.data()), plain);
  }
  // A longer text: its first 522 bytes turn back, the rest stays as written.
  std::string text(kDecodeLength + 8, 'm');
  decode(std::span(text).first<kDecodeLength>());
  EXPECT_EQ(text, std::string(kDecodeLength, 'a') + std::string(8, 'm'));
}

// Writing the file, and a password read back and written again, are checked against the real binary.
TEST(EsxSettings, KeysAreTriedInOrderAndTheCollectorsUserAndExclusionsAreNoKeysHere) {
  TempDir dir;
  DcEsxSettings r;
  r.settings_file = dir / "vorn_esx.config";
  r.esx_hostname = "esx01";
  // A last line without its line feed loses a character all the same.
  write_file(r.settings_file, "HOSTNAME~LOG_DIR~/l\nUSER~admin\nFILESYS_EXCLUDE~nfs\nCOLLECT_PROCESSOR~1\n"
                              "PASSWD~|+~, \nJAVAHOME~/usr/java");
  ASSERT_EQ(dc_parse_startup_file_esx(r), 1);
  EXPECT_EQ(std::tuple(r.log_dir, r.log_dir_given, r.esx_hostname, r.user, r.filesys_exclude, r.collect_processor,
                       r.collect_process, r.collect_all, r.passwd, r.passwd_given, r.javahome),
            std::tuple("/l", 1, "esx01", "root", kDefaultFilesysExclude, 1, 0, 0, "p~r s", 1, "/usr/jav"));

  r.settings_file = dir / "no/such/dir/vorn_esx.config";
  EXPECT_EQ(dc_write_settings_file_esx(r), 0);
  EXPECT_EQ(dc_parse_startup_file_esx(r), 0);
  EXPECT_EQ(r.esx_hostname, "esx01");
}

}  // namespace
}  // namespace kova::test
