// The sample rules of the WAV input. The G.711 expansions follow the standard's segment
// layout: a 3-bit segment, a 4-bit step and the sign; mu-law is stored inverted and biased
// by 0x84 (132), A-law with every other bit inverted (0x55).
#include "container/wav.h"

#include <cmath>
#include <cstring>

namespace kavolib {

namespace {

int16_t mulaw_sample(uint8_t code) {
    const int u = ~code & 0xFF;
    const int t = (((u & 0x0F) << 3) + 0x84) << ((u & 0x70) >> 4);
    return static_cast<int16_t>((u & 0x80) != 0 ? 0x84 - t : t - 0x84);
}

int16_t alaw_sample(uint8_t code) {
    const int a = code ^ 0x55;
    const int segment = (a & 0x70) >> 4;
    int t = (a & 0x0F) << 4;
    if (segment == 0) {
        t += 8;
    } else {
        t = (t + 0x108) << (segment - 1);
    }
    return static_cast<int16_t>((a & 0x80) != 0 ? t : -t);
}

int16_t saturate(int64_t v) {
    return static_cast<int16_t>(v > 32767 ? 32767 : v < -32768 ? -32768 : v);
}

int16_t float_sample(const uint8_t* p) {
    const uint32_t bits = uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 |
                          uint32_t{p[3]} << 24;
    float f;
    std::memcpy(&f, &bits, sizeof f);
    if (std::isnan(f)) return 0;
    const double scaled = std::floor(static_cast<double>(f) * 32768.0 + 0.5);
    return scaled >= 32767.0 ? int16_t{32767} : scaled <= -32768.0 ? int16_t{-32768}
                                                                     : static_cast<int16_t>(scaled);
}

}  // namespace

const char* wav_encoding_name(WavEncoding encoding) {
    switch (encoding) {
        case WavEncoding::pcm8:
            return "8-bit PCM";
        case WavEncoding::pcm16:
            return "16-bit PCM";
        case WavEncoding::pcm24:
            return "24-bit PCM";
        case WavEncoding::pcm32:
            return "32-bit PCM";
        case WavEncoding::float32:
            return "32-bit float";
        case WavEncoding::mulaw:
            return "mu-law";
        case WavEncoding::alaw:
            return "A-law";
    }
    return "";
}

void wav_to_16(WavEncoding encoding, const uint8_t* src, size_t count, int16_t* dst) {
    for (size_t i = 0; i < count; ++i) {
        switch (encoding) {
            case WavEncoding::pcm8:
                dst[i] = static_cast<int16_t>((src[i] - 128) * 256);
                break;
            case WavEncoding::pcm16:
                dst[i] = static_cast<int16_t>(static_cast<uint16_t>(src[2 * i] | src[2 * i + 1] << 8));
                break;
            case WavEncoding::pcm24: {
                const uint8_t* p = src + 3 * i;
                // Sign-extended from bit 23, then the 8 low bits rounded away.
                const int32_t v = static_cast<int32_t>(
                    (uint32_t{p[0]} << 8 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 24)) >> 8;
                dst[i] = saturate((int64_t{v} + 128) >> 8);
                break;
            }
            case WavEncoding::pcm32: {
                const uint8_t* p = src + 4 * i;
                const int32_t v = static_cast<int32_t>(uint32_t{p[0]} | uint32_t{p[1]} << 8 |
                                                       uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24);
                dst[i] = saturate((int64_t{v} + 32768) >> 16);
                break;
            }
            case WavEncoding::float32:
                dst[i] = float_sample(src + 4 * i);
                break;
            case WavEncoding::mulaw:
                dst[i] = mulaw_sample(src[i]);
                break;
            case WavEncoding::alaw:
                dst[i] = alaw_sample(src[i]);
                break;
        }
    }
}

}  // namespace kavolib
