// Product identity shown in the banner, the log header and the lock file.
#pragma once

namespace kova {

inline constexpr const char* kProductName = "KOVAagent";
inline constexpr const char* kProgramName = "kovaagent";
inline constexpr const char* kBuildVersion = "V10.0-001";
inline constexpr const char* kBuildDate = "Feb 23 2012";
inline constexpr const char* kOwnershipNotice = "Copyright (c) KOVA Systems. All rights reserved.";

}  // namespace kova
