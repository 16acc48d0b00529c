#include "components/keyfile.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "platform/unique.h"

namespace kova {

int read_key_lines(const std::string& path, std::vector<std::string>& lines) {
  lines.clear();
  UniqueFile file(std::fopen(path.c_str(), "r"));
  if (!file) return errno != 0 ? errno : EIO;
  std::string content;
  char buffer[4096];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, file.get())) > 0) content.append(buffer, n);
  if (std::ferror(file.get())) return EIO;
  size_t start = 0;
  while (start < content.size()) {
    size_t end = content.find('\n', start);
    end = end == std::string::npos ? content.size() : end + 1;
    lines.emplace_back(content, start, end - start);
    start = end;
  }
  return 0;
}

KeyMatch match_key(std::string_view line, std::span<const std::string_view> keys) {
  for (size_t i = 0; i < keys.size(); ++i) {
    size_t at = line.find(keys[i]);
    if (at != std::string_view::npos) return {static_cast<int>(i), line.substr(at + keys[i].size())};
  }
  return {};
}

std::string value_less_last(std::string_view value) {
  if (!value.empty()) value.remove_suffix(1);
  return std::string(value);
}

int value_to_int(std::string_view value) {
  std::string text(value);
  return std::atoi(text.c_str());
}

}  // namespace kova
