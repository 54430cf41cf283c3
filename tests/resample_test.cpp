// The sample-rate converter: the fixed-point engine (table path against the tap-by-tap path,
// end of input, limits), filter files, the mix and 8 kHz stages on WAV files (the mix's
// rounding, the failure exits) and a comparison with sox. (Headers, frame counts, progress
// and the output of the stages at every rate are pinned by the whole-conversion golden files.)
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <numbers>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "platform/platform.h"
#include "audio.h"
#include "process.h"
#include "resample/filter_set.h"
#include "resample/resample_engine.h"
#include "resample/resample_stages.h"
#include "resample/tap_table.h"

using namespace kavotest;
using namespace kavolib;

namespace {

// Amplitude of the component at freq (a single-bin DFT over the middle of the signal).
double amplitudeAt(const Samples& x, double freq, double rate, size_t skip) {
    double re = 0, im = 0;
    const size_t n = x.size() - 2 * skip;
    for (size_t i = 0; i < n; ++i) {
        const double w = 2 * std::numbers::pi * freq * static_cast<double>(i) / rate;
        re += x[skip + i] * std::cos(w);
        im += x[skip + i] * std::sin(w);
    }
    return 2 * std::hypot(re, im) / static_cast<double>(n);
}

// Runs the stages with the process inside a fresh directory ("temp.txt" is written there).
struct StageTest : testing::Test {
    TempDir dir_;
    InDir here_{dir_.path()};
};

// The engine on files: input samples (interleaved) in, output samples out.
int runEngine(const Samples& in, int nChans, Samples& out, const std::function<int(int)>& call) {
    TempDir dir;
    write_file(dir.file("in.raw"), pcm_bytes(in));
    stageInput = open_stream(dir.file("in.raw").c_str(), "rb");
    stageOutput = open_stream(dir.file("out.raw").c_str(), "wb");
    const int result = call(static_cast<int>(in.size()) / nChans);
    close_all_streams();
    out = s16(read_file(dir.file("out.raw")));
    return result;
}

// Loud square-ish bursts (clipping after the filter), noise and silence.
Samples noisyTestSignal(int frames, int channels, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> any(-32768, 32767);
    Samples x;
    for (int n = 0; n < frames; ++n) {
        for (int c = 0; c < channels; ++c) {
            const int part = n % 3000 / 1000;
            x.push_back(static_cast<int16_t>(part == 0 ? ((n / 50 + c) % 2 != 0 ? 32767 : -32768)
                                                      : part == 1 ? any(rng) : 0));
        }
    }
    return x;
}

// The engine with the large filter at factor, for outCount frames of mono input.
std::function<int(int)> filtered(double factor, int outCount) {
    return [=](int n) {
        const FilterSet f = largeFilter();
        return convertFiltered(factor, n, outCount, 1, 1, f.Coeffs, f.Differences, 14008, f.Nmult,
                               f.Length, nullptr, 0);
    };
}

}  // namespace

TEST(EngineArithmetic, RoundShiftSat16RoundsHalfUpAndClamps) {
    // Value, shift, result; at INT32_MAX the rounding add wraps in 32 bits.
    const std::tuple<int32_t, int, int> cases[] = {
        {4096, 13, 1}, {4095, 13, 0}, {-4096, 13, 0}, {-4097, 13, -1}, {32767 << 13, 13, 32767},
        {32768 << 13, 13, 32767}, {-32769 * 8192, 13, -32768}, {INT32_MIN, 15, -32768}, {INT32_MAX, 15, -32768}};
    for (const auto& [value, shift, result] : cases) EXPECT_EQ(roundShiftSat16(value, shift), result) << value;
}

// ---------------------------------------------------------------- table path vs tap by tap

