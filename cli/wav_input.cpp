// Reading WAV prompts and converting their samples with the stage cores.
#include "wav_input.h"

#include <cmath>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "adpcm/adpcm_core.h"
#include "resample/filter_set.h"
#include "resample/mix_core.h"
#include "resample/resample_engine.h"

namespace kavocli {

namespace {

uint32_t le32(const uint8_t* p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}
int le16(const uint8_t* p) {
    return p[0] | p[1] << 8;
}
int16_t sample_at(const uint8_t* p) {
    return static_cast<int16_t>(static_cast<uint16_t>(le16(p)));
}

constexpr int kFormatPcm = 1;
constexpr int kFormatExtensible = 0xFFFE;

// The chain after the source: mono samples pulled by the resampler, its output gathered into
// 160-sample frames, coded, and handed on in blocks of whole frames.
struct WavConversion {
    const WavFormat& format;
    float gain;
    kavo_write_fn write;
    kavo_progress_fn progress;
    void* user;
    int64_t next_frame = 0;
    int last_percent = -1;
    kavolib::AdpcmState adpcm{};
    int16_t frame[kavolib::kAdpcmFrameSamples] = {};
    int frame_fill = 0;
    uint8_t output[50 * kavolib::kAdpcmFrameBytes] = {};  // half a second of codes
    size_t output_fill = 0;
    bool stopped = false;

    static size_t read(void* context, int16_t* dst, size_t n) {
        auto& c = *static_cast<WavConversion*>(context);
        const int channels = c.format.channels;
        const int64_t left = c.format.frames() - c.next_frame;
        const size_t count = left < static_cast<int64_t>(n) ? static_cast<size_t>(left) : n;
        const uint8_t* in =
            c.format.data + static_cast<size_t>(c.next_frame) * 2u * unsigned(channels);
        for (size_t i = 0; i < count; ++i) {
            dst[i] = channels == 2
                         ? kavolib::mix_pair(sample_at(in + 4 * i), sample_at(in + 4 * i + 2))
                         : sample_at(in + 2 * i);
        }
        c.next_frame += static_cast<int64_t>(count);
        return count;
    }

    bool flush() {
        if (output_fill > 0 && write(user, output, output_fill) != 0) stopped = true;
        output_fill = 0;
        return !stopped;
    }

    // Whole 160-sample frames are coded; a partial frame at the end is not.
    static int take(void* context, const int16_t* samples, size_t n) {
        auto& c = *static_cast<WavConversion*>(context);
        for (size_t i = 0; i < n; ++i) {
            c.frame[c.frame_fill++] = samples[i];
            if (c.frame_fill < kavolib::kAdpcmFrameSamples) continue;
            kavolib::adpcm_encode_frame(c.adpcm, c.frame, c.gain, c.output + c.output_fill);
            c.frame_fill = 0;
            c.output_fill += kavolib::kAdpcmFrameBytes;
            if (c.output_fill == sizeof c.output && !c.flush()) return 1;
        }
        return 0;
    }

    void report(int percent) {
        if (progress == nullptr || percent <= last_percent) return;
        last_percent = percent;
        progress(user, percent);
    }

