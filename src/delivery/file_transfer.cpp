#include "delivery/file_transfer.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <vector>

#include "base/log.h"
#include "base/shell.h"
#include "platform/unique.h"
#include "wire/socket_io.h"

namespace kova {
namespace {

// Blocks moved per system call where the file is copied by hand. The
// stream carries no per-block framing, so the block size only fixes the
// header and the numbers in log lines.
constexpr int64_t kBlocksPerChunk = 128;
constexpr int64_t kCopyChunk = kTransferBlockSize * kBlocksPerChunk;

bool write_full(int fd, const unsigned char* data, int64_t n) {
  int64_t done = 0;
  while (done < n) {
    ssize_t k = ::write(fd, data + done, static_cast<size_t>(n - done));
    if (k < 0 && errno == EINTR) continue;
    if (k <= 0) return false;
    done += k;
  }
  return true;
}

void send_header(int socket, PacketBuffer& buffer, int64_t blocks, int64_t last) {
  std::fill_n(buffer.begin(), kInfSize, 0);
  Packet_CreateINF(blocks, last, buffer);
  // The transfer goes on after a failed header write: the server may still
  // take the bytes, and a dead connection fails the first block anyway.
  if (Socket_writen(socket, buffer.data(), kInfSize) < 0)
    write_to_log("E-SENDFILE", "Error returning header packet...");
}

// Holds SIGPIPE back for its lifetime, so that sendfile(2) to a peer that
// went away fails with EPIPE instead of ending the request process; a
// SIGPIPE raised meanwhile is taken off the pending set before the old mask
// returns.
class SigpipeHeld {
 public:
  SigpipeHeld() {
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipe_, &saved_);
  }
  ~SigpipeHeld() {
    const timespec none{0, 0};
    while (::sigtimedwait(&pipe_, nullptr, &none) > 0) {
    }
    ::pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
  }
  SigpipeHeld(const SigpipeHeld&) = delete;
  SigpipeHeld& operator=(const SigpipeHeld&) = delete;

 private:
  sigset_t pipe_, saved_;
};

// Makes a descriptor non-blocking for its lifetime: sendfile(2) has no
// per-call flag, and a blocking one waits in the kernel, without a bound,
// for a peer that stopped reading.
class NonBlockingHeld {
 public:
  explicit NonBlockingHeld(int fd) : fd_(fd), flags_(::fcntl(fd, F_GETFL)) {
    if (flags_ >= 0 && (flags_ & O_NONBLOCK) == 0) (void)::fcntl(fd_, F_SETFL, flags_ | O_NONBLOCK);
  }
  ~NonBlockingHeld() {
    if (flags_ >= 0 && (flags_ & O_NONBLOCK) == 0) (void)::fcntl(fd_, F_SETFL, flags_);
  }
  NonBlockingHeld(const NonBlockingHeld&) = delete;
  NonBlockingHeld& operator=(const NonBlockingHeld&) = delete;

 private:
  int fd_;
  int flags_;
};

// A file being received under a temporary name: removed unless it was
// renamed into place.
struct PartialFile {
  std::string path;
  PartialFile() = default;
  PartialFile(const PartialFile&) = delete;
  PartialFile& operator=(const PartialFile&) = delete;
  ~PartialFile() {
    if (!path.empty()) (void)::unlink(path.c_str());
  }
};

}  // namespace

int send_file_bytes(int socket, int fd, int64_t size, int64_t& sent, int& error) {
  sent = 0;
  error = 0;
  {
    SigpipeHeld held;
    NonBlockingHeld non_blocking(socket);
    off_t offset = 0;
    while (sent < size) {
      const size_t want = static_cast<size_t>(std::min<int64_t>(size - sent, int64_t{1} << 30));
      const ssize_t n = ::sendfile(socket, fd, &offset, want);
      if (n > 0) {
        sent += n;
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      // A full connection: wait, within the send bound, for the peer to
      // take more; past it errno says ETIMEDOUT and the send has failed.
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) && Socket_wait_writable(socket)) continue;
      if (n == 0) return kTransferReadFailed;  // the file is shorter than announced
      if (errno == EINVAL || errno == ENOSYS) break;  // not for this file: copy it below
      error = errno;
      log_printf("E-WRITE", "write to socket failed %s\n", std::strerror(error));
      return kTransferSendFailed;
    }
  }
  std::vector<unsigned char> chunk(sent < size ? kCopyChunk : 0);
  while (sent < size) {
    const ssize_t got =
        ::pread(fd, chunk.data(), static_cast<size_t>(std::min<int64_t>(kCopyChunk, size - sent)), sent);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      error = got < 0 ? errno : 0;
      return kTransferReadFailed;
    }
    size_t written = 0;
    if (Socket_writen_counted(socket, chunk.data(), static_cast<size_t>(got), written) != got) {
      error = errno;
      sent += static_cast<int64_t>(written);
      return kTransferSendFailed;
    }
    sent += got;
  }
  return kTransferOk;
}

