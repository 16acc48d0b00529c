#include "components/dc_esx_settings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <string>
#include <tuple>

#include "base/log.h"
#include "components/collector.h"
#include "components/field_encoding.h"
#include "support/temp_dir.h"

namespace kova::test {
namespace {

TEST(FieldEncoding, RotatesThePrintableRangeOnlyAndDecodesExactly522Bytes) {
  struct Case {
    std::string plain, encoded;
  };
  const Case cases[] = {
      {"abc", "mno"},
      {"", ""},
      {"s~ r", " +,~"},                 // both ends of the range wrap
      {"a\tb\x7f\xe9", "m\tn\x7f\xe9"},  // outside 32..126: kept
      {std::string(600, 'a'), std::string(600, 'm')},
  };
  for (const Case& c : cases) {
    std::string out = "left over";
    EXPECT_EQ(encode(c.plain, out), 1);
    EXPECT_EQ(out, c.encoded) << c.plain;

    // The text inside a larger buffer whose tail is printable: decode turns
    // exactly the first 522 bytes back and leaves the guard bytes alone.
    std::array<char, kDecodeLength + 8> buffer;
    buffer.fill('m');
    c.encoded.copy(buffer.data(), buffer.size());
    if (c.encoded.size() < buffer.size()) buffer[c.encoded.size()] = '\0';
    decode(std::span(buffer).first<kDecodeLength>());
    const std::string decoded(buffer.data(), std::min(c.encoded.size(), kDecodeLength));
    EXPECT_EQ(decoded, c.plain.substr(0, kDecodeLength)) << c.plain;
    EXPECT_EQ(buffer[kDecodeLength - 1], 'a') << "the last of the 522 bytes is rotated";
    EXPECT_EQ(std::string(buffer.data() + kDecodeLength, 8),
              c.encoded.size() > kDecodeLength ? c.encoded.substr(kDecodeLength, 8) : std::string(8, 'm'));
  }
}

class EsxSettings : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_log_ = log_state().logfile;
    log_state().logfile = dir_ / "agent.log";
    make_dirs(dir_ / "settings");
    record_.settings_file = esx_settings_path(dir_.path());
  }
  void TearDown() override { log_state().logfile = saved_log_; }

  DcEsxSettings fresh() const {
    DcEsxSettings r;
    r.settings_file = record_.settings_file;
    return r;
  }

  TempDir dir_;
  std::string saved_log_;
  DcEsxSettings record_;
};

TEST_F(EsxSettings, WritesItsOwnKeysOnlyAndAPasswordWithTildesComesBack) {
  record_.esx_hostname = "esx01", record_.host_ip = "10.1.2.3", record_.username = "root";
  record_.passwd = "p~r s", record_.javahome = "/usr/java", record_.classpath = "/opt/c.jar";
  record_.scan_rate = 999, record_.collect_all = 0, record_.filesys_exclude = "nfs\n";
  ASSERT_EQ(dc_write_settings_file_esx(record_), 1);
  EXPECT_EQ(read_file(record_.settings_file),
            "HOSTNAME~esx01\nHOST_IP~10.1.2.3\nWRITE_RATE~120\nPEAK_RATE~0\nRETAIN~30\nPRIORITY~0\nVERBOSE~0\n"
            "USERNAME~root\nPASSWD~|+~, \nJAVAHOME~/usr/java\nCLASSPATH~/opt/c.jar\n")
      << "scan rate, groups and the other collector keys stay out";

  DcEsxSettings back = fresh();
  ASSERT_EQ(dc_parse_startup_file_esx(back), 1);
  EXPECT_EQ(std::tuple(back.esx_hostname, back.host_ip, back.username, back.passwd, back.javahome, back.classpath),
            std::tuple("esx01", "10.1.2.3", "root", "p~r s", "/usr/java", "/opt/c.jar"));
  EXPECT_EQ(std::tuple(back.username_given, back.passwd_given, back.javahome_given, back.classpath_given, back.scan_rate),
            std::tuple(1, 1, 1, 1, 2000));

  record_.settings_file = dir_ / "no/such/dir/vorn_esx.config";
  EXPECT_EQ(dc_write_settings_file_esx(record_), 0);
}

