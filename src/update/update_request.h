// "<UPDATE_DATA>": the server pushes an update archive. The agent takes the
// request line, answers "OK\r\n", receives the file in 4,096-byte blocks,
// answers "PASS\r\n" or "FAIL\r\n" after its checksum, unpacks it and hands
// the archive's update/update.sh to the system's `at` service through a
// generated launcher, so that the update runs detached and may stop and
// replace this agent. Replies are plain text without packet framing.
//
// The handler's lines go to the agent's log in a form of their own:
// "<ctime>, <text>\n", the file opened and closed for each line.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "settings/agent_settings.h"

namespace kova {

inline constexpr size_t kUpdateBlockSize = 4096;
// The largest file an update request may announce (2 GiB).
inline constexpr uint64_t kUpdateSizeMax = uint64_t{2} << 30;

// The request line's words. `words` counts them as sscanf(3) with
// "<UPDATE_DATA> %s %s %s %s" would: 0 when the line does not begin with
// the tag, -1 when it ends before the first word.
struct UpdateRequest {
  int words = 0;
  std::string name;       // file name, received into the target directory
  std::string size;       // bytes, decimal text
  std::string checksum;   // the server's checksum text
  std::string directory;  // target directory on this host
};

UpdateRequest parse_update_request(std::string_view line);

// Why the request must be refused before anything is written (a name that
// is not a plain file name, a target directory that is not absolute, a
// size that is not a decimal number of at most kUpdateSizeMax), or nullptr
// when it may go ahead.
const char* update_request_refusal(const UpdateRequest& request);

// Appends "<ctime>, <text>\n" to the log at `log_file_path`, the text made
// from the printf-style format; nothing when the path is empty or the file
// cannot be opened.
void update_log(const std::string& log_file_path, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Serves the request (the extended request's payload as text) in the
// connection's child, after the dispatcher's status 0. Returns what
// lib_process_update_request returns.
int process_update_request(int socket, const AgentSettings& settings, const std::string& peer,
                           const std::string& request_line);

// In hardened mode, why the update in `request_line` must be refused: the
// agent was not given -allow_update (ALLOW_UPDATE~1), or the target
// directory, its links resolved, is not inside the install root. Empty
// when it may go ahead; `request_line` then names the resolved directory.
// process_update_request answers a refusal "OK\r\n" then "FAIL\r\n" without
// reading the file, and logs it ("W-HARDENED").
std::string hardened_update_refusal(const AgentSettings& settings, std::string& request_line);

// The update itself; lines go to `log_file_path`, the update's output to
// "update.log" in `log_dir`. `update_tmp_dir` is not used: the request
// names the target directory. Returns the last clean-up deletion's result
// (0 or -1), or the receive's result when the file was not received; a
// refused request returns -1. Nothing of the request reaches a shell but
// the launcher's own lines, with every path in them a literal shell word.
int lib_process_update_request(int socket, const std::string& log_file_path, const std::string& update_tmp_dir,
                               const std::string& log_dir, const std::string& request_line,
                               const std::string& peer);

// Writes all `length` bytes to the socket. Returns `length`, or -1 after
// logging "sendBytes failure. ...".
ssize_t sendBytes(const std::string& log_file_path, int socket, const void* data, size_t length);

// Receives `size_text` bytes (decimal) into "<directory>/<name>" (created
// with mode 0644, not truncated): full blocks of `block_size`, each read
// with Socket_readn and written whole (zero-filled behind a short read),
// then the remainder. Once a read fails or finds the connection closed the
// rest counts as missing and is not waited for; the checksum decides.
// Returns 1; -1 when the file cannot be opened or written (a file that
// could not be written is removed).
[[nodiscard]] int receive_bin_file(const std::string& log_file_path, int socket, size_t block_size,
                                   const std::string& directory, const std::string& name,
                                   const std::string& size_text);

}  // namespace kova
