// The reversible rotation that keeps a virtual host's login password in its
// collector settings file without standing there as plain text.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace kova {

// decode always works on this many bytes, whatever the text's length.
inline constexpr size_t kDecodeLength = 522;

// out = plain with each printable character (codes 32..126) moved 12
// places on within that range, wrapping at its end ("s" becomes a blank,
// "~" becomes "+"); other characters stay. Returns 1.
int encode(std::string_view plain, std::string& out);

// The inverse rotation, in place, over all kDecodeLength bytes: the bytes
// after the text's end (its NUL, a line feed, whatever follows) are
// rotated too when printable, so hand in a buffer that holds the text and
// is at least that long.
void decode(std::span<char, kDecodeLength> text);

}  // namespace kova
