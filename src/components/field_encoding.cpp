#include "components/field_encoding.h"

namespace kova {
namespace {

constexpr int kFirstPrintable = 32;
constexpr int kLastPrintable = 126;
constexpr int kPrintableCount = kLastPrintable - kFirstPrintable + 1;  // 95
constexpr int kShift = 12;

bool printable(int c) { return c >= kFirstPrintable && c <= kLastPrintable; }

}  // namespace

int encode(std::string_view plain, std::string& out) {
  out.assign(plain);
  for (char& ch : out) {
    const int c = static_cast<unsigned char>(ch);
    if (!printable(c)) continue;
    const int moved = c + kShift;
    ch = static_cast<char>(moved > kLastPrintable ? moved - kPrintableCount : moved);
  }
  return 1;
}

void decode(std::span<char, kDecodeLength> text) {
  for (char& ch : text) {
    const int c = static_cast<unsigned char>(ch);
    if (!printable(c)) continue;
    const int moved = c - kShift;
    ch = static_cast<char>(moved < kFirstPrintable ? moved + kPrintableCount : moved);
  }
}

}  // namespace kova
