// The decoded-PCM file: sample conversion at its edges, the choice of form by name, the WAV
// header and the text form, the statistics lines, and the fatal conditions of opening the files.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "pcmout/pcm_output.h"
#include "audio.h"
#include "process.h"

using namespace kavolib;
using kavotest::TempDir;

// Rounding and clipping to 16 bits at the edges; the block conversion against the per-sample
// one over those values, every half step around the clipping points and random values of all
// magnitudes and signs, in one channel and in two interleaved.
TEST(PcmSample, SixteenBitRoundingClippingAndTheBlockConversion) {
    const double inf = std::numeric_limits<double>::infinity();
    const double tiny = std::numeric_limits<double>::denorm_min();
    const std::pair<double, int> cases[] = {
        {1.0, 32767}, {-1.0, -32768}, {0.0, 0}, {-0.0, 0}, {tiny, 0}, {-tiny, 0}, {0.5 / 32768, 1},
        {-0.5 / 32768, -1}, {0.49 / 32768, 0}, {-0.49 / 32768, 0}, {1.5 / 32768, 2}, {-1.5 / 32768, -2},
        {32766.5 / 32768, 32767}, {-32767.5 / 32768, -32768}, {-32768.4 / 32768, -32768},
        {-1.5, -32768}, {1e300, 32767}, {-1e300, -32768}, {inf, 32767}, {-inf, -32768},
        {std::numeric_limits<double>::quiet_NaN(), -32768}};
    std::vector<double> x;
    for (const auto& [v, expected] : cases) {
        EXPECT_EQ(pcm_sample16(v), expected) << v;
        x.push_back(v);
    }
    for (double v = -32770.0; v <= 32770.0; v += 0.25) x.push_back(v / 32768.0);
    for (double v = -3.0; v <= 3.0; v += 0.125) {
        x.push_back(std::nextafter(v / 32768.0, 1.0));
        x.push_back(std::nextafter(v / 32768.0, -1.0));
    }
    uint64_t seed = 12345;
    for (int i = 0; i < 20000; ++i) {
        seed = seed * 6364136223846793005ull + 1442695040888963407ull;
        const double unit = static_cast<double>(seed >> 11) / 9007199254740992.0;
        x.push_back((unit * 2.0 - 1.0) * std::ldexp(1.0, static_cast<int>(seed % 8) - 6));
    }
    std::vector<int16_t> block(x.size());
    pcm_samples16(x.data(), block.data(), static_cast<int>(x.size()));
    for (size_t i = 0; i < x.size(); ++i) ASSERT_EQ(block[i], pcm_sample16(x[i])) << x[i];
    // Two channels interleaved: the same values as left, the list reversed as right.
    const size_t half = x.size() / 2;
    std::vector<int16_t> both(x.size());
    pcm_samples16_stereo(x.data(), x.data() + half, both.data(), static_cast<int>(half));
    for (size_t i = 0; i < 2 * half; ++i) ASSERT_EQ(both[i], block[i / 2 + (i % 2) * half]) << i;
}

TEST(PcmSample, TwentyFourBitTruncationAndTwosComplement) {
    const std::pair<double, uint32_t> cases[] = {
        {1.0, 0x7FFFFF}, {-1.0, 0x800000}, {0.0, 0}, {-1.0 / 8388608, 0xFFFFFF}, {-0.9 / 8388608, 0},
        {1.9 / 8388608, 1}, {-2.0, 0x800000}, {5.0, 0x7FFFFF},
        {std::numeric_limits<double>::quiet_NaN(), 0x800000}};
    for (const auto& [x, expected] : cases) EXPECT_EQ(pcm_sample24(x), expected) << x;
}

TEST(OutputForm, ChosenBySubstringInOrder) {
    using enum OutputForm;
    const std::pair<const char*, OutputForm> cases[] = {
        {"a.pcm", raw}, {"x.pcm.wav", raw}, {"a.wav", wav}, {"ZUVRTEMP.TM2", wav}, {"a.txt", text},
        {"a.wav.txt", wav}, {"dir.pcm/out", raw}, {"X.WAV", none}, {"a.tm2", none}, {"wav", none},
        {"", none}};
    for (const auto& [name, form] : cases) EXPECT_EQ(choose_output_form(name), form) << name;
}

