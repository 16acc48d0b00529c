#include "update/checksum.h"

#include <gtest/gtest.h>

#include <string>

#include "support/temp_dir.h"

namespace kova {
namespace {

using test::TempDir, test::write_file;

// The checksum of an all-zero block under the shared key and IV, as an
// independent AES-128-CBC computation gives it: the server side must get
// the same digits.
constexpr const char* kZeroBlockChecksum = "156045006135237160192031196210205084221226065111";

std::string checksum_of(const TempDir& dir, const std::string& content) {
  write_file(dir / "f", content);
  std::string text;
  EXPECT_EQ(Rijndael_Checksum_Text(dir / "f", text), 1);
  return text;
}

std::string with_byte(std::string text, size_t at) {
  text[at] = static_cast<char>(text[at] ^ 0x5a);
  return text;
}

TEST(Checksum, CoversOnlyTheLastOfFiftyTwoSixteenBytePieces) {
  TempDir dir;
  std::string long_file(1000, '\0');
  for (size_t i = 0; i < long_file.size(); ++i) long_file[i] = static_cast<char>(i * 7 + 3);
  EXPECT_EQ(checksum_of(dir, ""), kZeroBlockChecksum);
  const struct {
    const char* what;
    std::string a, b;
    bool same;
  } cases[] = {
      {"816 bytes: the 52nd read finds the end", std::string(816, 'x'), "", true},
      {"817 bytes: the 52nd read holds one byte", std::string(817, 'x'), "", false},
      {"byte 10 of a long file", long_file, with_byte(long_file, 10), true},
      {"byte 820", long_file, with_byte(long_file, 820), false},
      {"byte 832", long_file, with_byte(long_file, 832), true},
  };
  for (const auto& c : cases) {
    const std::string a = checksum_of(dir, c.a), b = checksum_of(dir, c.b);
    EXPECT_EQ(a.size(), kChecksumDigits) << c.what;
    EXPECT_EQ(a == b, c.same) << c.what;
  }
}

TEST(Checksum, ComparesTheFirstSixteenCharacters) {
  TempDir dir;
  write_file(dir / "f", "update");
  const std::string text = kZeroBlockChecksum;
  const struct {
    std::string path, expected;
    int result;
  } cases[] = {
      {dir / "f", text, 1},
      {dir / "f", text.substr(0, 16) + "x", 1},
      {dir / "f", text.substr(0, 15), 0},
      {dir / "f", with_byte(text, 15), 0},
      {dir / "missing", text, 0},
  };
  for (const auto& c : cases) EXPECT_EQ(Rijndael_Checksum_File(c.path, c.expected), c.result) << c.expected;
}

}  // namespace
}  // namespace kova
