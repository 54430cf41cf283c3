// The canonical WAV header, written field by field.
#include "platform/wav_header.h"

#include <cstring>

namespace kavolib {

void make_wav_header(uint8_t header[kWavHeaderSize], uint32_t file_length, int32_t channels,
                     int32_t rate) {
    const auto ch = static_cast<uint32_t>(channels);
    const auto hz = static_cast<uint32_t>(rate);
    std::memcpy(header, "RIFF", 4);
    wav_put32(header, kWavRiffSize, file_length - 8);
    std::memcpy(header + 8, "WAVE", 4);
    std::memcpy(header + 12, "fmt ", 4);
    wav_put32(header, 16, 16);
    wav_put16(header, 20, 1);
    wav_put16(header, kWavChannels, ch);
    wav_put32(header, kWavRate, hz);
    wav_put32(header, kWavByteRate, (hz * ch * 16 + 7) / 8);
    wav_put16(header, kWavBlockAlign, (ch * 16 + 7) / 8);
    wav_put16(header, 34, 16);
    std::memcpy(header + 36, "data", 4);
    wav_put32(header, kWavDataSize, file_length - 44);
}

}  // namespace kavolib
