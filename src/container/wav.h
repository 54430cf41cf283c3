// WAV audio as the conversion takes it: the encodings people have (8, 16, 24 and 32-bit
// integer PCM, 32-bit float, G.711 mu-law and A-law), each turned into 16-bit samples by one
// rule before the mix, and the words that name a format that is refused.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kavolib {

enum class WavEncoding { pcm8, pcm16, pcm24, pcm32, float32, mulaw, alaw };

struct WavInfo {
    WavEncoding encoding = WavEncoding::pcm16;
    int channels = 0;
    int rate = 0;
    int sample_bytes = 0;  // bytes of one sample of one channel
    uint64_t frames = 0;   // whole frames in the data chunk (a partial last one is dropped)
};

// "16-bit PCM", "mu-law", ...
const char* wav_encoding_name(WavEncoding encoding);

// Converts count samples at src of the given encoding into 16-bit samples:
//   8-bit PCM: (value - 128) x 256;
//   24 and 32-bit PCM, 32-bit float (full scale at +-1.0): rounded to the nearest 16-bit value,
//     halves upward, saturated to -32768..32767 (a float that is not a number gives 0);
//   mu-law and A-law: the G.711 expansion on the 16-bit scale (+-32124 and +-32256).
void wav_to_16(WavEncoding encoding, const uint8_t* src, size_t count, int16_t* dst);

}  // namespace kavolib
