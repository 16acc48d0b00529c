#include "base/codes.h"

namespace kova {

const char* result_text(int code) {
  switch (code) {
    case kResultReadError: return "Read Error";
    case kResultSendError: return "Send Error";
    case kResultWriteError: return "Write Error";
    case kResultUnknownCode: return "Unknown code";
    case kResultBadPacket: return "Bad packet received";
    case kResultUnregisteredServer: return "Unregistered server";
    case kResultMemoryFileNotFound: return ".Memory file not found";
    case kResultRawDataNotFound: return "RAW data file not found";
    case kResultAnalyzeNotInstalled: return "vorn_analyze not installed";
    case kResultPerfFileNotFound: return ".PERF file not found";
    case kResultMergFileNotFound: return ".MERG file not found";
    case kResultImageRunFailed: return "Image run failed";
    case kResultCompressionFailed: return "Compression failed";
    default: return "Unknown code";
  }
}

}  // namespace kova