    static void on_block(void* context, int out_done, int out_count) {
        auto& c = *static_cast<WavConversion*>(context);
        if (out_count > 0) c.report(static_cast<int>(int64_t{out_done} * 99 / out_count));
    }
};

}  // namespace

WavCheck check_wav(const uint8_t* bytes, size_t size, WavFormat& format, std::string& why) {
    if (size < 12 || std::memcmp(bytes, "RIFF", 4) != 0 || std::memcmp(bytes + 8, "WAVE", 4) != 0) {
        return WavCheck::not_wav;
    }
    format = WavFormat{};
    bool have_format = false;
    size_t at = 12;
    while (at + 8 <= size) {
        const uint8_t* chunk = bytes + at;
        const uint32_t declared = le32(chunk + 4);
        const size_t body = at + 8;
        const size_t present = size - body;
        if (std::memcmp(chunk, "fmt ", 4) == 0 && declared >= 16 && present >= 16) {
            format.format_tag = le16(chunk + 8);
            format.channels = le16(chunk + 10);
            format.rate = static_cast<int>(le32(chunk + 12));
            format.bits = le16(chunk + 22);
            if (format.format_tag == kFormatExtensible && declared >= 40 && present >= 40) {
                format.format_tag = le16(chunk + 32);  // the subformat GUID's first two bytes
            }
            have_format = true;
        } else if (std::memcmp(chunk, "data", 4) == 0) {
            if (!have_format) break;
            format.data = chunk + 8;
            // A header written before the length was known may declare more than follows.
            format.data_bytes = declared < present ? declared : present;
            break;
        }
        if (declared > present) break;
        at = body + declared + (declared & 1u);  // chunks are padded to even sizes
    }
    char text[160];
    if (!have_format || format.data == nullptr) {
        why = have_format ? "a WAV file without a data chunk" : "a WAV file without a fmt chunk";
        return WavCheck::refused;
    }
    if (format.format_tag != kFormatPcm || format.bits != 16) {
        if (format.format_tag == kFormatPcm) {
            std::snprintf(text, sizeof text, "a WAV file of %d-bit samples", format.bits);
        } else {
            std::snprintf(text, sizeof text, "a WAV file of format %d (not PCM)",
                          format.format_tag);
        }
        why = text;
        return WavCheck::refused;
    }
    if (format.channels < 1 || format.channels > 2) {
        std::snprintf(text, sizeof text, "a WAV file of %d channels", format.channels);
        why = text;
        return WavCheck::refused;
    }
    if (format.rate < 8000 || format.rate > 48000) {
        std::snprintf(text, sizeof text, "a WAV file at %d Hz", format.rate);
        why = text;
        return WavCheck::refused;
    }
    return WavCheck::convertible;
}

int convert_wav(const WavFormat& format, float gain, kavo_write_fn write, kavo_progress_fn progress,
                void* user, std::string& message) {
    if (!std::isfinite(gain)) {
        message = "the gain is not a finite number";
        return KAVO_ERROR_ARGUMENT;
    }
    // The resample stage's counts: N mono frames, M = trunc(N x 8000 / rate + 0.5).
    const int64_t n_frames = format.frames();
    const double factor = 8000.0 / format.rate;
    const double m_frames = std::trunc(static_cast<double>(n_frames) * factor + 0.5);
    if (n_frames > INT32_MAX / 2) {
        message = "the input is too long";
        return KAVO_ERROR_FORMAT;
    }
    std::unique_ptr<WavConversion> chain;
    try {
        chain.reset(new WavConversion{format, gain, write, progress, user});
    } catch (const std::bad_alloc&) {
        message = "out of memory";
        return KAVO_ERROR_MEMORY;
    }
    kavolib::adpcm_init(chain->adpcm);
    chain->report(0);
    int written = 0;
    kavolib::ResampleIo io{WavConversion::read, WavConversion::take, WavConversion::on_block,
                           chain.get(), nullptr};
    if (n_frames >= 1 && m_frames >= 1.0) {
        const kavolib::FilterSet filter = kavolib::largeFilter();
        written = kavolib::convertFilteredCore(
            io, factor, static_cast<int>(n_frames), static_cast<int>(m_frames), 1, 1, filter.Coeffs,
            filter.Differences, kavolib::resampleScale(filter.ScaleFactor), filter.Nmult,
            filter.Length);
    }
    if (written == kavolib::kResampleStopped || chain->stopped || !chain->flush()) {
        message = "the write function asked to stop";
        return KAVO_ERROR_STOPPED;
    }
    if (written < 0) {
        message = std::string("resampling failed: ") + (io.failure != nullptr ? io.failure : "");
        return KAVO_ERROR_FORMAT;
    }
    if (written < 1) {
        message = "the input is too short to convert";
        return KAVO_ERROR_FORMAT;
    }
    chain->report(100);
    return KAVO_OK;
}

}  // namespace kavocli