int send_ascii_file(int socket, const AgentSettings& settings, const std::string& path, PacketBuffer& buffer,
                    int block_size) {
  const int64_t block = block_size >= 1 && block_size <= static_cast<int>(kPacketSize) ? block_size
                                                                                       : kTransferBlockSize;
  // Hardened mode sends no file through a link: one swapped in after the
  // file was chosen must not reach beyond the directory it was chosen from.
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | (settings.harden == 1 ? O_NOFOLLOW : 0)));
  UniqueFile file(fd ? ::fdopen(fd.get(), "r") : nullptr);
  if (file) (void)fd.release();
  int64_t size = -1;
  if (file) {
    size = GetFileSizeByName(path);
    if (size < 0) size = GetFileSizeByFP(file.get());
  }
  // A block count beyond the header's 32 bits cannot be announced; such a
  // file is refused as one that cannot be opened.
  if (!file || size < 0 || size / block > INT32_MAX) {
    log_printf("W-OPEN", "Unable to open %s , %s", log_escape(path).c_str(), std::strerror(file ? EFBIG : errno));
    send_header(socket, buffer, 0, 0);
    return kTransferReadFailed;
  }
  const int64_t blocks = size / block;
  const int64_t last = size % block;
  if (settings.verbose == 1)
    log_printf("I-SENDFILE", "File Size: %lld  (Buffer Size: %d  Blocks: %lld  Last Block Size: %lld)",
               static_cast<long long>(size), static_cast<int>(block), static_cast<long long>(blocks),
               static_cast<long long>(last));
  send_header(socket, buffer, blocks, last);

  int64_t sent = 0;
  int error = 0;
  const int result = send_file_bytes(socket, ::fileno(file.get()), size, sent, error);
  const int64_t full_end = blocks * block;
  if (result == kTransferSendFailed) {
    const int64_t failed_block = sent / block + 1;
    if (sent < full_end)
      log_printf("E-SEND", "Error sending packet %lld of %lld,  %lld of %d bytes, (sent %lld)",
                 static_cast<long long>(failed_block), static_cast<long long>(blocks),
                 static_cast<long long>(sent % block), static_cast<int>(block),
                 static_cast<long long>((failed_block - 1) * block));
    else
      log_printf("E-SEND", "Error sending last packet %lld,  %lld of %d bytes, sent %lld bytes",
                 static_cast<long long>(blocks), static_cast<long long>(sent - full_end), static_cast<int>(block),
                 static_cast<long long>(full_end));
    return kTransferSendFailed;
  }
  if (result == kTransferReadFailed) {
    const char* reason = error != 0 ? std::strerror(error) : "unexpected end of file";
    if (sent < full_end)
      log_printf("E-READ", "File read error on block %lld,  %s,  %s", static_cast<long long>(sent / block + 1),
                 log_escape(path).c_str(), reason);
    else
      log_printf("E-READ", "Error reading file last packet, %s , %s", log_escape(path).c_str(), reason);
    return kTransferReadFailed;
  }
  file.reset();
  log_printf("I-SENT", "File (%s) transfered. (%lld of %lld bytes)", log_escape(path).c_str(),
             static_cast<long long>(sent), static_cast<long long>(size));
  return kTransferOk;
}

