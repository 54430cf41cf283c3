// The two stages between the decoder and the encoder: mix a 16-bit WAV file to mono, and
// convert a WAV file to 8000 frames per second. Each works file to file, rewrites the
// canonical 44-byte WAV header, reports progress, and ends the process with exit code 1 after
// closing every open stream when it cannot do its work.
#pragma once

#include <cstdint>

#include "kavo/kavo.h"
#include "platform/wav_header.h"

namespace kavolib {

// Progress 40 .. 59, once per frame.
void mix_to_mono(const char* inPath, const char* outPath, ProgressCallback callback,
                 int32_t user);

// Progress 60 .. 80 from the engine. Leaves "temp.txt" in the current directory.
void resample_to_8k(const char* inPath, const char* outPath, int16_t useLargeFilter,
                    ProgressCallback callback, int32_t user);

}  // namespace kavolib
