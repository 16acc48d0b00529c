// The protocol's result and status codes, with the texts the agent logs.
#pragma once

#include <string>

namespace kova {

// Result codes of request handlers, sent to the server in error packets.
enum ResultCode : int {
  kResultOk = 0,
  kResultReadError = 1,
  kResultSendError = 2,
  kResultWriteError = 3,
  kResultUnknownCode = 8,
  kResultBadPacket = 9,
  kResultUnregisteredServer = 10,
  kResultMemoryFileNotFound = 11,
  kResultRawDataNotFound = 12,
  kResultAnalyzeNotInstalled = 13,
  kResultPerfFileNotFound = 14,
  kResultMergFileNotFound = 15,
  kResultImageRunFailed = 16,
  kResultCompressionFailed = 19,
  kResultMemoryNode = 20,  // the answer to the "MEMORY_NODE" tag
};

// States of a controlled component in STARTSTOP and DCSTAT replies.
enum ComponentStatus : int {
  kStatusNone = 0,
  kStatusRunning = 3,       // up, or started
  kStatusNotRunning = 4,    // down, or stopped
  kStatusNotInstalled = 5,  // program not found
  kStatusUnknown = 99,
};

// The text logged for a result code; "Unknown code" for codes without one.
const char* result_text(int code);

// Copies result_text(code) into `destination`; returns 1.
int MapErrorStatus(std::string& destination, int code);

}  // namespace kova