TEST(TapTable, EverySumEqualsTheTapByTapWings) {
    std::mt19937 rng(5);
    std::uniform_int_distribution<int> sample(-32768, 32767);
    int16_t input[IBUFFSIZE + INPUTSLACK] = {};
    int16_t reversed[IBUFFSIZE + INPUTSLACK] = {};
    for (int i = 0; i < IBUFFSIZE; ++i) input[i] = static_cast<int16_t>(i % 5 == 0 ? -32768 : sample(rng));
    for (int q = 0; q < IBUFFSIZE; ++q) reversed[q] = input[IBUFFSIZE - 1 - q];
    // Beside the built-in filters, a table of coefficients at and around the 16384 where a
    // coefficient stops fitting the narrow (doubled) form, and the extremes.
    static int16_t edge[1536], edgeDiffs[1536];
    const int16_t values[] = {16384, 16383, -16384, -16383, 32767, -32768, 16385, -16385, 0, 1};
    for (int k = 0; k < 1536; ++k) edge[k] = values[(k * 7) % 10];
    for (int k = 0; k < 1536; ++k) edgeDiffs[k] = static_cast<int16_t>(k + 1 < 1536 ? (edge[k + 1] - edge[k]) / 2 : 0);
    FilterSet edgeSet = smallFilter();
    edgeSet.Coeffs = edge;
    edgeSet.Differences = edgeDiffs;
    for (const FilterSet& f : {largeFilter(), smallFilter(), edgeSet}) {
        for (double factor : {1.0, 8000.0 / 44100, 8000.0 / 11025, 0.5}) {
            for (int interp : {0, 1}) {
                const bool up = factor >= 1.0;
                const uint32_t dh = up ? 32768u : resampleTableStep(factor);
                // The built-in filters take the table path (the plain one gives the same frames, slowly).
                if (f.Coeffs != edge) {
                    EXPECT_TRUE(TapTable::usable(f.Coeffs, f.Differences, f.Length, interp, dh, 1L << 25));
                }
                for (bool portable : {false, true}) {
                    TapTable table(f.Coeffs, f.Differences, f.Length, interp, dh);
                    if (portable) table.usePortableKernel();
                    for (int trial = 0; trial < 3000; ++trial) {
                        const int i = 1000 + trial % 2000;
                        const uint32_t timeReg = static_cast<uint32_t>(i) * 32768u +
                                                 (trial < 10 ? 0u : static_cast<uint32_t>(rng()) & 0x7FFFu);
                        const int32_t expected =
                            up ? static_cast<int32_t>(
                                     static_cast<uint32_t>(wingSumUp(f.Coeffs, f.Differences, f.Length, interp, input, i, timeReg & 0x7FFF, -1)) +
                                     static_cast<uint32_t>(wingSumUp(f.Coeffs, f.Differences, f.Length, interp, input, i + 1, (0u - timeReg) & 0x7FFF, 1)))
                               : static_cast<int32_t>(
                                     static_cast<uint32_t>(wingSumDown(f.Coeffs, f.Differences, f.Length, interp, input, i, timeReg & 0x7FFF, -1, dh)) +
                                     static_cast<uint32_t>(wingSumDown(f.Coeffs, f.Differences, f.Length, interp, input, i + 1, (0u - timeReg) & 0x7FFF, 1, dh)));
                        ASSERT_EQ(table.sum(reversed + (IBUFFSIZE - 1 - i), input + i + 1, timeReg), expected)
                            << "factor " << factor << " interp " << interp << " timeReg " << timeReg;
                    }
                }
            }
        }
    }
}

class PathEquality : public testing::TestWithParam<std::tuple<double, int, bool>> {};

// The table path writes the plain path's frames; two channels are each converted as if alone.
TEST_P(PathEquality, TablePathWritesTheSameFramesAsThePlainPath) {
    const double factor = std::get<0>(GetParam());
    const int nChans = std::get<1>(GetParam());
    const bool large = std::get<2>(GetParam());
    const FilterSet f = large ? largeFilter() : smallFilter();
    const Samples in = noisyTestSignal(9000, nChans, 11);
    const int outCount = static_cast<int>(9000 * factor + 0.5);
    const auto convert = [&](const Samples& x, int channels, TapPath path) {
        Samples out;
        EXPECT_EQ(runEngine(x, channels, out, [&](int n) {
                      return convertFiltered(factor, n, outCount, channels, 1, f.Coeffs, f.Differences,
                                             resampleScale(f.ScaleFactor), f.Nmult, f.Length, nullptr,
                                             0, path);
                  }),
                  outCount);
        return out;
    };
    const Samples fast = convert(in, nChans, TapPath::Auto);
    ASSERT_EQ(fast.size(), static_cast<size_t>(outCount * nChans));
    EXPECT_EQ(fast, convert(in, nChans, TapPath::Plain));
    for (int c = 0; c < nChans && nChans > 1; ++c) {
        Samples alone, channel;
        for (size_t i = size_t(c); i < in.size(); i += 2) alone.push_back(in[i]);
        for (size_t i = size_t(c); i < fast.size(); i += 2) channel.push_back(fast[i]);
        EXPECT_EQ(channel, convert(alone, 1, TapPath::Auto)) << "channel " << c;
    }
    // The signal drives the large filter into saturation both ways.
    if (large) {
        EXPECT_NE(std::find(fast.begin(), fast.end(), 32767), fast.end());
        EXPECT_NE(std::find(fast.begin(), fast.end(), -32768), fast.end());
    }
}

