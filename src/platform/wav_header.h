// The canonical 44-byte header of a 16-bit PCM WAV file, as every stage that writes or reads
// one sees it: the fields at their fixed offsets, little-endian, read and written in place.
// The decoded-PCM file, the mix and resample stages, the ADPCM stage and the expansion of codes
// all go through here.
#pragma once

#include <cstdint>

namespace kavolib {

inline constexpr int kWavHeaderSize = 44;

// Field offsets.
inline constexpr int kWavRiffSize = 4;     // file length - 8
inline constexpr int kWavChannels = 22;    // 16-bit
inline constexpr int kWavRate = 24;        // frames per second
inline constexpr int kWavByteRate = 28;    // bytes per second
inline constexpr int kWavBlockAlign = 32;  // bytes per frame, 16-bit
inline constexpr int kWavDataSize = 40;    // bytes of samples

struct WavHeader {
    uint8_t bytes[kWavHeaderSize];
};

inline uint32_t wav_get32(const uint8_t* h, int at) {
    return uint32_t{h[at]} | uint32_t{h[at + 1]} << 8 | uint32_t{h[at + 2]} << 16 |
           uint32_t{h[at + 3]} << 24;
}

inline int16_t wav_get16(const uint8_t* h, int at) {
    return static_cast<int16_t>(static_cast<uint16_t>(h[at] | h[at + 1] << 8));
}

inline void wav_put32(uint8_t* h, int at, uint32_t value) {
    for (int i = 0; i < 4; ++i) h[at + i] = static_cast<uint8_t>(value >> (8 * i));
}

inline void wav_put16(uint8_t* h, int at, uint32_t value) {
    h[at] = static_cast<uint8_t>(value & 0xFFu);
    h[at + 1] = static_cast<uint8_t>((value >> 8) & 0xFFu);
}

// The header of a 16-bit PCM file of file_length bytes in all (header included).
void make_wav_header(uint8_t header[kWavHeaderSize], uint32_t file_length, int32_t channels,
                     int32_t rate);

}  // namespace kavolib
