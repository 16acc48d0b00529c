#include "settings/keyfile.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "platform/unique.h"

namespace kova {

int read_key_lines(const std::string& path, std::vector<std::string>& lines) {
  lines.clear();
  UniqueFile file(std::fopen(path.c_str(), "re"));
  if (!file) return errno != 0 ? errno : EIO;
  std::string content;
  char buffer[4096];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, file.get())) > 0) content.append(buffer, n);
  if (std::ferror(file.get())) return errno != 0 ? errno : EIO;
  size_t start = 0;
  while (start < content.size()) {
    size_t end = content.find('\n', start);
    end = end == std::string::npos ? content.size() : end + 1;
    lines.emplace_back(content, start, end - start);
    start = end;
  }
  return 0;
}

std::string value_less_last(std::string_view rest) {
  if (!rest.empty()) rest.remove_suffix(1);
  return std::string(rest);
}

std::string value_trimmed(std::string_view rest) {
  const size_t first = rest.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  const size_t last = rest.find_last_not_of(" \t\r\n");
  return std::string(rest.substr(first, last - first + 1));
}

int value_to_int(std::string_view rest) {
  const std::string text(rest);
  return std::atoi(text.c_str());
}

KeyFileText& KeyFileText::put(std::string_view key, int value) {
  text_.append(key);
  text_.append(std::to_string(value));
  text_.push_back('\n');
  return *this;
}

KeyFileText& KeyFileText::put(std::string_view key, std::string_view value) {
  text_.append(key);
  text_.append(value);
  text_.push_back('\n');
  return *this;
}

}  // namespace kova
