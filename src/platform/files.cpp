#include "platform/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/unique.h"

namespace kova {

bool free_space_kb(const std::string& path, int64_t& out_kb) {
  struct statvfs vfs;
  if (::statvfs(path.c_str(), &vfs) != 0) return false;
  out_kb = static_cast<int64_t>(static_cast<double>(vfs.f_bavail) * static_cast<double>(vfs.f_frsize) / 1024.0);
  return true;
}

void make_directories(const std::string& path, mode_t mode) {
  for (size_t end = path.find('/', 1); ; end = path.find('/', end + 1)) {
    (void)::mkdir(path.substr(0, end).c_str(), mode);
    if (end == std::string::npos) return;
  }
}

int get_ave_data_file_size(const std::string& data_dir, int& avg_mb) {
  // Entries are stat'ed by full path, so the process's working directory
  // never changes under the rest of the request.
  UniqueDir dir(::opendir(data_dir.c_str()));
  if (!dir) return 0;
  int64_t sum_mb = 0;
  int64_t count = 0;
  while (const dirent* entry = ::readdir(dir.get())) {
    const std::string name = entry->d_name;
    struct stat st {};
    if (::stat((data_dir + "/" + name).c_str(), &st) != 0) continue;
    const size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot < 1) continue;
    if (name.compare(dot, 4, ".zud") != 0) continue;
    sum_mb += st.st_size / 1024 / 1024;
    ++count;
  }
  if (count > 0) avg_mb = static_cast<int>(sum_mb / count);
  return 1;
}

namespace {

// Writes `content` to a new temporary file beside `path` and returns its
// name, or an empty name with `error` set.
std::string write_temporary(const std::string& path, std::string_view content, mode_t mode, int& error) {
  // The pid keeps concurrent writers apart; one process writes one file
  // at a time.
  const std::string temp = path + ".tmp." + std::to_string(::getpid());
  UniqueFd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, mode));
  if (!fd) {
    error = errno;
    return {};
  }
  for (size_t done = 0; done < content.size();) {
    const ssize_t n = ::write(fd.get(), content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      error = n < 0 ? errno : EIO;
      (void)::unlink(temp.c_str());
      return {};
    }
    done += static_cast<size_t>(n);
  }
  if (::close(fd.release()) != 0) {
    error = errno;
    (void)::unlink(temp.c_str());
    return {};
  }
  error = 0;
  return temp;
}

// Lock bytes per directory: plenty for the work files requests make at
// once, few enough that the lock file stays empty.
constexpr uint64_t kLockBytes = uint64_t{1} << 20;

// FNV-1a: the same byte for the same name in every process of every build.
uint64_t name_hash(const std::string& name) {
  uint64_t hash = 14695981039346656037ull;
  for (const char c : name) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 1099511628211ull;
  }
  return hash;
}

}  // namespace

int replace_file(const std::string& path, std::string_view content, mode_t mode) {
  int error = 0;
  const std::string temp = write_temporary(path, content, mode, error);
  if (temp.empty()) return error;
  if (::rename(temp.c_str(), path.c_str()) != 0) {
    error = errno;
    (void)::unlink(temp.c_str());
    return error;
  }
  return 0;
}

int create_file_exclusive(const std::string& path, std::string_view content, mode_t mode) {
  int error = 0;
  const std::string temp = write_temporary(path, content, mode, error);
  if (temp.empty()) return error;
  (void)::chmod(temp.c_str(), mode);  // the mode exactly, whatever the umask
  error = ::link(temp.c_str(), path.c_str()) == 0 ? 0 : errno;
  (void)::unlink(temp.c_str());
  return error;
}

WorkFileLock::WorkFileLock(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  UniqueFd fd(::open((dir + "/.kova_work.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
  if (!fd) return;
  // An open-file-description lock: it belongs to this descriptor alone, so
  // a program started meanwhile neither holds nor releases it.
  struct flock byte {};
  byte.l_type = F_WRLCK;
  byte.l_whence = SEEK_SET;
  byte.l_start = static_cast<off_t>(name_hash(path.substr(slash + 1)) % kLockBytes);
  byte.l_len = 1;
  while (::fcntl(fd.get(), F_OFD_SETLKW, &byte) != 0)
    if (errno != EINTR) return;
  fd_ = std::move(fd);
}

// `path` made absolute against the working directory and freed, by its
// text alone, of "." and empty components and of each ".." with the
// component before it (never above "/"); "" when it cannot be.
std::string normal_path(const std::string& path) {
  if (path.empty()) return {};
  std::string full = path;
  if (path[0] != '/') {
    char cwd[PATH_MAX];
    if (::getcwd(cwd, sizeof cwd) == nullptr) return {};
    full = std::string(cwd) + "/" + path;
  }
  std::vector<std::string_view> parts;
  const std::string_view text = full;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('/', at), text.size());
    const std::string_view part = text.substr(at, end - at);
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    at = end + 1;
  }
  std::string out;
  for (std::string_view part : parts) out.append("/").append(part);
  return out.empty() ? "/" : out;
}


bool path_inside(const std::string& path, const std::string& root) {
  const std::string p = normal_path(path), r = normal_path(root);
  if (p.empty() || r.empty()) return false;
  // Whole components, so that /opt/kova2 never counts as inside /opt/kova.
  return r == "/" || (p.compare(0, r.size(), r) == 0 && (p.size() == r.size() || p[r.size()] == '/'));
}

std::string resolved_path(const std::string& path) {
  std::string full = path;
  if (!path.empty() && path[0] != '/') {
    char cwd[PATH_MAX];
    if (::getcwd(cwd, sizeof cwd) == nullptr) return {};
    full = std::string(cwd) + "/" + path;
  }
  if (full.empty()) return full;
  // The longest leading part that exists, with its links resolved; the
  // rest as written, less "." and "..".
  for (size_t end = full.size();;) {
    char real[PATH_MAX];
    const std::string head = end == 0 ? "/" : full.substr(0, end);
    if (::realpath(head.c_str(), real) != nullptr) return normal_path(real + full.substr(end));
    if (end == 0) return normal_path(full);
    const size_t slash = full.rfind('/', end - 1);
    end = slash == std::string::npos ? 0 : slash;
  }
}

int copy_file_exclusive(const std::string& from, const std::string& to) {
  UniqueFd in(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat st {};
  if (!in || ::fstat(in.get(), &st) != 0) return errno;
  std::string content;
  char block[8192];
  for (;;) {
    const ssize_t n = ::read(in.get(), block, sizeof block);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    if (n == 0) break;
    content.append(block, static_cast<size_t>(n));
  }
  return create_file_exclusive(to, content, st.st_mode & 07777);
}

}  // namespace kova
