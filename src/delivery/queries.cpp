#include "delivery/queries.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "platform/files.h"
#include "wire/socket_io.h"

namespace kova {
namespace {

void send_answer(int fd, const std::string& text) {
  char field[kAnswerField] = {};
  std::memcpy(field, text.data(), std::min(text.size(), kAnswerField - 1));
  (void)Socket_writen(fd, field, kAnswerField);
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

int get_diskspace_free_kb(const std::string& path, int64_t& out_kb, bool create_missing) {
  out_kb = 0;
  if (free_space_kb(path, out_kb)) return 1;
  const int err = errno;
  log_printf("E-REQ-DISKSPACE", "statvfs(%s) error: %s", log_escape(path).c_str(), std::strerror(err));
  if (!create_missing) return 0;
  make_directories(path, 0744);
  if (free_space_kb(path, out_kb)) return 1;
  out_kb = 0;
  return 0;
}

int process_getdiskspace_request(int fd, const AgentSettings& settings, const std::string&,
                                 const unsigned char* payload, int length) {
  std::string path(reinterpret_cast<const char*>(payload), length > 0 ? static_cast<size_t>(length) : 0);
  path = path.c_str();  // the path ends at its first NUL
  // A full file system answers "0": only a path that cannot be queried is
  // unknown.
  std::string answer = "Unknown";
  int64_t kb = 0;
  if (!path.empty() && get_diskspace_free_kb(path, kb, settings.harden != 1) == 1)
    answer = string_printf("%ld", static_cast<long>(static_cast<double>(kb) / 1000.0));
  log_printf("I-DISKSPACE", "Returning:  %s (MB)", answer.c_str());
  send_answer(fd, answer);
  return 1;
}

}  // namespace kova
