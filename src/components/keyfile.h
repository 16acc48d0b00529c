// The line-per-setting text files shared by the collector and the real-time
// agent: "KEY~value\n", keys tested by substring search in a fixed order.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kova {

// Reads the whole file at `path` into `lines`, each line with its line feed
// (the last one may lack it). Returns 0, or errno when the file cannot be
// opened or read; `lines` is then empty.
[[nodiscard]] int read_key_lines(const std::string& path, std::vector<std::string>& lines);

// A line's first key in `keys` order that occurs anywhere in it.
struct KeyMatch {
  int index = -1;          // position in `keys`; -1: no key occurs
  std::string_view value;  // the text after the key, line feed included
};
KeyMatch match_key(std::string_view line, std::span<const std::string_view> keys);

// A text value as these files store it: the value less its last character,
// which is the line feed when there is one.
std::string value_less_last(std::string_view value);

// atoi(3) on a value that need not be NUL-terminated: optional blanks and
// sign, then leading digits; anything else gives 0.
int value_to_int(std::string_view value);

}  // namespace kova
