// Test support for audio: 16-bit samples, WAV files and tones, and an independent walk over
// MPEG audio frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kavotest {

using Samples = std::vector<int16_t>;

std::string pcm_bytes(const Samples& samples);                 // little-endian 16-bit
Samples s16(const std::string& bytes, size_t offset = 0);      // the reverse, from offset on
std::string wav_header(uint32_t data_size, int channels, uint32_t rate);  // the plain 44 bytes
std::string wav_bytes(const Samples& interleaved, int channels, uint32_t rate);

// n frames of a sine of the given frequency and amplitude, the same on every channel.
Samples sine(size_t n, double freq, double rate, double amp, int channels = 1);

// The length in bytes of the frame whose header starts at h, from the standard formula and an
// independent copy of the bitrate table; 0 for what is not a header with a bitrate.
long frame_bytes(const unsigned char* h);

// Byte offsets of consecutive frame headers in a file of back-to-back MPEG audio frames,
// found by an independent walk: each header's length from the standard formula. Stops at the
// first position that does not hold a header.
std::vector<size_t> walk_frames(const std::string& bytes, size_t start);

}  // namespace kavotest
