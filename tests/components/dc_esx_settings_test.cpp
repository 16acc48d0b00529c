#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>

#include "components/field_encoding.h"

namespace kova::test {
namespace {

TEST(FieldEncoding, RotatesThePrintableRangeOnlyAndDecodesExactly522Bytes) {
  struct Case {
    std::string plain, encoded;
  };
  const Case cases[] = {
      {"abc", "mno"},
      {"", ""},
      {"s~ r", " +,~"},                       // both ends of the range wrap
      {"a\tb\x7f\xe9", "m\tn\x7f\xe9"},        // outside 32..126: kept
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
    EXPECT_EQ(std::string(buffer.data() + kDecodeLength, 8), c.encoded.size() > kDecodeLength
                                                                 ? c.encoded.substr(kDecodeLength, 8)
                                                                 : std::string(8, 'm'));
  }
}

}  // namespace
}  // namespace kova::test
