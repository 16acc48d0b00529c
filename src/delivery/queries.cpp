#include "delivery/queries.h"

#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "core/log.h"
#include "wire/socket_io.h"

namespace kova {
namespace {

void send_answer(int fd, const std::string& text) {
  char field[kAnswerField] = {};
  std::memcpy(field, text.data(), std::min(text.size(), kAnswerField - 1));
  (void)Socket_writen(fd, field, kAnswerField);
}

bool free_kb(const std::string& path, int64_t& out_kb) {
  struct statvfs vfs;
  if (::statvfs(path.c_str(), &vfs) != 0) return false;
  out_kb = static_cast<int64_t>(static_cast<double>(vfs.f_bavail) * static_cast<double>(vfs.f_frsize) / 1024.0);
  return true;
}

}  // namespace

int process_getos_request(int fd, const AgentSettings&) {
  const std::string answer = "Sun Solaris X86";
  log_printf("I-GET_OS", "Returning:  %s", answer.c_str());
  send_answer(fd, answer);
  return 1;
}

int process_getrelease_request(int fd, const AgentSettings&) {
  const std::string answer = "910";
  log_printf("I-GET_RELEASE", "Returning:  %s", answer.c_str());
  send_answer(fd, answer);
  return 1;
}

int process_getversion_request(int fd, const AgentSettings&) {
  const std::string answer = "V10.0-001";
  log_printf("I-GET_RELEASE", "Returning:  %s", answer.c_str());  // shares the release tag
  send_answer(fd, answer);
  return 1;
}

int get_diskspace_free_kb(const std::string& path, int64_t& out_kb) {
  out_kb = 0;
  if (free_kb(path, out_kb)) return 1;
  log_printf("E-REQ-DISKSPACE", "statvfs(%s) error: %s", path.c_str(), std::strerror(errno));
  std::error_code ec;
  std::filesystem::create_directories(path, ec);
  if (!ec)
    std::filesystem::permissions(path, std::filesystem::perms(0744), std::filesystem::perm_options::replace, ec);
  if (free_kb(path, out_kb)) return 1;
  out_kb = 0;
  return 0;
}

int process_getdiskspace_request(int fd, const AgentSettings&, const std::string&, const unsigned char* payload,
                                 int length) {
  std::string path(reinterpret_cast<const char*>(payload), length > 0 ? static_cast<size_t>(length) : 0);
  path = path.c_str();  // the path ends at its first NUL
  std::string answer = "Unknown";
  int64_t kb = 0;
  if (!path.empty() && get_diskspace_free_kb(path, kb) == 1 && kb >= 1)
    answer = string_printf("%ld", static_cast<long>(static_cast<double>(kb) / 1000.0));
  log_printf("I-DISKSPACE", "Returning:  %s (MB)", answer.c_str());
  send_answer(fd, answer);
  return 1;
}

}  // namespace kova
