// The last stage of a conversion: 8000 Hz mono 16-bit PCM (a WAV file or raw samples) in,
// the gain applied, every sample coded, four codes packed to a 16-bit little-endian word
// (earliest sample in the low nibble), 40 words per 160-sample frame, out to a headerless file.
#pragma once

#include <cstdint>

#include "adpcm/adpcm_core.h"
#include "kavo/kavo.h"

namespace kavolib {

inline constexpr int kAdpcmFrameWords = kAdpcmFrameSamples / 4;
// The copy of a WAV input's data, made in the current directory and removed at the end.
inline constexpr const char* kAdpcmDataCopyName = "ZUTMP.TM1";

// Encodes inPath into outPath with a fresh coder state, reporting progress from 80 % through
// callback (which may be null) as (user, 0, 100, percent, 1). A file that cannot be opened
// closes every open stream and ends the process with exit status 1.
void adpcm_encode_file(const char* inPath, const char* outPath, float gain,
                       ProgressCallback callback, int32_t user);

}  // namespace kavolib