int receive_ascii_file(int socket, const AgentSettings& settings, const std::string& path, const std::string& peer,
                       PacketBuffer& buffer, [[maybe_unused]] PacketBuffer& spare, int send_ack, int ack_code) {
  log_printf("I-REQ_RCV", "Receive File request from %s, %s", peer.c_str(), path.c_str());
  const bool whole_or_nothing = settings.harden == 1;
  PartialFile partial;
  UniqueFd out;
  if (whole_or_nothing) {
    partial.path = path + ".XXXXXX";
    out.reset(::mkostemp(partial.path.data(), O_CLOEXEC));
    if (!out) partial.path.clear();
    else (void)::fchmod(out.get(), 0644);  // as a file created under the agent's umask
  } else {
    out.reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  }
  if (!out) {
    log_printf("E-OPEN", "Unable to open %s : %s", path.c_str(), std::strerror(errno));
    return kTransferOpenFailed;
  }
  if (send_ack == 1) {
    buffer.fill(0);
    Packet_CreateMEMACK(ack_code, buffer);
    // Unchecked: a server that is gone shows up as a failed header read.
    (void)Socket_writen(socket, buffer.data(), kMemAckSize);
  }

  buffer.fill(0);
  // A header cut short is as unusable as one not read at all.
  if (Socket_readn(socket, buffer.data(), kInfSize, settings.verbose) != static_cast<ssize_t>(kInfSize))
    return kTransferReadFailed;
  // Both fields are signed on the wire: a count below 1 means no blocks.
  const int32_t blocks = Packet_CheckLONG(buffer, 2);
  const int16_t last = Packet_CheckOPCODE(buffer, 6);
  const int64_t announced = int64_t{std::max<int32_t>(blocks, 0)} * kTransferBlockSize + std::max<int16_t>(last, 0);
  if (whole_or_nothing && announced > kReceiveMaxBytes) {
    log_printf("W-HARDENED", "Hardened mode: %s refused, %lld bytes announced, at most %lld", path.c_str(),
               static_cast<long long>(announced), static_cast<long long>(kReceiveMaxBytes));
    errno = EFBIG;
    return kTransferRefused;
  }

  // Block by block, so that a connection lost mid-file leaves every block
  // that arrived whole in the file, and nothing of the one cut short.
  for (int32_t i = 0; i < blocks; ++i) {
    if (Socket_readn(socket, buffer.data(), kPacketSize, settings.verbose) != static_cast<ssize_t>(kPacketSize))
      return kTransferReadFailed;
    if (!write_full(out.get(), buffer.data(), kPacketSize)) {
      log_printf("E-WRITE", "Write to file %s failed : %s", path.c_str(), std::strerror(errno));
      return kTransferWriteFailed;
    }
  }
  if (last > 0) {
    // A sender that keeps to the block size announces less than a block,
    // but the field allows up to 32767 bytes.
    std::vector<unsigned char> tail(static_cast<size_t>(last));
    if (Socket_readn(socket, tail.data(), tail.size(), settings.verbose) != last) return kTransferReadFailed;
    if (!write_full(out.get(), tail.data(), last)) {
      log_printf("W-WRITE", "Write to file %s failed : %s", path.c_str(), std::strerror(errno));
      return kTransferWriteFailed;
    }
  }
  if (whole_or_nothing) {
    if (out.close() != 0 || ::rename(partial.path.c_str(), path.c_str()) != 0) {
      log_printf("E-WRITE", "Write to file %s failed : %s", path.c_str(), std::strerror(errno));
      return kTransferWriteFailed;
    }
    partial.path.clear();  // it is the file now
  }
  out.reset();
  log_printf("I-RECVD", "Received:  %s   %lld bytes\n", path.c_str(),
             static_cast<long long>(blocks) * kTransferBlockSize + last);
  return kTransferOk;
}

int compress_file(const std::string& command_template, const std::string& file_name, std::string& out_name,
                  std::string* extension) {
  if (command_template.empty() || file_name.empty()) return 0;
  const size_t star_dot = command_template.find("*.");
  if (star_dot == std::string::npos) {
    write_to_log("E-COMPRESS", "compression command doesnt contain an output file");
    return 0;
  }
  const size_t ext_begin = star_dot + 1;
  const size_t ext_end = command_template.find_first_of(" \t", ext_begin);
  const std::string ext = command_template.substr(ext_begin, ext_end == std::string::npos ? std::string::npos
                                                                                          : ext_end - ext_begin);
  // The template is the operator's command; the file name is not trusted
  // and goes to the shell as one quoted word ("'name'.gz" still names
  // name.gz). The log shows the command as the operator wrote it.
  const std::string quoted = shell_quote(file_name);
  std::string command, shown;
  for (char c : command_template) {
    command += c == '*' ? quoted : std::string(1, c);
    shown += c == '*' ? file_name : std::string(1, c);
  }
  out_name = file_name + ext;
  if (extension != nullptr) *extension = ext;
  ::unlink(out_name.c_str());

  log_printf("I-COMPRESS", "Running, %s", log_escape(shown).c_str());
  // The operator's command line is the interface here, so a shell runs it;
  // the one value from outside, the file name, is quoted above.
  std::string output;
  const ProgramRun run = run_program({"/bin/sh", "-c", command}, output);
  if (run == ProgramRun::kKilled) {
    // A half-written archive is no archive: the caller finds none.
    log_printf("E-COMPRESS_TIMEOUT", "%s ran longer than %d seconds and was stopped", shown.c_str(),
               program_deadline_seconds());
    ::unlink(out_name.c_str());
  }
  return run == ProgramRun::kNotStarted ? 0 : 1;
}

int64_t GetFileSizeByName(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return -1;
  return st.st_size;
}

int64_t GetFileSizeByFP(std::FILE* stream) {
  if (stream == nullptr) return -1;
  int64_t size = 0;
  while (std::fgetc(stream) != EOF) ++size;
  std::rewind(stream);
  return size;
}

int delete_file(const std::string& path) { return ::unlink(path.c_str()); }

}  // namespace kova