INSTANTIATE_TEST_SUITE_P(Factors, PathEquality,
                         testing::Combine(testing::Values(1.0, 1.7, 8000.0 / 44100, 8000.0 / 48000,
                                                          8000.0 / 22050, 8000.0 / 12000, 0.9),
                                          testing::Values(1, 2), testing::Bool()));

// ---------------------------------------------------------------- engine behaviour

TEST(Engine, EndOfInputAndShortInputs) {
    Samples out;
    // No frame or one frame: nothing is written; outCount 0 trims the first block to nothing.
    EXPECT_EQ(runEngine({}, 1, out, filtered(1.0, 0)), 0);
    EXPECT_EQ(runEngine({1000}, 1, out, filtered(1.0, 1)), 0);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(runEngine(sine(5000, 440, 8000, 8000), 1, out, filtered(1.0, 0)), 0);
    EXPECT_TRUE(out.empty());
    // An input shorter than the first read: exactly outCount frames.
    EXPECT_EQ(runEngine(sine(10, 300, 8000, 8000), 1, out, filtered(8000.0 / 44100, 2)), 2);
    EXPECT_EQ(out.size(), 2u);
}

TEST(Engine, LimitsOfTheFactorAreErrorsNotOverruns) {
    const Samples in = sine(20000, 300, 8000, 8000);
    Samples out;
    std::string err;
    auto run = [&](double factor, int outCount) {
        testing::internal::CaptureStderr();
        const int r = runEngine(in, 1, out, filtered(factor, outCount));
        err = testing::internal::GetCapturedStderr();
        return r;
    };
    // Factor 7: one block would give more than OUTBUFFSIZE frames ...
    EXPECT_EQ(run(7.0, 140000), -1);
    EXPECT_EQ(err, "resample: Output array overflow \n\n");
    // ... unless the block is cut to the frames still wanted.
    EXPECT_EQ(run(7.0, 500), 500);
    EXPECT_EQ(out.size(), 500u);
    EXPECT_EQ(run(1e6, 1000), 1000);  // a huge factor (time step 0) ends too
    // Factors too small for the buffer's history (33 / 2038: a guard of exactly half of it),
    // and factors that are no factor.
    const std::string small = "resample: IBUFFSIZE (or factor) is too small \n\n";
    const std::string range = "resample: factor out of range \n\n";
    for (const auto& [factor, message] : {std::pair{0.01, small}, std::pair{33.0 / 2038.0, small},
                                          std::pair{-1.0, range}, std::pair{std::nan(""), range}}) {
        EXPECT_EQ(run(factor, 200), -1) << factor;
        EXPECT_EQ(err, message) << factor;
    }
}

TEST(Engine, LinearModeInterpolatesBetweenNeighbours) {
    Samples ramp;
    for (int i = 0; i < 6000; ++i) ramp.push_back(static_cast<int16_t>(i * 4));
    Samples out;
    ASSERT_EQ(runEngine(ramp, 1, out, [&](int n) {
                  return resample(2.0, n, 8000, 1, 1, 1, 1, "", nullptr, 0);
              }),
              8000);
    for (int k = 0; k < 8000; ++k) ASSERT_EQ(out[static_cast<size_t>(k)], k * 2) << k;
    // Factor 7: one block would give more than OUTBUFFSIZE frames.
    testing::internal::CaptureStderr();
    EXPECT_EQ(runEngine(ramp, 1, out, [&](int n) { return resample(7.0, n, 42000, 1, 1, 1, 1, "", nullptr, 0); }), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "resample: Output array overflow \n\n");
}

// ---------------------------------------------------------------- filter files

