// Decoded PCM output: the input and the decoded file of the decode phase, sample conversion,
// the WAV header and the decode statistics.
#include "pcmout/pcm_output.h"

#include <bit>
#include <chrono>
#include <cstring>
#include <string>

#include "simd/simd.h"
#include "platform/platform.h"
#include "platform/report_message.h"

namespace kavolib {

DecodeFiles g_decode_files = {};

namespace {

// The statistics count seconds from the start of the process; the library is loaded with it.
const std::chrono::steady_clock::time_point g_process_start = std::chrono::steady_clock::now();

int64_t process_seconds() {
    const auto elapsed = std::chrono::steady_clock::now() - g_process_start;
    return std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count() / 1000;
}

[[noreturn]] void fatal_with_name(const char* format, const char* name) {
    const int size = std::snprintf(nullptr, 0, format, name);
    std::string text(static_cast<size_t>(size > 0 ? size : 0) + 1, '\0');
    std::snprintf(text.data(), text.size(), format, name);
    report_message(text.c_str(), kMessageFatal);
    end_process(1);  // report_message does not return for a fatal kind
}

}  // namespace

OutputForm choose_output_form(const char* name) {
    if (std::strstr(name, ".pcm") != nullptr) return OutputForm::raw;
    if (std::strstr(name, ".wav") != nullptr) return OutputForm::wav;
    if (std::strstr(name, ".TM2") != nullptr) return OutputForm::wav;
    if (std::strstr(name, ".txt") != nullptr) return OutputForm::text;
    return OutputForm::none;
}

int16_t pcm_sample16(double x) {
    double v = x * 32768.0;
    v = x > 0 ? v + 0.5 : v - 0.5;
    // Clip before converting so that huge values and NaN stay defined (NaN becomes -32768,
    // as every comparison with it fails).
    if (v >= 32768.0) return 32767;
    if (!(v > -32769.0)) return -32768;
    return static_cast<int16_t>(static_cast<int32_t>(v));
}

namespace {
typedef int Int4 __attribute__((vector_size(16)));
typedef int16_t Short4 __attribute__((vector_size(8)));
typedef int16_t Short8 __attribute__((vector_size(16)));
typedef int Int8 __attribute__((vector_size(32)));
typedef int16_t Short16 __attribute__((vector_size(32)));

// The integer vectors of a block of four or eight samples.
template <typename V>
struct SampleBlock {
    typedef Int4 Int;
    typedef Short4 Short;
};
template <>
struct SampleBlock<Double8> {
    typedef Int8 Int;
    typedef Short8 Short;
};

// Four or eight samples at a time (V holds four or eight doubles): both roundings are computed
// and one is selected (v - 0.5 and v + -0.5 are the same sum), and each clip is a select on the
// same comparison pcm_sample16 makes, so NaN still ends at -32768. The conversion to integers
// truncates, as pcm_sample16's does.
template <typename V>
__attribute__((always_inline)) inline typename SampleBlock<V>::Short block_samples16(const double* x) {
    const V zero{};
    const V top = zero + 32768.0;
    const V bottom = zero - 32769.0;
    V in;
    std::memcpy(&in, x, sizeof in);
    const V v = in * top;
    V r = in > zero ? v + 0.5 : v - 0.5;
    r = r >= top ? zero + 32767.0 : r;
    r = r > bottom ? r : zero - 32768.0;
    return __builtin_convertvector(__builtin_convertvector(r, typename SampleBlock<V>::Int),
                                   typename SampleBlock<V>::Short);
}

// A tail shorter than a block goes through pcm_sample16.
template <typename V>
__attribute__((always_inline)) inline void samples16_body(const double* x, int16_t* out,
                                                          int count) {
    constexpr int W = static_cast<int>(sizeof(V) / sizeof(double));
    int i = 0;
    for (; i + W <= count; i += W) {
        const auto s = block_samples16<V>(x + i);
        std::memcpy(out + i, &s, sizeof s);
    }
    for (; i < count; ++i) out[i] = pcm_sample16(x[i]);
}

template <typename V>
__attribute__((always_inline)) inline void stereo16_body(const double* left, const double* right,
                                                         int16_t* out, int count) {
    constexpr int W = static_cast<int>(sizeof(V) / sizeof(double));
    int i = 0;
    for (; i + W <= count; i += W) {
        const auto l = block_samples16<V>(left + i);
        const auto r = block_samples16<V>(right + i);
        if constexpr (W == 8) {
            const Short16 s = __builtin_shufflevector(l, r, 0, 8, 1, 9, 2, 10, 3, 11, 4, 12, 5, 13,
                                                      6, 14, 7, 15);
            std::memcpy(out + 2 * i, &s, sizeof s);
        } else {
            const Short8 s = __builtin_shufflevector(l, r, 0, 4, 1, 5, 2, 6, 3, 7);
            std::memcpy(out + 2 * i, &s, sizeof s);
        }
    }
    for (; i < count; ++i) {
        out[2 * i] = pcm_sample16(left[i]);
        out[2 * i + 1] = pcm_sample16(right[i]);
    }
}

KAVO_AVX512 void samples16_avx512(const double* x, int16_t* out, int count) {
    samples16_body<Double8>(x, out, count);
}

KAVO_AVX2 void samples16_avx2(const double* x, int16_t* out, int count) {
    samples16_body<Double4>(x, out, count);
}

void samples16_plain(const double* x, int16_t* out, int count) {
    samples16_body<Double4>(x, out, count);
}

KAVO_AVX512 void stereo16_avx512(const double* left, const double* right, int16_t* out,
                                 int count) {
    stereo16_body<Double8>(left, right, out, count);
}

KAVO_AVX2 void stereo16_avx2(const double* left, const double* right, int16_t* out, int count) {
    stereo16_body<Double4>(left, right, out, count);
}

void stereo16_plain(const double* left, const double* right, int16_t* out, int count) {
    stereo16_body<Double4>(left, right, out, count);
}
}  // namespace

void pcm_samples16(const double* x, int16_t* out, int count) {
    if (use_avx512()) {
        samples16_avx512(x, out, count);
    } else if (use_avx2()) {
        samples16_avx2(x, out, count);
    } else {
        samples16_plain(x, out, count);
    }
}

void pcm_samples16_stereo(const double* left, const double* right, int16_t* out, int count) {
    if (use_avx512()) {
        stereo16_avx512(left, right, out, count);
    } else if (use_avx2()) {
        stereo16_avx2(left, right, out, count);
    } else {
        stereo16_plain(left, right, out, count);
    }
}

uint32_t pcm_sample24(double x) {
    double v = x * 8388608.0;
    if (v > 8388607.0) {
        v = 8388607.0;
    } else if (!(v >= -8388608.0)) {
        v = -8388608.0;  // NaN lands here too
    }
    return static_cast<uint32_t>(static_cast<int32_t>(v)) & 0xFFFFFFu;
}

void open_decode_files(DecodeFiles& files, FrameState& frames) {
    files.input = open_stream(files.input_name, "rb");
    if (files.input == nullptr)
        fatal_with_name("decode: Input file, %s, not found\n", files.input_name);
    std::fseek(files.input, 0, SEEK_END);
    files.input_length = std::ftell(files.input);
    std::rewind(files.input);
    frames.bytes_read = 0;

    files.form = choose_output_form(files.output_name);
    if (files.form == OutputForm::none) {
        report_message("decode: output file '.wav','.pcm' or '.txt' allowed only!\n",
                       kMessageFatal);
    }
    files.output = open_stream(files.output_name, files.form == OutputForm::text ? "wt" : "wb");
    if (files.output == nullptr) {
        fatal_with_name("decode: Unable to create output file, %s\n", files.output_name);
    }
    if (files.form == OutputForm::wav) {
        const uint8_t placeholder[kWavHeaderSize] = {};
        std::fwrite(placeholder, 1, kWavHeaderSize, files.output);
    }
}

void write_granule_pcm(DecodeFiles& files, const double* pcm, int32_t channels) {
    const int per_position = channels == 2 ? 2 : 1;
    if (files.form == OutputForm::text) {
        for (int i = 0; i < kGranuleSamples; ++i) {
            for (int ch = 0; ch < per_position; ++ch) {
                std::fprintf(files.output, "%06x\n", pcm_sample24(pcm[ch * kGranuleSamples + i]));
            }
        }
        return;
    }
    int16_t samples[2 * kGranuleSamples];
    if (per_position == 2) {
        pcm_samples16_stereo(pcm, pcm + kGranuleSamples, samples, kGranuleSamples);
    } else {
        pcm_samples16(pcm, samples, kGranuleSamples);
    }
    const size_t count = static_cast<size_t>(per_position * kGranuleSamples);
    if constexpr (std::endian::native == std::endian::little) {
        std::fwrite(samples, sizeof samples[0], count, files.output);
    } else {
        uint8_t bytes[sizeof samples];
        for (size_t i = 0; i < count; ++i) wav_put16(bytes, static_cast<int>(2 * i), static_cast<uint16_t>(samples[i]));
        std::fwrite(bytes, 1, 2 * count, files.output);
    }
}

void print_decode_statistics(int64_t frame_counter, int32_t granules, int32_t pcm_rate,
                             int64_t elapsed_seconds) {
    std::fprintf(stderr, "  %lld frames processed\n", static_cast<long long>(frame_counter));
    // No frame delivered in the library's lifetime (rate 0): no audio, and the speed figure is 0.
    const int64_t audio_seconds =
        pcm_rate > 0 ? int64_t{granules} * frame_counter * kGranuleSamples / pcm_rate : 0;
    const double speedup = pcm_rate > 0 ? static_cast<double>(elapsed_seconds) /
                                              (static_cast<double>(audio_seconds) + 1e-12)
                                        : 0.0;
    std::fprintf(stderr, "\nDecoding time=%02d:%02d, Speedup=%f\n",
                 static_cast<int>((elapsed_seconds / 60) % 60),
                 static_cast<int>(elapsed_seconds % 60), speedup);
}

void close_decode_files(DecodeFiles& files, const FrameState& frames, int32_t granules,
                        int64_t frame_counter) {
    FILE* input = files.input;
    files.input = nullptr;
    if (close_stream(input) != 0)
        fatal_with_name("decode: Unable to close input file, %s\n", files.input_name);
    if (files.form == OutputForm::wav) {
        std::fseek(files.output, 0, SEEK_END);
        const long length = std::ftell(files.output);
        std::fseek(files.output, 0, SEEK_SET);
        uint8_t header[kWavHeaderSize];
        make_wav_header(header, static_cast<uint32_t>(length), frames.pcm_channels,
                        frames.pcm_rate);
        std::fwrite(header, 1, kWavHeaderSize, files.output);
    }
    FILE* output = files.output;
    files.output = nullptr;
    if (close_stream(output) != 0) {
        fatal_with_name("decode: Unable to close output file, %s\n", files.output_name);
    }
    print_decode_statistics(frame_counter, granules, frames.pcm_rate, process_seconds());
}

}  // namespace kavolib