namespace {

// Writes granules through the real file functions into dir/name and returns the file.
std::string write_through(const TempDir& dir, const std::string& name,
                          const std::vector<std::pair<std::vector<double>, int>>& granules,
                          int32_t rate, std::string* statistics = nullptr) {
    const std::string in = dir.file("in.mp3");
    const std::string out = dir.file(name);
    kavotest::write_file(in, "0123456789");
    DecodeFiles files{};
    files.input_name = in.c_str();
    files.output_name = out.c_str();
    FrameState frames{};
    frames.bytes_read = 99;
    open_decode_files(files, frames);
    EXPECT_EQ(files.input_length, 10);
    EXPECT_EQ(frames.bytes_read, 0);
    for (const auto& [pcm, channels] : granules) {
        frames.pcm_channels = channels;
        write_granule_pcm(files, pcm.data(), channels);
    }
    frames.pcm_rate = rate;
    testing::internal::CaptureStderr();
    close_decode_files(files, frames, 1, 7);
    const std::string err = testing::internal::GetCapturedStderr();
    if (statistics != nullptr) *statistics = err;
    return kavotest::read_file(out);
}

}  // namespace

// A stereo granule, then a mono one, as WAV: the samples follow a header describing the last
// frame (one channel). The text form: 24-bit two's complement in hex, channels interleaved.
// (The samples of the raw and WAV forms are the decode phase's output, compared with the
// conformance references.)
TEST(DecodedFile, WavHeaderAndTextForm) {
    TempDir dir;
    std::string statistics;
    const std::vector<double> granule(1152, 0.25);
    const std::string wav = write_through(dir, "out.wav", {{granule, 2}, {granule, 1}}, 22050, &statistics);
    ASSERT_EQ(wav.size(), 44u + 2304u + 1152u);
    EXPECT_EQ(wav.substr(0, 44), kavotest::wav_header(2304 + 1152, 1, 22050));
    EXPECT_EQ(kavotest::s16(wav, 44), kavotest::Samples(1152 + 576, 8192));
    EXPECT_EQ(statistics.substr(0, 20), "  7 frames processed");

    std::vector<double> pcm(1152, 0.0);
    pcm[0] = 1.0;
    pcm[576] = -1.0;
    pcm[1] = -1.0 / 8388608;
    pcm[577] = 0.25;
    const std::string text = write_through(dir, "out.txt", {{pcm, 2}}, 44100);
    ASSERT_EQ(text.size(), 1152u * 7u);
    EXPECT_EQ(text.substr(0, 35), "7fffff\n800000\nffffff\n200000\n000000\n");
}

TEST(DecodeStatistics, FramesTimeAndSpeed) {
    const struct {
        int64_t frames;
        int32_t granules, rate;
        int64_t elapsed;
        const char* expected;
    } cases[] = {
        // 2 x 1000 x 576 / 44100 = 26.1 s of audio, truncated to 26.
        {1000, 2, 44100, 52, "  1000 frames processed\n\nDecoding time=00:52, Speedup=2.000000\n"},
        {100, 1, 8000, 3725, "  100 frames processed\n\nDecoding time=02:05, Speedup=532.142857\n"},
        // Less than a second of audio: the tiny constant keeps the division finite; nothing
        // ever delivered (rate 0): no audio, the speed figure is 0.
        {1, 1, 8000, 5, "  1 frames processed\n\nDecoding time=00:05, Speedup=5000000000000.000000\n"},
        {0, 0, 0, 5, "  0 frames processed\n\nDecoding time=00:05, Speedup=0.000000\n"},
    };
    for (const auto& c : cases) {
        testing::internal::CaptureStderr();
        print_decode_statistics(c.frames, c.granules, c.rate, c.elapsed);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.expected);
    }
}

TEST(DecodedFileDeathTest, OpeningFailuresAreFatalWithTheirMessages) {
    TempDir dir;
    const std::string in = dir.file("in.mp3");
    kavotest::write_file(in, "x");
    const auto open_with = [](const std::string& input, const std::string& output) {
        DecodeFiles files{};
        files.input_name = input.c_str();
        files.output_name = output.c_str();
        FrameState frames{};
        open_decode_files(files, frames);
    };
    EXPECT_EXIT(open_with(dir.file("none.mp3"), dir.file("o.wav")), testing::ExitedWithCode(1),
                "FATAL ERROR: decode: Input file, .*none.mp3, not found");
    EXPECT_EXIT(open_with(in, dir.file("O.WAV")), testing::ExitedWithCode(1),
                "FATAL ERROR: decode: output file '.wav','.pcm' or '.txt' allowed only!");
    EXPECT_EXIT(open_with(in, dir.file("missing/o.wav")), testing::ExitedWithCode(1),
                "FATAL ERROR: decode: Unable to create output file, .*missing/o.wav");
}
