// Gapless decoding: the engine's decoded PCM with the encoder's header honoured, against mpg123
// (which honours lame's header by default) on lame's files and the variants made by
// fixtures/make_gapless_fixtures.sh; exactly against the engine's decode without the cut and
// the file cut by kavo decode --gapless; and the ADPCM length that follows from the cut.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "audio.h"
#include "engine/conversion.h"
#include "engine/memory_source.h"
#include "process.h"

namespace {

struct Decode {
    kavo_report report = KAVO_REPORT_INIT;
    std::vector<int16_t> pcm;  // the decoded values the mix reads
    std::string adpcm;
};

Decode convert(const std::string& mp3, bool gapless) {
    Decode run;
    kavolib::MemoryInput memory{reinterpret_cast<const uint8_t*>(mp3.data()), mp3.size(), 0};
    kavolib::EngineInput input{memory.reader(), [](void*) { return false; }};
    kavo_settings settings = KAVO_SETTINGS_INIT;
    settings.gapless = gapless ? 1 : 0;
    const int status = kavolib::run_engine(
        input, settings,
        [](void* user, const void* bytes, size_t size) {
            return static_cast<Decode*>(user)->adpcm.append(static_cast<const char*>(bytes), size),
                   0;
        },
        nullptr, &run, &run.report, nullptr, 0, nullptr,
        [](void* user, const int16_t* values, size_t count) {
            static_cast<Decode*>(user)->pcm.insert(static_cast<Decode*>(user)->pcm.end(), values,
                                                   values + count);
        });
    EXPECT_EQ(status, KAVO_OK);
    return run;
}

// lame's files: delay 576 and the decoder's 529 in front (behind the Info frame, 1152 samples
// in MPEG-1, 576 in MPEG-2 and 2.5), padding - 529 at the end. A truncated file keeps its end;
// a file whose frames are too small for the header has none. The variants: delay 2222 and
// padding 2100 (the 12-bit fields' top bits set); without the extension only 529 go; with
// a wrong CRC the extension does not count (mpg123 takes it all the same, so its output without
// the cut is the reference); mpg123 decodes the VBRI frame as silence, in front of its delay of
// 1000; the cut covers the whole short file.
struct Case {
    const char* file;
    long reference_front;  // frames left out in front of mpg123's output (then not cut)
    long front;            // frames of our decode without the cut in front of the cut
} const kCases[] = {{"tone_m1_44k_joint.mp3", 0, 1152 + 1105},
                    {"tone_m1_44k_mono.mp3", 0, 1152 + 1105},
                    {"tone_m1_44k_stereo_crc.mp3", 0, 1152 + 1105},
                    {"speech_music_m1_44k_vbr.mp3", 0, 1152 + 1105},
                    {"tone_m2_22k_joint.mp3", 0, 576 + 1105},
                    {"tone_m25_11k_ms.mp3", 0, 576 + 1105},
                    {"tone_m1_48k_mono_cut.mp3", 0, 1152 + 1105},
                    {"speech_mono_22k.mp3", 0, 0},
                    {"gapless_odd_m1_44k_mono.mp3", 0, 1152 + 2751},
                    {"gapless_noext_m1_44k_mono.mp3", 0, 1152 + 529},
                    {"gapless_badcrc_m1_44k_mono.mp3", 529, 1152 + 529},
                    {"gapless_vbri_m1_44k_mono.mp3", 1152 + 1529, 1152 + 1529},
                    {"gapless_allcut_m1_44k_mono.mp3", 0, 1152 + 2304}};

TEST(Gapless, DecodesWhatTheReferenceDecodes) {
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.file);
        const std::string path = kavotest::fixture(c.file), mp3 = kavotest::read_file(path);
        const Decode gapless = convert(mp3, true), plain = convert(mp3, false);
        const long ch = gapless.report.channels;
        EXPECT_EQ(gapless.report.gapless_applied, c.front > 0 ? 1 : 0);

        const auto reference_run =
            kavotest::run_process({"/usr/bin/mpg123", "-q", "-s",
                                   c.reference_front > 0 ? "--no-gapless" : "--gapless", path});
        ASSERT_EQ(reference_run.exit_code, 0) << reference_run.err;
        std::vector<int16_t> reference = kavotest::s16(reference_run.out);
        reference.erase(reference.begin(), reference.begin() + c.reference_front * ch);
        ASSERT_EQ(gapless.pcm.size(), reference.size());
        int max_diff = 0;
        for (size_t i = 0; i < reference.size(); ++i)
            max_diff = std::max(max_diff, std::abs(gapless.pcm[i] - reference[i]));
        EXPECT_LE(max_diff, 1);

        ASSERT_LE(c.front * ch + static_cast<long>(gapless.pcm.size()),
                  static_cast<long>(plain.pcm.size()));
        EXPECT_TRUE(
            std::equal(gapless.pcm.begin(), gapless.pcm.end(), plain.pcm.begin() + c.front * ch));
        kavotest::TempDir dir;
        const auto decode =
            kavotest::run_kavo({"decode", "-q", "--gapless", path, dir.file("out.pcm")});
        ASSERT_EQ(decode.exit_code, 0) << decode.err;
        EXPECT_EQ(kavotest::s16(kavotest::read_file(dir.file("out.pcm"))), gapless.pcm);

        // N frames kept, M = N x 8000 / rate rounded, 80 bytes for every 160 of M.
        const long n = static_cast<long>(gapless.pcm.size()) / ch;
        EXPECT_EQ(gapless.report.input_frames, n);
        const double m =
            std::trunc(static_cast<double>(n) * 8000.0 / gapless.report.sample_rate + 0.5);
        EXPECT_EQ(gapless.adpcm.size(), 80 * static_cast<size_t>(m / 160));
        std::printf("%-32s %7ld frames kept of %7zu, max |diff| %d\n", c.file, n,
                    plain.pcm.size() / ch, max_diff);
    }
}

}  // namespace
