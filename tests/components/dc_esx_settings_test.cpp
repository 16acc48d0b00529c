#include "components/dc_esx_settings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <tuple>

#include "components/field_encoding.h"
#include "support/temp_dir.h"

namespace kova::test {
namespace {

TEST(FieldEncoding, RotatesThePrintableRangeOnlyAndDecodesExactly522Bytes) {
  const std::pair<std::string, std::string> cases[] = {
      {"abc", "mno"},
      {"", ""},
      {"s~ r", " +,~"},                 // both ends of the range wrap
      {"a\tb\x7f\xe9", "m\tn\x7f\xe9"},  // outside 32..126: kept
      {std::string(600, 'a'), std::string(600, 'm')},
  };
  for (const auto& [plain, encoded] : cases) {
    std::string out = "left over";
    EXPECT_EQ(encode(plain, out), 1);
    EXPECT_EQ(out, encoded) << plain;

    // Inside a larger buffer with a printable tail: exactly the first 522
    // bytes turn back, the guard bytes after them stay.
    std::array<char, kDecodeLength + 8> buffer;
    buffer.fill('m');
    encoded.copy(buffer.data(), buffer.size());
    if (encoded.size() < buffer.size()) buffer[encoded.size()] = '\0';
    decode(std::span(buffer).first<kDecodeLength>());
    EXPECT_EQ(std::string(buffer.data(), std::min(encoded.size(), kDecodeLength)), plain.substr(0, kDecodeLength));
    EXPECT_EQ(buffer[kDecodeLength - 1], 'a');
    EXPECT_EQ(std::string(buffer.data() + kDecodeLength, 8),
              encoded.size() > kDecodeLength ? encoded.substr(kDecodeLength, 8) : std::string(8, 'm'));
  }
}

TEST(EsxSettings, WritesItsOwnKeysOnlyReadsInKeyOrderAndAPasswordWithTildesComesBack) {
  TempDir dir;
  make_dirs(dir / "settings");
  DcEsxSettings record;
  record.settings_file = esx_settings_path(dir.path());
  record.esx_hostname = "esx01", record.host_ip = "10.1.2.3", record.username = "root", record.passwd = "p~r s";
  record.scan_rate = 999, record.collect_all = 0;
  ASSERT_EQ(dc_write_settings_file_esx(record), 1);
  EXPECT_EQ(read_file(record.settings_file),
            "HOSTNAME~esx01\nHOST_IP~10.1.2.3\nWRITE_RATE~120\nPEAK_RATE~0\nRETAIN~30\nPRIORITY~0\nVERBOSE~0\n"
            "USERNAME~root\nPASSWD~|+~, \nJAVAHOME~\nCLASSPATH~\n");

  DcEsxSettings back;
  back.settings_file = record.settings_file;
  ASSERT_EQ(dc_parse_startup_file_esx(back), 1);
  EXPECT_EQ(std::tuple(back.esx_hostname, back.host_ip, back.passwd, back.passwd_given, back.scan_rate),
            std::tuple("esx01", "10.1.2.3", "p~r s", 1, 2000));

  // The first key in the order wins; the collector's USER~ and
  // FILESYS_EXCLUDE~ are no keys here; a last line without its line feed
  // loses a character all the same.
  write_file(back.settings_file,
             "HOSTNAME~LOG_DIR~/l\nUSER~admin\nFILESYS_EXCLUDE~nfs\nCOLLECT_PROCESSOR~1\nJAVAHOME~/usr/java");
  ASSERT_EQ(dc_parse_startup_file_esx(back), 1);
  EXPECT_EQ(std::tuple(back.log_dir, back.log_dir_given, back.esx_hostname, back.user, back.filesys_exclude,
                       back.collect_processor, back.collect_process, back.collect_all, back.javahome),
            std::tuple("/l", 1, "esx01", "root", kDefaultFilesysExclude, 1, 0, 0, "/usr/jav"));

  record.settings_file = dir / "no/such/dir/vorn_esx.config";
  EXPECT_EQ(dc_write_settings_file_esx(record), 0);
  EXPECT_EQ(dc_parse_startup_file_esx(record), 0);
  EXPECT_EQ(record.esx_hostname, "esx01");
}

}  // namespace
}  // namespace kova::test