// A filter file with the built-in large filter (odd spacing and CR LF line ends) gives the
// built-in filter's frames; useLargeFilter counts by its low byte only (0x100: the small one).
TEST(FilterFile, AConformingFileReproducesTheBuiltInLargeFilter) {
    TempDir dir;
    const FilterSet f = largeFilter();
    std::string text = "  ScaleFactor\t" + std::to_string(f.ScaleFactor) + "\r\nLength " +
                       std::to_string(f.Length) + "\r\n\r\nNmult  " + std::to_string(f.Nmult) +
                       "\nCoeffs:\n";
    for (int i = 0; i < f.Length; ++i) text += std::to_string(f.Coeffs[i]) + (i % 3 ? "\n" : " \n");
    text += "Differences:\n";
    for (int i = 0; i < f.Length; ++i) text += std::to_string(f.Differences[i]) + "\n";
    write_file(dir.file("F65T8.filter"), text);
    const Samples in = noisyTestSignal(12000, 2, 3);
    const double factor = 8000.0 / 44100;
    const int outCount = static_cast<int>(12000 * factor + 0.5);
    auto run = [&](const std::string& name, int useLarge) {
        Samples out;
        EXPECT_EQ(runEngine(in, 2, out, [&](int n) {
                      return resample(factor, n, outCount, 2, 1, 0, useLarge, name.c_str(), nullptr, 0);
                  }),
                  outCount);
        return out;
    };
    const Samples builtIn = run("", 0x101);
    EXPECT_EQ(run(dir.file("F65T8.filter"), 0), builtIn);
    EXPECT_NE(run("", 0x100), builtIn);
}

// The reader's result: 1 without a file, 2 to 4 for the header field that is wrong or missing;
// entries missing at the end repeat the number read last. The engine turns any failure into
// its message and -1, and so a table longer than Nmult allows (it would reach outside the
// block's history).
TEST(FilterFile, ResultCodesTablesAndRefusals) {
    TempDir dir;
    const std::pair<const char*, int> cases[] = {
        {nullptr, 1}, {"ScaleFactor\n", 2}, {"Scalefactor 100\n", 2}, {"ScaleFactor 100 Length x", 3},
        {"ScaleFactor 70000\nLength 3\nNmult\n", 4}, {"ScaleFactor 1 Length 4 Nmult 3 Coeffs: 5 -6", 0}};
    for (const auto& [text, code] : cases) {
        const std::string path = dir.file(text != nullptr ? "x.filter" : "missing.filter");
        if (text != nullptr) write_file(path, text);
        int16_t* coeffs = nullptr;
        int16_t* diffs = nullptr;
        uint16_t scale = 0, nmult = 0, length = 0;
        EXPECT_EQ(read_filter_file(path.c_str(), &coeffs, &diffs, &scale, &nmult, &length), code);
        EXPECT_EQ(coeffs == nullptr, code != 0);
        if (code == 0) {
            EXPECT_EQ(std::vector<int>({scale, length, nmult}), std::vector<int>({1, 4, 3}));
            EXPECT_EQ(std::vector<int16_t>(coeffs, coeffs + 4), std::vector<int16_t>({5, -6, -6, -6}));
            EXPECT_EQ(std::vector<int16_t>(diffs, diffs + 4), std::vector<int16_t>(4, -6));
        }
        delete[] coeffs;
        delete[] diffs;
    }
    EXPECT_EQ(open_stream_count(), 0);
    write_file(dir.file("long.filter"), "ScaleFactor 14746 Length 8192 Nmult 13 Coeffs: 1 Differences: 0");
    for (const char* name : {"missing.filter", "long.filter"}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(resample(0.5, 10, 5, 1, 1, 0, 1, dir.file(name).c_str(), nullptr, 0), -1);
        EXPECT_NE(testing::internal::GetCapturedStderr().find(
                      name[0] == 'm' ? "could not find filter file, or syntax error" : "filter is longer"),
                  std::string::npos);
    }
}

// ---------------------------------------------------------------- the stages on WAV files

// The mix averages each frame's two channels toward zero; frames the header promises but the
// file does not hold are mixed as silence.
TEST_F(StageTest, StereoIsAveragedTowardZeroAndMissingFramesAreSilence) {
    const Samples frames = {32767, 32767, -32768, -32767, -3, 0, 3, 0, 5, -6, -32768, -32768};
    write_file("in.wav", wav_header(32, 2, 44100) + pcm_bytes(frames));  // promises 8 frames
    mix_to_mono("in.wav", "mono.wav", nullptr, 0);
    EXPECT_EQ(read_file("mono.wav"),
              wav_bytes({32767, -32767, -1, 1, 0, -32768, 0, 0}, 1, 44100));
}

