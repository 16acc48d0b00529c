// Test helpers: temporary directories that clean up after themselves, and
// small file utilities.
#pragma once

#include <ctime>
#include <string>

namespace kova::test {

// A fresh directory under $TMPDIR (or /tmp), removed with its contents.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

void write_file(const std::string& path, const std::string& content);
std::string read_file(const std::string& path);
bool file_exists(const std::string& path);
void set_mtime(const std::string& path, std::time_t when);
void make_dirs(const std::string& path);

}  // namespace kova::test