TEST_F(EsxSettings, ReadsKeysInTheirFixedOrderAndIgnoresTheCollectorsOwn) {
  struct Case {
    std::string file;
    int result;
    std::string check;  // what the record holds afterwards
  };
  auto text = [](const DcEsxSettings& r) {
    return r.esx_hostname + "|" + r.log_dir + "|" + r.passwd + "|" + r.user + "|" + std::to_string(r.log_dir_given) +
           std::to_string(r.collect_all) + std::to_string(r.collect_processor) + std::to_string(r.collect_process);
  };
  const Case cases[] = {
      {"HOSTNAME~LOG_DIR~x\n", 1, "|x||root|1000"},  // the earlier key in the order wins
      {"USER~admin\nFILESYS_EXCLUDE~nfs\nMAX_CPU~3\n", 0, "|||root|0000"},
      {"COLLECT_PROCESSOR~1\n", 1, "|||root|0010"},
      {"COLLECT_NET~1\nCOLLECT_CPU~1\nCOLLECT_PROCESSOR~1\nCOLLECT_MEMORY~1\nCOLLECT_FILESYS~1\nCOLLECT_DISK~1\n", 1,
       "|||root|0110"},
      {"PASSWD~mno\nHOSTNAME~esx", 1, "es||abc|root|0000"},  // a last line without its line feed loses a character
  };
  for (const Case& c : cases) {
    write_file(record_.settings_file, c.file);
    DcEsxSettings r = fresh();
    EXPECT_EQ(dc_parse_startup_file_esx(r), c.result) << c.file;
    EXPECT_EQ(text(r), c.check) << c.file;
  }
  std::filesystem::remove(record_.settings_file);
  DcEsxSettings r = fresh();
  r.esx_hostname = "kept";
  EXPECT_EQ(dc_parse_startup_file_esx(r), 0);
  EXPECT_EQ(r.esx_hostname, "kept");
}

TEST_F(EsxSettings, MergeTakesTheCollectorsRulesAndKeepsTheLogin) {
  write_file(record_.settings_file, "HOSTNAME~esx01\nWRITE_RATE~120\nPASSWD~mno\n");
  struct Case {
    int dump, peak, retain, result;
    const char* rates;  // WRITE_RATE~ to RETAIN~ in the file afterwards
  };
  const Case cases[] = {
      {120, 0, 30, 0, "WRITE_RATE~120\n"},  // nothing differs: the file stands as written by hand
      {30, -1, -1, 0, "WRITE_RATE~120\n"},  // a dump interval under a minute is ignored
      {300, 5000, 14, 1, "WRITE_RATE~300\nPEAK_RATE~5000\nRETAIN~14\n"},
  };
  for (const Case& c : cases) {
    DcEsxSettings r = fresh();
    ASSERT_EQ(dc_parse_startup_file_esx(r), 1);
    EXPECT_EQ(compare_dc_settings_esx(r, c.dump, c.peak, c.retain), c.result) << c.dump;
    const std::string file = read_file(record_.settings_file);
    EXPECT_NE(file.find(c.rates), std::string::npos) << file;
    EXPECT_NE(file.find("PASSWD~mno\n"), std::string::npos) << file;
  }
  write_file(record_.settings_file, "WRITE_RATE~45\n");
  DcEsxSettings r = fresh();
  ASSERT_EQ(dc_parse_startup_file_esx(r), 1);
  EXPECT_EQ(compare_dc_settings_esx(r, 300, 0, 14), 0);
  EXPECT_EQ(read_file(record_.settings_file), "WRITE_RATE~45\n");
  EXPECT_NE(read_file(dir_ / "agent.log").find("I-SETERR"), std::string::npos);
}

}  // namespace
}  // namespace kova::test
