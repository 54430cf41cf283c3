// The ADPCM output stage: reads 8000 Hz samples frame by frame, applies the gain, codes them
// with the module's coder state and writes the packed codes. A WAV input is first reduced to its
// sample data through a copy in "ZUTMP.TM1"; anything else is taken as raw samples from byte 0.
#include "adpcm/adpcm_output.h"

#include <cstdio>
#include <cstring>

#include "adpcm/adpcm_core.h"
#include "platform/platform.h"
#include "platform/wav_header.h"

namespace kavolib {

namespace {

[[noreturn]] void fail_stage() {
    close_all_streams();
    end_process(1);
}

// Copies the sample data of a WAV input (the size at byte 40, the data from byte 44) into
// "ZUTMP.TM1" and returns that copy opened for reading. A data size beyond the end of the
// file copies what is there; missing size bytes count as 0.
FILE* copy_wav_data(FILE* in) {
    FILE* copy = open_stream(kAdpcmDataCopyName, "wb");
    if (copy == nullptr) fail_stage();  // treated like an input that cannot be opened
    uint8_t size[4] = {0, 0, 0, 0};
    std::fseek(in, kWavDataSize, SEEK_SET);
    std::fread(size, 1, 4, in);  // a header cut short leaves the missing bytes at 0
    uint32_t remaining = wav_get32(size, 0);
    unsigned char buffer[8192];
    while (remaining > 0) {
        const size_t want = remaining < sizeof buffer ? remaining : sizeof buffer;
        const size_t got = std::fread(buffer, 1, want, in);
        if (got == 0) break;
        std::fwrite(buffer, 1, got, copy);
        remaining -= static_cast<uint32_t>(got);
    }
    close_stream(in);
    close_stream(copy);
    FILE* reopened = open_stream(kAdpcmDataCopyName, "rb");
    if (reopened == nullptr) fail_stage();
    return reopened;
}

// The percentage reported after p seconds of input out of T, as the stage has always done
// it: single-precision p and T and constants, the expression in double, truncated.
int32_t progress_percent(float p, float T) {
    const double value = static_cast<double>(p) / static_cast<double>(T) *
                             static_cast<double>(100.0f) * static_cast<double>(0.2f) +
                         static_cast<double>(80.0f);
    return static_cast<int32_t>(value);
}

}  // namespace

void adpcm_encode_file(const char* inPath, const char* outPath, float gain,
                       ProgressCallback callback, int32_t user) {
    // The output is only created once the input is known to open.
    FILE* in = open_stream(inPath, "rb");
    if (in == nullptr) fail_stage();
    FILE* out = open_stream(outPath, "wb");
    if (out == nullptr) fail_stage();

    // The input's length in seconds at 16000 bytes per second, header included.
    const float T = static_cast<float>(static_cast<double>(file_length(in)) * 6.25e-5);

    unsigned char magic[4] = {0, 0, 0, 0};
    if (std::fread(magic, 1, 4, in) == 4 && std::memcmp(magic, "RIFF", 4) == 0) {
        in = copy_wav_data(in);
    } else {
        std::fseek(in, 0, SEEK_SET);
    }

    AdpcmState& state = adpcm_state;
    adpcm_init(state);
    float p = 0.02f;
    int frame_counter = 3;

    unsigned char bytes[2 * kAdpcmFrameSamples];
    int16_t frame[kAdpcmFrameSamples];
    uint8_t packed[kAdpcmFrameBytes];
    // A trailing partial frame is not coded.
    while (std::fread(bytes, 1, sizeof bytes, in) == sizeof bytes) {
        for (int i = 0; i < kAdpcmFrameSamples; ++i) {
            frame[i] =
                static_cast<int16_t>(static_cast<uint16_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8)));
        }
        adpcm_encode_frame(state, frame, gain, packed);
        std::fwrite(packed, 1, sizeof packed, out);

        // After frames 1, 4, 7, ...: p is then the input consumed, in seconds.
        if (frame_counter >= 3) {
            if (callback != nullptr) callback(user, 0, 100, progress_percent(p, T), 1);
            p = static_cast<float>(static_cast<double>(p) + 0.06);
            frame_counter = 0;
        }
        ++frame_counter;
    }

    close_stream(in);
    close_stream(out);
    remove_file(kAdpcmDataCopyName);  // fails harmlessly when there was no header
}

}  // namespace kavolib
