// Fuzz target over the file stages that take 16-bit PCM: mix_to_mono and resample_to_8k (WAV
// in), adpcm_encode_file (WAV or raw samples in) and adpcm_expand_file (packed codes in). Every
// stage reads the input bytes as its file, so malformed headers, sizes and sample data reach
// each of them; the input's size picks the resampler's filter and the encoder's gain, so the
// bytes themselves stay an ordinary file. Fatal exits come back as exceptions (harness.h).
// mix_to_mono and resample_to_8k write every frame the header promises, silence past the
// data, so a data size of 2 GB is 2 GB of output: correct but slow. For those two a positive
// size of 64 KB or more is cut to its low 16 bits; negative, zero, short and odd sizes stay.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "adpcm/adpcm_expand.h"
#include "adpcm/adpcm_output.h"
#include "harness.h"
#include "resample/resample_stages.h"

namespace {

constexpr float kGains[] = {1.0f, 0.5f, 2.0f, -1.0f, 0.0f, 3.0e9f,
                            std::numeric_limits<float>::infinity(),
                            std::numeric_limits<float>::quiet_NaN()};

// Progress is computed only for a callback; this one takes it and ignores it.
int32_t ignore_progress(int32_t, int32_t, int32_t, int32_t, int32_t) { return 0; }

template <class Stage>
void run(Stage&& stage) {
    try {
        stage();
    } catch (const kavofuzz::FatalExit&) {
        // The stage refused the file; the library would have ended the process here.
    }
    kavolib::close_all_streams();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kavofuzz::prepare();
    kavofuzz::write_input("in.bin", data, size);
    const float gain = kGains[(size >> 1) % (sizeof kGains / sizeof kGains[0])];
    run([&] { kavolib::adpcm_encode_file("in.bin", "out.bin", gain, ignore_progress, 0); });
    run([] { kavolib::adpcm_expand_file("in.bin", "out.bin"); });

    // The data size as the stages read it: bytes past the end of a short file count as 0.
    if (size > 42 && (size < 44 || (data[43] & 0x80) == 0) &&
        (data[42] | (size > 43 ? data[43] : 0)) != 0) {
        const uint8_t zeros[2] = {0, 0};
        FILE* file = std::fopen("in.bin", "r+b");
        if (file == nullptr || std::fseek(file, 42, SEEK_SET) != 0) std::abort();
        std::fwrite(zeros, 1, size - 42 < 2 ? size - 42 : 2, file);
        std::fclose(file);
    }
    const int16_t large = (size & 1) == 0 ? 1 : 0;
    run([] { kavolib::mix_to_mono("in.bin", "out.bin", ignore_progress, 0); });
    run([&] { kavolib::resample_to_8k("in.bin", "out.bin", large, ignore_progress, 0); });
    return 0;
}
