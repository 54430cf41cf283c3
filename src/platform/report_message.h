// The message routine of the decoder side: warnings (shown only while verbosity is non-zero)
// and fatal errors, which end the process with exit code 1.
#pragma once

namespace kavolib {

inline constexpr int kMessageFatal = 1;
inline constexpr int kMessageWarning = 0;

// 0 while the library is loaded; nothing changes it, so warnings stay silent.
extern int verbosity;

// kind 1: prints "\nFATAL ERROR: <text>" on standard error and ends the process with code 1.
// Any other kind: prints "\nWARNING: <text>" on standard error when verbosity is non-zero.
// The text carries its own line end.
void report_message(const char* text, int kind);

}  // namespace kavolib