TEST_F(StageTest, AgreesWithSoxOnAMixOfTones) {
    Samples in = sine(44100 * 2, 310, 44100, 5000);
    for (const auto& [freq, amp] : {std::pair{1270.0, 4000.0}, std::pair{2100.0, 3000.0}}) {
        const Samples tone = sine(in.size(), freq, 44100, amp);
        for (size_t n = 0; n < in.size(); ++n) in[n] = static_cast<int16_t>(in[n] + tone[n]);
    }
    write_file("in.wav", wav_bytes(in, 1, 44100));
    resample_to_8k("in.wav", "ours.wav", 1, nullptr, 0);
    const std::string out = read_file("ours.wav");
    EXPECT_EQ(out.substr(0, 44), wav_header(static_cast<uint32_t>(out.size() - 44), 1, 8000));
    const auto sox = run_process({"/usr/bin/env", "sox", "in.wav", "-r", "8000", "sox.wav"}, dir_.path());
    if (sox.exit_code != 0) GTEST_SKIP() << "sox is not available: " << sox.err;
    const Samples ours = s16(out, 44);
    const Samples theirs = s16(read_file("sox.wav"), 44);
    ASSERT_EQ(ours.size(), theirs.size());
    // The 15-bit step (180634 for 180633.6) makes our time base run 2.2e-6 slow, which adds
    // up over a long signal; compare the first quarter second, where it stays below 0.03 of
    // an input sample.
    double signal = 0, noise = 0;
    for (size_t i = 200; i < 2200; ++i) {
        const double a = ours[i] / 0.95;
        signal += a * a;
        noise += (a - theirs[i]) * (a - theirs[i]);
    }
    const double snr = 10 * std::log10(signal / noise);
    EXPECT_GT(snr, 40.0) << snr;
    std::printf("against sox: %.1f dB\n", snr);
    for (double f : {310.0, 1270.0, 2100.0}) {
        EXPECT_NEAR(amplitudeAt(ours, f, 8000, 200) / 0.95 / amplitudeAt(theirs, f, 8000, 200), 1.0, 0.002) << f;
    }
}

using StageDeathTest = StageTest;

TEST_F(StageDeathTest, InputsTheStagesCannotConvertEndTheProcessWithCodeOne) {
    std::string noFrameSize = wav_bytes({1, 2, 3}, 1, 44100);
    noFrameSize.replace(32, 2, std::string(2, '\0'));
    write_file("zero-align.wav", noFrameSize);
    write_file("cut.wav", noFrameSize.substr(0, 20));  // a header cut short reads as zeros
    write_file("zero-rate.wav", wav_bytes({1, 2, 3}, 1, 0));
    write_file("empty.wav", wav_bytes({}, 1, 44100));
    write_file("one.wav", wav_bytes({1234}, 1, 44100));
    write_file("one8k.wav", wav_bytes({1234}, 1, 8000));
    EXPECT_EXIT(mix_to_mono("absent.wav", "mono.wav", nullptr, 0), testing::ExitedWithCode(1), "");
    for (const char* name : {"cut.wav", "zero-align.wav"}) {
        EXPECT_EXIT(mix_to_mono(name, "m.wav", nullptr, 0), testing::ExitedWithCode(1), "no frame size");
    }
    for (const char* name : {"absent.wav", "short", "empty.wav", "one.wav", "one8k.wav"}) {
        EXPECT_EXIT(resample_to_8k(name, "out.wav", 1, nullptr, 0), testing::ExitedWithCode(1), "") << name;
    }
    EXPECT_EXIT(resample_to_8k("zero-rate.wav", "o.wav", 1, nullptr, 0), testing::ExitedWithCode(1), "frame rate");
    // The most frames an int holds (2^31 - 1 one-byte frames at 8000 Hz) are converted: the stage
    // writes until it meets a file-size limit of 64 kB. At 7999 Hz they would give more output
    // frames than an int holds.
    std::string most = wav_bytes({1, 2, 3}, 1, 8000);
    most.replace(32, 2, std::string("\x01\0", 2));
    most.replace(40, 4, "\xff\xff\xff\x7f");
    write_file("most.wav", most);
    write_file("beyond.wav", most.replace(24, 4, std::string("\x3f\x1f\0\0", 4)));
    EXPECT_EXIT(resample_to_8k("beyond.wav", "o.wav", 1, nullptr, 0), testing::ExitedWithCode(1), "frame rate");
    const auto limited = [] {
        rlimit limit{};
        limit.rlim_cur = limit.rlim_max = 65536;
        setrlimit(RLIMIT_FSIZE, &limit);
        std::signal(SIGXFSZ, SIG_DFL);
        resample_to_8k("most.wav", "o.wav", 1, nullptr, 0);
    };
    EXPECT_EXIT(limited(), testing::KilledBySignal(SIGXFSZ), "");
    // A header-only file mixes to a header-only file.
    mix_to_mono("empty.wav", "mono.wav", nullptr, 0);
    EXPECT_EQ(read_file("mono.wav").size(), 44u);
}
