#include "base/shell.h"

#include <algorithm>

namespace kova {

std::string shell_quote(std::string_view value) {
  std::string out;
  out.reserve(value.size() + 2);
  out += '\'';
  for (char c : value) {
    if (c == '\'')
      out += "'\\''";
    else
      out += c;
  }
  out += '\'';
  return out;
}

std::string shell_word(std::string_view value) {
  const auto literal = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("/._-+,:@%=").find(c) != std::string_view::npos;
  };
  if (!value.empty() && std::all_of(value.begin(), value.end(), literal)) return std::string(value);
  return shell_quote(value);
}

}  // namespace kova
