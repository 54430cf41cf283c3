// Gapless decoding through the command: kavo decode --gapless against mpg123 (which honours
// lame's header by default) on lame's files and the variants made by
// fixtures/make_gapless_fixtures.sh, and exactly against the decode without the cut; kavo
// convert --gapless against the conversion of that decode as a WAV file (the conversion reads
// the values the decode writes), and the ADPCM length that follows from the cut.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "audio.h"
#include "process.h"

namespace {

// The command's standard error, when it succeeds.
std::string kavo(const std::vector<std::string>& args) {
    const auto run = kavotest::run_kavo(args);
    EXPECT_EQ(run.exit_code, 0) << run.err;
    return run.err;
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
        kavotest::TempDir dir;
        const std::string path = kavotest::fixture(c.file), wav = dir.file("gapless.wav");
        kavo({"decode", "-q", "--gapless", path, wav});
        kavo({"decode", "-q", path, dir.file("plain.pcm")});
        const std::string wav_bytes = kavotest::read_file(wav);
        const std::vector<int16_t> gapless = kavotest::s16(wav_bytes, 44);
        const std::vector<int16_t> plain =
            kavotest::s16(kavotest::read_file(dir.file("plain.pcm")));
        const auto le16 = [&](size_t at) {
            return static_cast<uint8_t>(wav_bytes[at]) | static_cast<uint8_t>(wav_bytes[at + 1])
                                                             << 8;
        };
        const long ch = le16(22), rate = le16(24);  // the header's rate: below 65536 Hz

        const auto reference_run =
            kavotest::run_process({"/usr/bin/mpg123", "-q", "-s",
                                   c.reference_front > 0 ? "--no-gapless" : "--gapless", path});
        ASSERT_EQ(reference_run.exit_code, 0) << reference_run.err;
        std::vector<int16_t> reference = kavotest::s16(reference_run.out);
        reference.erase(reference.begin(), reference.begin() + c.reference_front * ch);
        ASSERT_EQ(gapless.size(), reference.size());
        int max_diff = 0;
        for (size_t i = 0; i < reference.size(); ++i)
            max_diff = std::max(max_diff, std::abs(gapless[i] - reference[i]));
        EXPECT_LE(max_diff, 1);
        ASSERT_LE(c.front * ch + static_cast<long>(gapless.size()),
                  static_cast<long>(plain.size()));
        EXPECT_TRUE(std::equal(gapless.begin(), gapless.end(), plain.begin() + c.front * ch));

        // N frames kept, M = N x 8000 / rate rounded, 80 bytes for every 160 of M: the bytes of
        // the decode converted as a WAV file.
        const std::string said = kavo({"convert", "-v", "--gapless", path, dir.file("mp3.adpcm")});
        EXPECT_NE(said.find(c.front > 0 ? "delay and padding left out" : "nothing left out"),
                  std::string::npos);
        const std::string adpcm = kavotest::read_file(dir.file("mp3.adpcm"));
        const long n = static_cast<long>(gapless.size()) / ch;
        const double m =
            std::trunc(static_cast<double>(n) * 8000.0 / static_cast<double>(rate) + 0.5);
        EXPECT_EQ(adpcm.size(), 80 * static_cast<size_t>(m / 160));
        if (n > 0) {
            kavo({"convert", "-q", wav, dir.file("wav.adpcm")});
            EXPECT_EQ(kavotest::read_file(dir.file("wav.adpcm")), adpcm);
        }
        std::printf("%-32s %7ld frames kept of %7zu, max |diff| %d\n", c.file, n, plain.size() / static_cast<size_t>(ch),
                    max_diff);
    }
}

}  // namespace
