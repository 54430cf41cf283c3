// Samples, WAV files and tones for the tests, and an independent walk over MPEG audio frames.
#include "audio.h"

#include <cmath>
#include <numbers>

namespace kavotest {

namespace {

void put_le(std::string& s, uint32_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) s.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

}  // namespace

std::string pcm_bytes(const Samples& samples) {
    std::string out;
    for (int16_t v : samples) put_le(out, static_cast<uint16_t>(v), 2);
    return out;
}

Samples s16(const std::string& bytes, size_t offset) {
    Samples out;
    for (size_t i = offset; i + 1 < bytes.size(); i += 2) {
        out.push_back(static_cast<int16_t>(static_cast<uint8_t>(bytes[i]) |
                                           static_cast<uint8_t>(bytes[i + 1]) << 8));
    }
    return out;
}

std::string wav_header(uint32_t data_size, int channels, uint32_t rate) {
    const auto ch = static_cast<uint32_t>(channels);
    std::string h = "RIFF";
    put_le(h, data_size + 36, 4);
    h += "WAVEfmt ";
    const std::pair<uint32_t, int> fmt[] = {{16, 4}, {1, 2}, {ch, 2}, {rate, 4}, {rate * 2 * ch, 4},
                                            {2 * ch, 2}, {16, 2}};
    for (const auto& [value, bytes] : fmt) put_le(h, value, bytes);
    h += "data";
    put_le(h, data_size, 4);
    return h;
}

std::string wav_bytes(const Samples& interleaved, int channels, uint32_t rate) {
    return wav_header(static_cast<uint32_t>(interleaved.size() * 2), channels, rate) +
           pcm_bytes(interleaved);
}

Samples sine(size_t n, double freq, double rate, double amp, int channels) {
    Samples out;
    for (size_t i = 0; i < n; ++i) {
        const double v = amp * std::sin(2 * std::numbers::pi * freq * double(i) / rate);
        out.insert(out.end(), size_t(channels), static_cast<int16_t>(std::lround(v)));
    }
    return out;
}

long frame_bytes(const unsigned char* h) {
    // kbit/s by [lsf][layer-1][index], and Hz by [version][index].
    static const int kKbps[2][3][16] = {
        {{0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448, 0},
         {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 0},
         {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0}},
        {{0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256, 0},
         {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},
         {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0}}};
    static const int kHz[4][3] = {
        {11025, 12000, 8000}, {0, 0, 0}, {22050, 24000, 16000}, {44100, 48000, 32000}};
    if (h[0] != 0xFF || (h[1] & 0xE0) != 0xE0) return 0;
    const int version = (h[1] >> 3) & 3;
    const int layer = 4 - ((h[1] >> 1) & 3);
    const int index = h[2] >> 4;
    const int freq = (h[2] >> 2) & 3;
    const int pad = (h[2] >> 1) & 1;
    if (version == 1 || layer == 4 || index == 0 || index == 15 || freq == 3) return 0;
    const int lsf = version == 3 ? 0 : 1;
    const long bps = kKbps[lsf][layer - 1][index] * 1000L;
    const long hz = kHz[version][freq];
    if (layer == 1) return (12 * bps / hz + pad) * 4;
    if (layer == 3 && lsf == 1) return 72 * bps / hz + pad;
    return 144 * bps / hz + pad;
}

std::vector<size_t> walk_frames(const std::string& bytes, size_t start) {
    std::vector<size_t> starts;
    size_t at = start;
    while (at + 4 <= bytes.size()) {
        const long length = frame_bytes(reinterpret_cast<const unsigned char*>(bytes.data() + at));
        if (length == 0 || at + static_cast<size_t>(length) > bytes.size()) break;
        starts.push_back(at);
        at += static_cast<size_t>(length);
    }
    return starts;
}

}  // namespace kavotest
