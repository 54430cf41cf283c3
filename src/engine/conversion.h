// The in-memory conversion: one object owns an instance of every stage's state and runs the
// cores as a chain, pulled from the output end: the resampler asks for mono samples, the mix
// asks the decoder for granules, the decoder asks the frame layer for frames. No file, no
// module-level state, nothing printed; every failure comes back as a status and a message.
#pragma once

#include <cstddef>
#include <cstdint>

#include "frame/frame_sync.h"
#include "kavo/kavo.h"

namespace kavolib {

// The input of a conversion: its bytes, and a way back to its first byte (the headers are
// scanned before the decode, so the input is read twice). failed tells whether a read failed
// rather than reaching the end.
struct EngineInput {
    ByteSource source;
    bool (*rewind)(void* context);
    bool (*failed)(void* context);
};

// What a conversion does beyond kavo()'s bytes, and what it says it did.
struct EngineOptions {
    // Honour the encoder's header in the first frame: that frame is not decoded, and the
    // decoded PCM is cut to the samples the encoder was given (engine/gapless.h).
    bool gapless = false;
    // When not null, receives the decoded 16-bit values the mix reads, after the cut: frames
    // of the last frame's channel count, interleaved.
    void (*decoded)(void* user, const int16_t* values, size_t count) = nullptr;
    // Set by the conversion: whether the gapless cut applied (a header was found).
    bool gapless_applied = false;
};

// Runs one conversion: the ADPCM bytes go to write in whole 80-byte frames, progress (may be
// null) runs from 0 to 100. Returns KAVO_OK or a KAVO_ERROR_* status with a one-line message
// in message (when message_size is not 0). Everything runs on the caller's thread.
int run_engine(EngineInput& input, float gain, kavo_write_fn write, kavo_progress_fn progress,
               void* user, char* message, size_t message_size);
int run_engine(EngineInput& input, float gain, kavo_write_fn write, kavo_progress_fn progress,
               void* user, char* message, size_t message_size, EngineOptions& options);

}  // namespace kavolib
