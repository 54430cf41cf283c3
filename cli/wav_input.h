// WAV prompts as input to kavo convert: the RIFF chunks are read properly (the fmt and data
// chunks wherever they stand), then the samples take the road of the stages after the
// decoder, in memory: the mix to mono, the resampler with the large built-in filter, and the
// coder, exactly as kavo mix, kavo resample and kavo encode do on their files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "kavo/kavo.h"

namespace kavocli {

struct WavFormat {
    int format_tag = 0;  // 1 PCM (a WAVE_FORMAT_EXTENSIBLE file gives its subformat's tag)
    int channels = 0;
    int rate = 0;
    int bits = 0;
    const uint8_t* data = nullptr;
    size_t data_bytes = 0;  // what the data chunk declares, cut to what the file holds

    int64_t frames() const {
        return channels > 0 ? int64_t(data_bytes / (2u * unsigned(channels))) : 0;
    }
    double seconds() const { return rate > 0 ? double(frames()) / rate : 0.0; }
};

enum class WavCheck {
    not_wav,      // no RIFF/WAVE header: some other kind of file
    convertible,  // 16-bit PCM, mono or stereo, 8000 to 48000 frames per second
    refused,      // a WAV file of another kind; why says which
};

WavCheck check_wav(const uint8_t* bytes, size_t size, WavFormat& format, std::string& why);

// Converts a convertible WAV's samples with the engine's conventions: the output goes to write
// in whole 80-byte frames, progress runs 0..100, a non-zero write result stops the conversion
// (KAVO_ERROR_STOPPED). Returns KAVO_OK or a KAVO_ERROR_* status with message set.
int convert_wav(const WavFormat& format, float gain, kavo_write_fn write, kavo_progress_fn progress,
                void* user, std::string& message);

}  // namespace kavocli
