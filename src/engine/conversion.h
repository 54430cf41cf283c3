// The in-memory conversion: one object owns an instance of every stage's state and runs the
// cores as a chain, pulled from the output end: the resampler asks for mono samples, the mix
// asks the decoder for granules, the decoder asks the frame layer for frames. No file, no
// module-level state, nothing printed; every failure comes back as a status and a message.
// The input is MPEG audio (only the stream between its tags and wrapper is decoded) or WAV
// samples; either way the 16-bit values take the same road through the mix, the resampler
// and the coder.
#pragma once

#include <cstddef>

#include "container/byte_reader.h"
#include "container/input_layout.h"
#include "kavo/kavo.h"
#include "pcmout/pcm_output.h"

namespace kavolib {

// The input of a conversion: random access to its bytes (the container layer reads its ends,
// the frame headers are scanned before the decode, so the stream is read twice), and whether
// a read failed rather than reaching the end.
struct EngineInput {
    ByteReader reader;
    bool (*failed)(void* context);
};

// Runs one conversion with the settings (a whole record of the library's own size): the ADPCM
// bytes go to write in whole 80-byte frames, progress (may be null) runs from 0 to 100. Returns
// KAVO_OK or a KAVO_ERROR_* status with a one-line message in message (when message_size is
// not 0). report, when not null, is a whole record of the library's own size and receives what
// the conversion found. Everything runs on the caller's thread. described, when not null,
// receives what the input was found to be (also on failure, once the input was looked at).
int run_engine(EngineInput& input, const kavo_settings& settings, kavo_write_fn write,
               kavo_progress_fn progress, void* user, kavo_report* report, char* message,
               size_t message_size, InputLayout* described = nullptr);

// Decodes the MPEG audio of input into 16-bit PCM exactly as the decode phase writes its file
// in the given form (raw, WAV or text), handed to write in blocks. Inputs are refused as the
// conversion refuses them (a WAV file too: it holds no MPEG audio), before the first write.
// With gapless, only the values the gapless cut keeps (engine/gapless.h), as the conversion
// reads them.
int run_decode(EngineInput& input, OutputForm form, kavo_write_fn write, void* user,
               char* message, size_t message_size, InputLayout* described = nullptr,
               bool gapless = false);

// The negative gain of largest magnitude that wraps none of the samples the report
// describes (the report's max_gain is the positive one).
double largest_negative_gain(const kavo_report& report);

// The default settings with the given gain.
inline kavo_settings settings_with_gain(float gain) {
    kavo_settings settings = KAVO_SETTINGS_INIT;
    settings.gain = gain;
    return settings;
}

// The same with the default settings but the gain, and no report.
inline int run_engine(EngineInput& input, float gain, kavo_write_fn write,
                      kavo_progress_fn progress, void* user, char* message, size_t message_size) {
    return run_engine(input, settings_with_gain(gain), write, progress, user, nullptr, message,
                      message_size);
}

}  // namespace kavolib
