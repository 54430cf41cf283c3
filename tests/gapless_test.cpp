// Gapless decoding: the engine's decoded PCM with the encoder's header honoured, against mpg123
// (which honours lame's header by default) on lame's own files and on the variants made by
// fixtures/make_gapless_fixtures.sh; against the engine's own decode without the cut and the
// file cut by kavo decode --gapless, exactly; and the ADPCM length that follows from the cut.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "audio.h"
#include "engine/conversion.h"
#include "engine/gapless.h"
#include "engine/memory_source.h"
#include "engine/stream_scan.h"
#include "process.h"

namespace {

struct Decode {
    int status = 0;
    bool applied = false;
    int64_t frames = 0;  // the report's input frames
    std::vector<int16_t> pcm;  // the decoded values the mix reads
    std::string adpcm;
};

Decode convert(const std::string& mp3, bool gapless) {
    Decode run;
    kavolib::MemoryInput memory{reinterpret_cast<const uint8_t*>(mp3.data()), mp3.size(), 0};
    kavolib::EngineInput input{memory.source(),
                               [](void* m) { return static_cast<kavolib::MemoryInput*>(m)->position = 0, true; },
                               [](void*) { return false; }};
    kavo_settings settings = KAVO_SETTINGS_INIT;
    settings.gapless = gapless ? 1 : 0;
    kavo_report report = KAVO_REPORT_INIT;
    auto decoded = [](void* user, const int16_t* values, size_t count) {
        static_cast<Decode*>(user)->pcm.insert(static_cast<Decode*>(user)->pcm.end(), values, values + count);
    };
    auto write = [](void* user, const void* bytes, size_t size) {
        static_cast<Decode*>(user)->adpcm.append(static_cast<const char*>(bytes), size);
        return 0;
    };
    run.status = kavolib::run_engine(input, settings, write, nullptr, &run, &report, nullptr, 0, decoded);
    run.applied = report.gapless_applied != 0;
    run.frames = report.input_frames;
    return run;
}

struct Case {
    const char* file;
    std::vector<std::string> mpg123;  // the reference's options
    long reference_front;             // frames dropped from the front of the reference's output
    long front;                       // frames of our plain decode in front of the cut
    bool applied;
};

class Gapless : public testing::TestWithParam<Case> {};

TEST_P(Gapless, DecodesWhatTheReferenceDecodes) {
    const Case& c = GetParam();
    const std::string path = kavotest::fixture(c.file);
    const std::string mp3 = kavotest::read_file(path);
    const kavolib::StreamScan scan = kavolib::scan_stream(reinterpret_cast<const uint8_t*>(mp3.data()), mp3.size());
    const long ch = scan.last_channels;
    const Decode gapless = convert(mp3, true);
    const Decode plain = convert(mp3, false);
    ASSERT_EQ(gapless.status, KAVO_OK);
    EXPECT_EQ(gapless.applied, c.applied);

    std::vector<std::string> argv{"/usr/bin/mpg123", "-q", "-s"};
    argv.insert(argv.end(), c.mpg123.begin(), c.mpg123.end());
    argv.push_back(path);
    const auto reference_run = kavotest::run_process(argv);
    ASSERT_EQ(reference_run.exit_code, 0) << reference_run.err;
    std::vector<int16_t> reference = kavotest::s16(reference_run.out);
    reference.erase(reference.begin(), reference.begin() + c.reference_front * ch);
    ASSERT_EQ(gapless.pcm.size(), reference.size());
    int max_diff = 0;
    for (size_t i = 0; i < reference.size(); ++i) max_diff = std::max(max_diff, std::abs(gapless.pcm[i] - reference[i]));
    EXPECT_LE(max_diff, 1);

    // The same values as the decode without the cut, from the first one kept.
    ASSERT_LE(c.front * ch + static_cast<long>(gapless.pcm.size()), static_cast<long>(plain.pcm.size()));
    EXPECT_TRUE(std::equal(gapless.pcm.begin(), gapless.pcm.end(), plain.pcm.begin() + c.front * ch));

    // kavo decode --gapless cuts the decoded file to the same values.
    kavotest::TempDir dir;
    const auto decode = kavotest::run_kavo({"decode", "-q", "--gapless", path, dir.file("out.pcm")});
    ASSERT_EQ(decode.exit_code, 0) << decode.err;
    EXPECT_EQ(kavotest::s16(kavotest::read_file(dir.file("out.pcm"))), gapless.pcm);

    // N frames kept, M = N x 8000 / rate rounded, 80 bytes for every 160 of M.
    const double m = std::trunc(static_cast<double>(gapless.pcm.size() / ch) * 8000.0 / scan.last_rate + 0.5);
    EXPECT_EQ(gapless.adpcm.size(), 80 * static_cast<size_t>(m / 160));
    EXPECT_EQ(gapless.frames, static_cast<int64_t>(gapless.pcm.size()) / ch);
    std::printf("%-34s %8zu frames kept of %8zu  max |diff| %d\n", c.file, gapless.pcm.size() / ch,
                plain.pcm.size() / ch, max_diff);
}

// lame's files: delay 576 and the decoder's 529 in front (with the Info frame, 1152 samples in
// MPEG-1, 576 in MPEG-2 and 2.5), padding - 529 at the end. A truncated file keeps its end; a
// file whose frames are too small for the header has none. The variants: without the
// extension only the decoder's delay is cut; with a wrong CRC the extension does not count
// (mpg123 takes it all the same, so its output without the cut is the reference); mpg123
// decodes the VBRI frame as silence, which counts in front of its delay of 1000.
INSTANTIATE_TEST_SUITE_P(
    Files, Gapless,
    testing::Values(Case{"tone_m1_44k_joint.mp3", {}, 0, 1152 + 1105, true},
                    Case{"tone_m1_44k_mono.mp3", {}, 0, 1152 + 1105, true},
                    Case{"tone_m1_44k_stereo_crc.mp3", {}, 0, 1152 + 1105, true},
                    Case{"speech_music_m1_44k_vbr.mp3", {}, 0, 1152 + 1105, true},
                    Case{"tone_m2_22k_joint.mp3", {}, 0, 576 + 1105, true},
                    Case{"tone_m25_11k_ms.mp3", {}, 0, 576 + 1105, true},
                    Case{"tone_m1_48k_mono_cut.mp3", {}, 0, 1152 + 1105, true},
                    Case{"speech_mono_22k.mp3", {}, 0, 0, false},
                    Case{"gapless_noext_m1_44k_mono.mp3", {}, 0, 1152 + 529, true},
                    Case{"gapless_badcrc_m1_44k_mono.mp3", {"--no-gapless"}, 529, 1152 + 529, true},
                    Case{"gapless_vbri_m1_44k_mono.mp3", {"--no-gapless"}, 1152 + 1529, 1152 + 1529, true},
                    Case{"gapless_allcut_m1_44k_mono.mp3", {}, 0, 1152 + 2304, true}),
    [](const testing::TestParamInfo<Case>& param) {
        std::string name = param.param.file;
        name = name.substr(0, name.find('.'));
        return name;
    });

// The header read from every prefix of an Info frame: nothing is read past the bytes given (the
// copy is exactly that long), and each field counts only when the frame holds it.
TEST(EncoderHeader, ReadsOnlyWhatTheFrameHolds) {
    const std::string mp3 = kavotest::read_file(kavotest::fixture("tone_m1_44k_mono.mp3"));
    const size_t xing = 4 + 17, extension = xing + 120;
    for (size_t size = 0; size <= 208; ++size) {
        const std::vector<uint8_t> frame(mp3.begin(), mp3.begin() + static_cast<long>(size));
        const kavolib::EncoderHeader h = kavolib::parse_encoder_header(frame.data(), size, 1, 1);
        EXPECT_EQ(h.found, size >= xing + 8) << size;
        EXPECT_EQ(h.has_frames, size >= xing + 12) << size;
        EXPECT_EQ(h.has_extension, size >= extension + 24) << size;
        EXPECT_TRUE(!h.has_extension || (h.delay == 576 && h.padding == 1242 && h.frames == 59)) << size;
    }
}

}  // namespace
