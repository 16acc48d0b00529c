#include "update/update_request.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/log.h"
#include "base/shell.h"
#include "platform/files.h"
#include "platform/process.h"
#include "platform/unique.h"
#include "update/checksum.h"
#include "wire/socket_io.h"

namespace kova {
namespace {

constexpr std::string_view kUpdateTag = "<UPDATE_DATA>";
constexpr std::string_view kBlanks = " \t\n\v\f\r";

bool write_full(int fd, const unsigned char* data, size_t n) {
  while (n > 0) {
    const ssize_t k = ::write(fd, data, n);
    if (k < 0 && errno == EINTR) continue;
    if (k <= 0) return false;
    data += k;
    n -= static_cast<size_t>(k);
  }
  return true;
}

bool is_decimal(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// Runs one of the update's tools in `directory`; a tool that cannot be
// started, or hangs until the program deadline, is worth a line; its exit
// status is not examined.
void run_update_tool(const std::string& log_file_path, const std::string& directory,
                     const std::vector<std::string>& argv) {
  std::string output;
  const ProgramRun run = run_program_in(directory, argv, output);
  if (run == ProgramRun::kNotStarted) {
    const char* reason = std::strerror(errno);
    update_log(log_file_path, "Unable to run %s : %s", log_escape(argv[0]).c_str(), reason);
  } else if (run == ProgramRun::kKilled) {
    update_log(log_file_path, "%s ran longer than %d seconds and was stopped", log_escape(argv[0]).c_str(),
               program_deadline_seconds());
  }
}

// The launcher the `at` job runs, written whole under a temporary name and
// renamed into place. False when it could not be written.
bool write_launcher(const std::string& path, const std::string& patch_dir, const std::string& update_log_path) {
  const std::string log = shell_word(update_log_path);
  const std::string text = "#!/bin/sh\n" + string_printf("cd %s\n", shell_word(patch_dir).c_str()) +
                           string_printf("sh %s 1>>%s 2>>%s\n", shell_word(patch_dir + "/update.sh").c_str(),
                                         log.c_str(), log.c_str()) +
                           string_printf("date 1>>%s\n", log.c_str());
  std::string temp = path + ".XXXXXX";
  UniqueFd out(::mkostemp(temp.data(), O_CLOEXEC));
  if (!out) return false;
  const bool written = write_full(out.get(), reinterpret_cast<const unsigned char*>(text.data()), text.size()) &&
                       ::fchmod(out.get(), 0744) == 0 && out.close() == 0 &&
                       ::rename(temp.c_str(), path.c_str()) == 0;
  if (!written) (void)::unlink(temp.c_str());
  return written;
}

}  // namespace

UpdateRequest parse_update_request(std::string_view line) {
  UpdateRequest request;
  if (line.substr(0, kUpdateTag.size()) != kUpdateTag) {
    // sscanf's input failure: the line ended inside the tag.
    request.words = kUpdateTag.substr(0, line.size()) == line ? -1 : 0;
    return request;
  }
  line.remove_prefix(kUpdateTag.size());
  std::string* words[] = {&request.name, &request.size, &request.checksum, &request.directory};
  request.words = -1;
  for (std::string* word : words) {
    const size_t begin = line.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos) break;
    const size_t end = line.find_first_of(kBlanks, begin);
    *word = std::string(line.substr(begin, end - begin));
    line.remove_prefix(end == std::string_view::npos ? line.size() : end);
    request.words = request.words < 0 ? 1 : request.words + 1;
  }
  return request;
}

const char* update_request_refusal(const UpdateRequest& request) {
  if (request.name.empty()) return "no file name";
  if (request.name.find('/') != std::string::npos) return "the file name contains \"/\"";
  if (request.name == "." || request.name == "..") return "the file name is \".\" or \"..\"";
  if (request.directory.empty() || request.directory[0] != '/') return "the target directory is not absolute";
  if (!is_decimal(request.size)) return "the size is not a decimal number";
  // Leading zeros aside, more than ten digits is more than 2 GiB.
  const size_t first = request.size.find_first_not_of('0');
  const size_t digits = first == std::string::npos ? 0 : request.size.size() - first;
  if (digits > 10 || std::strtoull(request.size.c_str(), nullptr, 10) > kUpdateSizeMax)
    return "the size is above 2 GiB";
  return nullptr;
}

void update_log(const std::string& log_file_path, const char* format, ...) {
  if (log_file_path.empty()) return;
  va_list args;
  va_start(args, format);
  const std::string text = string_vprintf(format, args);
  va_end(args);
  // One write on an O_APPEND descriptor, as every line of the log.
  const std::string line = gettimestamp() + ", " + text + "\n";
  UniqueFd log(::open(log_file_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
  if (log) (void)!::write(log.get(), line.data(), line.size());
}

ssize_t sendBytes(const std::string& log_file_path, int socket, const void* data, size_t length) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  size_t sent = 0;
  while (sent < length) {
    const ssize_t k = ::send(socket, bytes + sent, length - sent, MSG_NOSIGNAL);
    if (k < 0 && errno == EINTR) continue;
    if (k <= 0) {
      update_log(log_file_path, "sendBytes failure. (sent %d of %ld bytes): %s", static_cast<int>(sent),
                 static_cast<long>(length), std::strerror(errno));
      return -1;
    }
    sent += static_cast<size_t>(k);
  }
  return static_cast<ssize_t>(length);
}

int receive_bin_file(const std::string& log_file_path, int socket, size_t block_size, const std::string& directory,
                     const std::string& name, const std::string& size_text) {
  const std::string path = directory + "/" + name;
  UniqueFd out(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  if (!out) {
    const char* reason = std::strerror(errno);
    update_log(log_file_path, "Unable to open file %s : %s", log_escape(path).c_str(), reason);
    return -1;
  }
  (void)::fchmod(out.get(), 0644);

  const uint64_t size = is_decimal(size_text) ? std::strtoull(size_text.c_str(), nullptr, 10) : 0;
  const uint64_t blocks = size / block_size;
  const size_t remainder = static_cast<size_t>(size - blocks * block_size);
  std::vector<unsigned char> buffer(block_size);
  // A read that fails has waited its bounded time already, and one that
  // finds the connection closed will find it closed again: later reads are
  // not tried. A short block is written whole, zero-filled behind the
  // bytes that came, and the remainder is written whatever arrived.
  bool connected = true;
  const auto read_piece = [&](size_t n) {
    std::fill(buffer.begin(), buffer.end(), 0);
    const ssize_t got = connected ? Socket_readn(socket, buffer.data(), n, 1) : 0;
    if (got < static_cast<ssize_t>(n)) connected = false;
    return got;
  };
  const auto write_piece = [&](size_t n) {
    if (write_full(out.get(), buffer.data(), n)) return true;
    const char* reason = std::strerror(errno);
    update_log(log_file_path, "Unable to write file %s : %s", log_escape(path).c_str(), reason);
    out.reset();
    (void)::unlink(path.c_str());
    return false;
  };
  for (uint64_t i = 0; i < blocks; ++i)
    if (read_piece(block_size) > 0 && !write_piece(block_size)) return -1;
  if (remainder > 0) {
    (void)read_piece(remainder);
    if (!write_piece(remainder)) return -1;
  }
  if (out.close() != 0) {
    const char* reason = std::strerror(errno);
    update_log(log_file_path, "Unable to write file %s : %s", log_escape(path).c_str(), reason);
    (void)::unlink(path.c_str());
    return -1;
  }
  return 1;
}

int process_update_request(int socket, const AgentSettings& settings, const std::string& peer,
                           const std::string& request_line) {
  std::string line = request_line;
  if (settings.harden == 1) {
    const std::string refusal = hardened_update_refusal(settings, line);
    if (!refusal.empty()) {
      log_printf("W-HARDENED", "Hardened mode: update from %s refused, %s", peer.c_str(), refusal.c_str());
      // The answers the server knows for a failed update; its file is not
      // read.
      (void)Socket_writen(socket, "OK\r\n", 4);
      (void)Socket_writen(socket, "FAIL\r\n", 6);
      return -1;
    }
  }
  return lib_process_update_request(socket, log_state().logfile, settings.update_tmp_dir, settings.log_dir, line,
                                    peer);
}

std::string hardened_update_refusal(const AgentSettings& settings, std::string& request_line) {
  if (settings.allow_update != 1) return "updates are disabled (-allow_update or ALLOW_UPDATE~1 enables them)";
  const UpdateRequest request = parse_update_request(request_line);
  const std::string target = resolved_path(request.directory);
  if (request.words < 4 || !request.directory.starts_with('/') || target.find_first_of(kBlanks) != std::string::npos ||
      !path_inside(target, resolved_path(settings.install_root)))
    return string_printf("target directory \"%s\" is not inside the install root %s",
                         log_escape(request.directory).c_str(), settings.install_root.c_str());
  // The update goes where the check looked, whatever a link inside the
  // tree is changed to meanwhile.
  request_line = string_printf("%s %s %s %s %s", std::string(kUpdateTag).c_str(), request.name.c_str(),
                               request.size.c_str(), request.checksum.c_str(), target.c_str());
  return {};
}

int lib_process_update_request(int socket, const std::string& log_file_path, const std::string& /*update_tmp_dir*/,
                               const std::string& log_dir, const std::string& request_line,
                               const std::string& /*peer*/) {
  const std::string& log = log_file_path;
  update_log(log, "<UPDATE_DATA>: Input line \" %s \" \n", log_escape(request_line).c_str());
  const UpdateRequest request = parse_update_request(request_line);
  if (request.words < 4) update_log(log, "<UPDATE_DATA> request missing qualifers, got %d of 4\n", request.words);
  const std::string& name = request.name;
  const std::string& directory = request.directory;
  update_log(log, "<UPDATE_DATA> parameters  '%s'   '%s'  '%s'   '%s'", log_escape(name).c_str(),
             log_escape(request.size).c_str(), log_escape(request.checksum).c_str(), log_escape(directory).c_str());

  // A request that could write outside its directory, or not say where, is
  // answered FAIL in place of OK: the server then sends no file at all.
  if (const char* reason = update_request_refusal(request)) {
    update_log(log, "<UPDATE_DATA> request refused, %s", reason);
    (void)sendBytes(log, socket, "FAIL\r\n", 6);
    return -1;
  }
  update_log(log, "<UPDATE_DATA> return OK ack\n");
  (void)sendBytes(log, socket, "OK\r\n", 4);

  if (path_exists(directory))
    (void)::unlink((directory + "/update.tar").c_str());  // a stale archive of an earlier update
  else
    make_directories(directory, 0744);

  update_log(log, "<UPDATE_DATA> recieve %s into %s ...", log_escape(name).c_str(), log_escape(directory).c_str());
  const int received_result = receive_bin_file(log, socket, kUpdateBlockSize, directory, name, request.size);
  if (received_result <= 0) {
    update_log(log, "receive_bin_file failed for autoupdate\n");
    return received_result;
  }

  update_log(log, "<UPDATE_DATA> received file, validate checksum...");
  const std::string received = directory + "/" + name;
  std::string unpacked_name;
  if (Rijndael_Checksum_File(received, request.checksum) != 1) {
    (void)sendBytes(log, socket, "FAIL\r\n", 6);
    update_log(log, "Checksum FAIL, update aborting");
  } else {
    (void)sendBytes(log, socket, "PASS\r\n", 6);
    update_log(log, "Checksum PASS, update proceeding");

    std::string archive = name;
    if (name.find(".gz") != std::string::npos) {
      // "--": a name that begins with "-" is still a file name.
      run_update_tool(log, directory, {"gunzip", "--", name});
      unpacked_name = archive = name.substr(0, name.find(".gz"));
      update_log(log, "<UPDATE_DATA> got compressed file, %s ", log_escape("gunzip " + name).c_str());
    }
    const std::vector<std::string> untar{"tar", "xf", directory + "/" + archive};
    update_log(log, "<UPDATE_DATA> checksum ok, untar update file..., %s", log_escape(command_text(untar)).c_str());
    run_update_tool(log, directory, untar);
    const std::string patch_dir = directory + "/update";
    update_log(log, "<UPDATE_DATA> chdir to patchdir..., %s", log_escape(patch_dir).c_str());

    const std::string unpacked = unpacked_name.empty() ? std::string() : directory + "/" + unpacked_name;
    const std::string update_log_path = log_dir + "/update.log";
    UniqueFd output(::open(update_log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!output) {
      update_log(log, "Error opening log file for update, %s", update_log_path.c_str());
      update_log(log, "update returning, delete %s", log_escape(name).c_str());
      int result = ::unlink(received.c_str());
      if (!unpacked.empty()) {
        update_log(log, " delete %s", log_escape(unpacked_name).c_str());
        result = ::unlink(unpacked.c_str());
      }
      return result;
    }
    output.reset();

    const std::string launcher = directory + "/update/runupdate.sh";
    if (!write_launcher(launcher, patch_dir, update_log_path)) {
      update_log(log, "Error run update script  %s", log_escape(launcher).c_str());
      int result = ::unlink(received.c_str());
      if (!unpacked.empty()) result = ::unlink(unpacked.c_str());
      return result;
    }
    update_log(log, "Executing %s", ("at -f " + log_escape(launcher) + " now\n").c_str());
    run_update_tool(log, patch_dir, {"at", "-f", launcher, "now"});
  }

  // The compressed file is gone after gunzip: its deletion fails quietly.
  int result = ::unlink(received.c_str());
  update_log(log, " delete %s", log_escape(name).c_str());
  if (!unpacked_name.empty()) {
    result = ::unlink((directory + "/" + unpacked_name).c_str());
    if (result != 0) {
      const char* reason = std::strerror(errno);
      update_log(log, " delete %s, failed, %s", log_escape(unpacked_name).c_str(), reason);
    } else {
      update_log(log, " delete %s", log_escape(unpacked_name).c_str());
    }
  }
  return result;
}

}  // namespace kova
