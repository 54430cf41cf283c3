// The conversion entry: the pieces of one call of kavo, in the order they run.
#pragma once

#include <cstdint>

#include "kavo/kavo.h"

namespace kavolib {

inline constexpr double kLibraryVersion = 1.2;
inline constexpr int32_t kStatusSuccess = 1;
inline constexpr int32_t kStatusNoInput = 3;
inline constexpr int32_t kStatusNoOutput = 4;
inline constexpr int32_t kStatusBadGain = 5;
// A path that names one of the temporary files below in the current directory: the
// conversion would overwrite or remove it, so the call is refused before anything is touched.
inline constexpr int32_t kStatusTemporaryName = 6;

// The files a conversion makes in the current directory, as created.
inline constexpr const char* kDecodedName = "ZUVRTEMP.TM2";
inline constexpr const char* kFlagName = "chkmode.txt";
inline constexpr const char* kMonoName = "resample_tmp.wav";
inline constexpr const char* kEightKName = "temp.wav";
inline constexpr const char* kDiagnosticName = "temp.txt";
inline constexpr const char* kAdpcmCopyName = "ZUTMP.TM1";

// The argument checks of kavo, in their order: 0 when the call may go on, else the status of
// the refusal (3, 4, 5, then 6 when either path names a temporary file).
int32_t check_arguments(const char* input_path, const char* output_path, float gain);

// True when path names one of the conversion's temporary files in the current directory
// (compared without regard to case on Windows, whose file names ignore it).
bool names_temporary_file(const char* path);

// The banner printed on standard error at the start of every accepted call.
void print_banner();

}  // namespace kavolib
