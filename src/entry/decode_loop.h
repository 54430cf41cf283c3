// The decode phase of a conversion: the input is opened, every frame is read and its granules
// decoded into the decoded-PCM file, with progress from 0 to 40 %; Layer I and II frames end
// the process with their refusal.
#pragma once

#include <cstdint>

#include "kavo/kavo.h"

namespace kavolib {

// The two per-channel granule buffers, channel 1's directly after channel 0's.
struct PcmBuffers {
    double samples[2][576];
};

// Frames received from read_frame since the library was loaded (never reset).
extern int64_t frame_counter;

// Prepares a conversion: clears the PCM buffers, the frame layer's per-conversion state and
// the job words, and resets the Layer III decoder (codec command 0).
void decoder_init();

// The progress figure for bytes_read of input_length bytes, 0..40. An empty input (length 0)
// counts as nothing read yet: 0.
int32_t decode_progress(int64_t bytes_read, int64_t input_length);

// Decodes the MP3 file input into decoded_name (its form chosen by the name) in the current
// directory, and writes "chkmode.txt". Returns at the end of the input; fatal conditions and
// Layer I/II frames end the process.
void decode_phase(const char* input, const char* decoded_name, ProgressCallback callback,
                  int32_t user);

// The process ends here after a refusal or a fatal condition of the stages: every stream the
// library opened is closed first.
[[noreturn]] void end_conversion_failed();

}  // namespace kavolib
