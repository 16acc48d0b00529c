#include "base/shell.h"

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

}  // namespace kova
