// The file-transfer sub-protocol and the small file utilities the request
// handlers share. A transfer is an 8-byte INF header (count of full
// 522-byte blocks at offset 2, size of the last partial block at offset 6)
// followed by the file's bytes, unframed and unacknowledged.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "platform/process.h"
#include "settings/agent_settings.h"
#include "wire/packet.h"

namespace kova {

inline constexpr int kTransferBlockSize = 522;

// Result codes of send_ascii_file and receive_ascii_file.
enum TransferResult : int {
  kTransferOk = 0,
  kTransferReadFailed = 1,   // send: file not opened or not read; receive: socket read short
  kTransferSendFailed = 2,   // send: socket write short
  kTransferWriteFailed = 3,  // receive: local file write failed
  kTransferOpenFailed = 4,   // receive: local file not opened
  kTransferRefused = 9,      // receive, hardened: more than kReceiveMaxBytes announced
};

// The most a received file may announce in hardened mode.
inline constexpr int64_t kReceiveMaxBytes = int64_t{64} << 20;

// Streams the file at `path`: the header, then its bytes. `buffer` carries
// the header; block_size is 522 (any value outside 1..522 is taken as 522).
// A file that cannot be opened is announced by an empty header (0, 0) and
// returns 1. settings.verbose == 1 logs the sizes first. Returns a
// TransferResult.
[[nodiscard]] int send_ascii_file(int socket, const AgentSettings& settings, const std::string& path,
                                  PacketBuffer& buffer, int block_size);

// Sends the first `size` bytes of the open file `fd` to `socket`, from the
// file's start, with sendfile(2) where the kernel can and large reads and
// writes where it cannot. `sent` receives the bytes that went out. Returns
// kTransferOk; kTransferSendFailed when the socket failed ("E-WRITE" is
// logged), also when the peer took no data for the send bound
// (Socket_wait_writable; error ETIMEDOUT); kTransferReadFailed when the
// file could not be read or ended early. `error` receives errno of the
// failure (0 for an early end).
[[nodiscard]] int send_file_bytes(int socket, int fd, int64_t size, int64_t& sent, int& error);

// Receives a file into `path` (truncated). With send_ack == 1 first sends
// the 10-byte acknowledgement for ack_code. `peer` is only logged; `spare`
// is not used. A transfer cut short leaves the blocks received so far in
// the file. In hardened mode the file is received beside `path` under a
// temporary name and renamed over it only when complete, so a cut transfer
// leaves the old file; one that announces more than kReceiveMaxBytes is
// refused (errno EFBIG) before anything is written. Returns a
// TransferResult.
[[nodiscard]] int receive_ascii_file(int socket, const AgentSettings& settings, const std::string& path,
                                     const std::string& peer, PacketBuffer& buffer, PacketBuffer& spare,
                                     int send_ack, int ack_code);

// Runs the compression command made from `command_template`, in which every
// "*" stands for the file name (inserted shell-quoted). The template must
// contain "*." followed by the output extension (up to the next blank);
// out_name receives file_name plus that extension, and a file of that name
// is deleted first. `extension`, when given, receives the extension.
// Returns 1 when the command ran (its exit status is not examined), else 0.
// A command still running at the program deadline is killed with its
// process group and its output file deleted ("E-COMPRESS_TIMEOUT").
[[nodiscard]] int compress_file(const std::string& command_template, const std::string& file_name,
                                std::string& out_name, std::string* extension = nullptr);

// The size of the file at path from stat(2), or -1.
[[nodiscard]] int64_t GetFileSizeByName(const std::string& path);

// The size of an open stream, found by reading it to its end; the stream
// is rewound afterwards.
[[nodiscard]] int64_t GetFileSizeByFP(std::FILE* stream);

// unlink(2)'s result.
int delete_file(const std::string& path);

}  // namespace kova
