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
  kResultAppDataNotRegistered = 17,  // the directory is not a registered application directory
  kResultAppDataNotOpened = 18,      // a registered application directory cannot be opened
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

// Request opcodes: the signed short at offset 0 of the 40-byte request.
// Every other value is an unknown code.
enum Opcode : int {
  kOpPerfData = 1,
  kOpMemoryFile = 2,
  kOpStartCollector = 3,
  kOpStopCollector = 4,
  kOpIgnored = 5,  // accepted, no reply
  kOpComponentStatus = 6,
  kOpTerminate = 7,
  kOpRawData = 8,
  kOpStartRta = 9,
  kOpStopRta = 10,
  kOpRawDataMode1 = 13,
  kOpVersion = 14,
  kOpConfig = 15,
  kOpOsId = 16,
  kOpStartSorlex = 18,
  kOpStopSorlex = 19,
  kOpSorlexStatus = 20,
  kOpExtended = 254,  // a tagged request with a payload
};

// What the dispatcher returns besides a handler's own result code. Only
// kDispatchTerminate has a meaning to its caller; the others say what was
// done, for a debugger's eye.
enum DispatchResult : int {
  kDispatchReadError = 1,
  kDispatchCollectorStarted = 23,
  kDispatchCollectorStopped = 24,
  kDispatchStatusSent = 26,
  kDispatchTerminate = 27,  // end the agent (a -nofork agent) or the request child
  kDispatchRtaStarted = 28,
  kDispatchRtaStopped = 29,
  kDispatchDone = 30,
};

// The text logged for a result code; "Unknown code" for codes without one.
const char* result_text(int code);

}  // namespace kova
