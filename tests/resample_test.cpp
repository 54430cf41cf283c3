// The sample-rate converter: built-in filter tables and filter files, the fixed-point engine
// (table path against the tap-by-tap path, end of input, limits), the mix and 8 kHz stages on
// real WAV files (headers, frame counts, progress, tone frequency and gain, stopband), the
// failure exits, a comparison with sox, and the kavo mix / resample commands.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "process.h"
#include "resample/filter_set.h"
#include "resample/resample_engine.h"
#include "resample/resample_stages.h"
#include "resample/tap_table.h"

using kavotest::read_file;
using kavotest::run_process;
using kavotest::TempDir;
using kavotest::write_file;
using namespace kavolib;

namespace {

using Samples = std::vector<int16_t>;

std::string le(uint32_t v, int bytes) {
    std::string s;
    for (int i = 0; i < bytes; ++i) s.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
    return s;
}

std::string wavBytes(const Samples& interleaved, int channels, uint32_t rate) {
    const auto data = static_cast<uint32_t>(interleaved.size() * 2);
    std::string s = "RIFF" + le(data + 36, 4) + "WAVEfmt " + le(16, 4) + le(1, 2) +
                    le(static_cast<uint32_t>(channels), 2) + le(rate, 4) +
                    le(rate * 2 * static_cast<uint32_t>(channels), 4) +
                    le(2 * static_cast<uint32_t>(channels), 2) + le(16, 2) + "data" + le(data, 4);
    if (data > 0) s.append(reinterpret_cast<const char*>(interleaved.data()), data);
    return s;
}

struct Wav {
    uint32_t riff, rate, byteRate, dataSize;
    int channels, blockAlign;
    Samples samples;
    size_t fileSize;
};

uint32_t at32(const std::string& s, size_t i) {
    uint32_t v = 0;
    for (int b = 3; b >= 0; --b) v = v << 8 | static_cast<uint8_t>(s[i + static_cast<size_t>(b)]);
    return v;
}

Wav readWav(const std::string& path) {
    const std::string s = read_file(path);
    Wav w{};
    EXPECT_GE(s.size(), 44u);
    if (s.size() < 44) return w;
    w.riff = at32(s, 4);
    w.channels = static_cast<int16_t>(at32(s, 22) & 0xFFFF);
    w.rate = at32(s, 24);
    w.byteRate = at32(s, 28);
    w.blockAlign = static_cast<int16_t>(at32(s, 32) & 0xFFFF);
    w.dataSize = at32(s, 40);
    w.samples.resize((s.size() - 44) / 2);
    if (!w.samples.empty()) std::memcpy(w.samples.data(), s.data() + 44, w.samples.size() * 2);
    w.fileSize = s.size();
    return w;
}

Samples tone(double freq, double rate, int frames, double amplitude, int channels = 1) {
    Samples out;
    for (int n = 0; n < frames; ++n) {
        const double v = amplitude * std::sin(2 * std::numbers::pi * freq * n / rate);
        for (int c = 0; c < channels; ++c) out.push_back(static_cast<int16_t>(std::lround(v)));
    }
    return out;
}

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

double rms(const Samples& x, size_t skip) {
    double sum = 0;
    for (size_t i = skip; i + skip < x.size(); ++i) sum += static_cast<double>(x[i]) * x[i];
    return std::sqrt(sum / static_cast<double>(x.size() - 2 * skip));
}

// Frequency from the first and last rising zero crossings, interpolated between samples.
double zeroCrossingFrequency(const Samples& x, double rate, size_t skip) {
    double first = -1, last = -1;
    int cycles = -1;
    for (size_t i = skip; i + 1 + skip < x.size(); ++i) {
        if (x[i] < 0 && x[i + 1] >= 0) {
            const double t = static_cast<double>(i) + static_cast<double>(-x[i]) / (x[i + 1] - x[i]);
            if (first < 0) first = t;
            last = t;
            ++cycles;
        }
    }
    return cycles * rate / (last - first);
}

// Runs the stages with the process inside a fresh directory ("temp.txt" is written there).
class StageTest : public testing::Test {
protected:
    void SetUp() override {
        char here[4096];
        ASSERT_NE(getcwd(here, sizeof here), nullptr);
        old_ = here;
        ASSERT_EQ(chdir(dir_.path().c_str()), 0);
    }
    void TearDown() override { EXPECT_EQ(chdir(old_.c_str()), 0); }
    TempDir dir_;
    std::string old_;
};

std::vector<int> g_progress;
int32_t recordProgress(int32_t user, int32_t low, int32_t high, int32_t percent, int32_t one) {
    EXPECT_EQ(user, 77);
    EXPECT_EQ(low, 0);
    EXPECT_EQ(high, 100);
    EXPECT_EQ(one, 1);
    g_progress.push_back(percent);
    return 0;
}

// The engine on files: input samples (interleaved) in, output samples out.
int runEngine(const Samples& in, int nChans, Samples& out, const std::function<int(int)>& call) {
    TempDir dir;
    std::string raw(in.size() * 2, '\0');
    if (!in.empty()) std::memcpy(raw.data(), in.data(), raw.size());
    write_file(dir.file("in.raw"), raw);
    stageInput = open_stream(dir.file("in.raw").c_str(), "rb");
    stageOutput = open_stream(dir.file("out.raw").c_str(), "wb");
    const int result = call(static_cast<int>(in.size()) / nChans);
    close_all_streams();
    const std::string bytes = read_file(dir.file("out.raw"));
    out.assign(bytes.size() / 2, 0);
    if (!out.empty()) std::memcpy(out.data(), bytes.data(), out.size() * 2);
    return result;
}

Samples noisyTestSignal(int frames, int channels, unsigned seed) {
    // Loud square-ish bursts (clipping after the filter), noise and silence.
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> any(-32768, 32767);
    Samples x;
    for (int n = 0; n < frames; ++n) {
        for (int c = 0; c < channels; ++c) {
            int16_t v;
            if (n % 3000 < 1000) v = ((n / 50 + c) % 2) != 0 ? 32767 : -32768;
            else if (n % 3000 < 2000) v = static_cast<int16_t>(any(rng));
            else v = 0;
            x.push_back(v);
        }
    }
    return x;
}

}  // namespace

// ---------------------------------------------------------------- filter tables

TEST(FilterTables, MatchTheKaiserSincRuleAndTheirKnownRows) {
    struct Known {
        FilterSet set;
        std::vector<int> first8, firstDiffs;
        int e256, e512, e768, last, lastDiff;
    };
    const Known known[] = {
        {largeFilter(), {32767, 32766, 32764, 32761, 32756, 32750, 32743, 32734},
         {-1, -2, -3, -5, -6, -7, -9, -10}, 3566, -3349, 3011, 0, 0},
        {smallFilter(), {32767, 32766, 32764, 32760, 32755, 32749, 32741, 32731},
         {-1, -2, -4, -5, -6, -8, -10, -10}, 3180, -2096, 1007, -1, 1},
    };
    for (const Known& k : known) {
        const FilterSet& f = k.set;
        ASSERT_EQ(f.Length, 256 * (f.Nmult - 1) / 2);
        for (int i = 0; i < 8; ++i) {
            EXPECT_EQ(f.Coeffs[i], k.first8[static_cast<size_t>(i)]) << i;
            EXPECT_EQ(f.Differences[i], k.firstDiffs[static_cast<size_t>(i)]) << i;
        }
        EXPECT_EQ(f.Coeffs[256], k.e256);
        EXPECT_EQ(f.Coeffs[512], k.e512);
        EXPECT_EQ(f.Coeffs[768], k.e768);
        EXPECT_EQ(f.Coeffs[f.Length - 1], k.last);
        EXPECT_EQ(f.Differences[f.Length - 1], k.lastDiff);
        // Recomputed here from the formula, independently of the generator script.
        const double i0Beta = std::cyl_bessel_i(0.0, 9.0);
        int mismatches = 0;
        for (int i = 0; i < f.Length; ++i) {
            const double r = i / (f.Length - 1.0);
            const double x = 0.9 * i / 256.0;
            const double sinc = i == 0 ? 1.0 : std::sin(std::numbers::pi * x) / (std::numbers::pi * x);
            const double v = 32767.0 * sinc * std::cyl_bessel_i(0.0, 9.0 * std::sqrt(1 - r * r)) / i0Beta;
            const int rounded = static_cast<int>(v + 0.5);
            EXPECT_LE(std::abs(rounded - f.Coeffs[i]), 1) << i;
            mismatches += rounded != f.Coeffs[i] ? 1 : 0;
            const int next = i + 1 < f.Length ? f.Coeffs[i + 1] : 0;
            ASSERT_EQ(f.Differences[i], next - f.Coeffs[i]) << i;
        }
        EXPECT_EQ(mismatches, 0);
    }
    // Zero crossings every 284.44 entries.
    const int16_t* c = largeFilter().Coeffs;
    for (int at : {284, 568, 853}) EXPECT_LT(int{c[at]} * c[at + 1], 0) << at;
    for (int i = 1; i < 284; ++i) EXPECT_GT(c[i], 0) << i;
}

TEST(EngineConstants, GuardBlockAndScale) {
    EXPECT_EQ(resampleGuardLen(65, 8000.0 / 44100), 191);
    EXPECT_EQ(IBUFFSIZE - 2 * 191, 3714);
    EXPECT_EQ(resampleGuardLen(65, 8000.0 / 48000), 208);
    EXPECT_EQ(resampleGuardLen(65, 1.0), 43);
    EXPECT_EQ(resampleScale(14746), 14008);
    EXPECT_EQ(resampleScale(13128), 12471);
    EXPECT_EQ(resampleTimeStep(1.0), 32768u);
    EXPECT_EQ(resampleTimeStep(8000.0 / 44100), 180634u);
}

TEST(EngineArithmetic, RoundShiftSat16RoundsHalfUpAndClamps) {
    EXPECT_EQ(roundShiftSat16(4096, 13), 1);
    EXPECT_EQ(roundShiftSat16(4095, 13), 0);
    EXPECT_EQ(roundShiftSat16(-4096, 13), 0);
    EXPECT_EQ(roundShiftSat16(-4097, 13), -1);
    EXPECT_EQ(roundShiftSat16(32767 << 13, 13), 32767);
    EXPECT_EQ(roundShiftSat16(32768 << 13, 13), 32767);
    EXPECT_EQ(roundShiftSat16(-32769 * 8192, 13), -32768);
    EXPECT_EQ(roundShiftSat16(INT32_MIN, 15), -32768);
    EXPECT_EQ(roundShiftSat16(INT32_MAX, 15), -32768);  // the rounding add wraps in 32 bits
}

// ---------------------------------------------------------------- table path vs tap by tap

TEST(TapTable, EverySumEqualsTheTapByTapWings) {
    std::mt19937 rng(5);
    std::uniform_int_distribution<int> sample(-32768, 32767);
    int16_t input[IBUFFSIZE + INPUTSLACK] = {};
    int16_t reversed[IBUFFSIZE + INPUTSLACK] = {};
    for (int i = 0; i < IBUFFSIZE; ++i) input[i] = static_cast<int16_t>(i % 5 == 0 ? -32768 : sample(rng));
    for (int q = 0; q < IBUFFSIZE; ++q) reversed[q] = input[IBUFFSIZE - 1 - q];
    for (const FilterSet& f : {largeFilter(), smallFilter()}) {
        for (double factor : {1.0, 8000.0 / 44100, 8000.0 / 11025, 0.5}) {
            for (int interp : {0, 1}) {
                const bool up = factor >= 1.0;
                const uint32_t dh = up ? 32768u : resampleTableStep(factor);
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

TEST_P(PathEquality, TablePathWritesTheSameFramesAsThePlainPath) {
    const auto [factor, nChans, large] = GetParam();
    const FilterSet f = large ? largeFilter() : smallFilter();
    const Samples in = noisyTestSignal(9000, nChans, 11);
    const int inCount = 9000;
    const int outCount = static_cast<int>(inCount * factor + 0.5);
    Samples fast, plain;
    for (TapPath path : {TapPath::Auto, TapPath::Plain}) {
        Samples& out = path == TapPath::Auto ? fast : plain;
        const int result = runEngine(in, nChans, out, [&](int n) {
            return convertFiltered(factor, n, outCount, nChans, 1, f.Coeffs, f.Differences,
                                   resampleScale(f.ScaleFactor), f.Nmult, f.Length, nullptr, 0, path);
        });
        EXPECT_EQ(result, outCount);
    }
    ASSERT_EQ(fast.size(), static_cast<size_t>(outCount * nChans));
    EXPECT_EQ(fast, plain);
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
    const FilterSet f = largeFilter();
    auto filtered = [&](double factor, int outCount) {
        return [=](int n) {
            return convertFiltered(factor, n, outCount, 1, 1, f.Coeffs, f.Differences, 14008,
                                   f.Nmult, f.Length, nullptr, 0);
        };
    };
    Samples out;
    // No frame or one frame: nothing is written.
    EXPECT_EQ(runEngine({}, 1, out, filtered(1.0, 0)), 0);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(runEngine({1000}, 1, out, filtered(1.0, 1)), 0);
    EXPECT_TRUE(out.empty());
    // outCount 0 with input: the first block is trimmed to nothing.
    EXPECT_EQ(runEngine(tone(440, 8000, 5000, 8000), 1, out, filtered(1.0, 0)), 0);
    EXPECT_TRUE(out.empty());
    // Inputs shorter than the first read, and much longer than it: exactly outCount frames.
    for (int frames : {2, 10, 100, 4000, 20000}) {
        for (double factor : {1.0, 8000.0 / 44100}) {
            const int outCount = static_cast<int>(frames * factor + 0.5);
            const int result = runEngine(tone(300, 8000, frames, 8000), 1, out,
                                         filtered(factor, outCount));
            EXPECT_EQ(result, outCount) << frames << " " << factor;
            EXPECT_EQ(out.size(), static_cast<size_t>(outCount)) << frames << " " << factor;
        }
    }
}

TEST(Engine, LimitsOfTheFactorAreErrorsNotOverruns) {
    const FilterSet f = largeFilter();
    Samples out;
    const Samples in = tone(300, 8000, 20000, 8000);
    auto run = [&](double factor, int outCount, std::string& err) {
        testing::internal::CaptureStderr();
        const int r = runEngine(in, 1, out, [&](int n) {
            return convertFiltered(factor, n, outCount, 1, 1, f.Coeffs, f.Differences, 14008,
                                   f.Nmult, f.Length, nullptr, 0);
        });
        err = testing::internal::GetCapturedStderr();
        return r;
    };
    std::string err;
    // Factor 7: one block would give more than OUTBUFFSIZE frames.
    EXPECT_EQ(run(7.0, 140000, err), -1);
    EXPECT_EQ(err, "resample: Output array overflow \n\n");
    // ... unless the block is cut to the frames still wanted.
    EXPECT_EQ(run(7.0, 500, err), 500);
    EXPECT_EQ(out.size(), 500u);
    // A huge factor (time step 0) ends too.
    EXPECT_EQ(run(1e6, 1000, err), 1000);
    // Factors too small for the buffer's history.
    EXPECT_EQ(run(0.01, 200, err), -1);
    EXPECT_EQ(err, "resample: IBUFFSIZE (or factor) is too small \n\n");
    EXPECT_EQ(run(33.0 / 2038.0, 200, err), -1);  // guard of exactly half the buffer
    EXPECT_EQ(run(-1.0, 200, err), -1);
    EXPECT_EQ(run(std::nan(""), 200, err), -1);
}

TEST(Engine, LinearModeInterpolatesBetweenNeighbours) {
    Samples ramp;
    for (int i = 0; i < 6000; ++i) ramp.push_back(static_cast<int16_t>(i * 4));
    Samples out;
    const int result = runEngine(ramp, 1, out, [&](int n) {
        return resample(2.0, n, 8000, 1, 1, 1, 1, "", nullptr, 0);
    });
    ASSERT_EQ(result, 8000);
    for (int k = 0; k < 8000; ++k) ASSERT_EQ(out[static_cast<size_t>(k)], k * 2) << k;
}

TEST(Engine, FactorOneKeepsATone) {
    const Samples in = tone(1000, 8000, 8000, 16000);
    Samples out;
    const int result = runEngine(in, 1, out, [](int n) {
        return resample(1.0, n, 8000, 1, 1, 0, 1, "", nullptr, 0);
    });
    ASSERT_EQ(result, 8000);
    // Zero-phase filter: the output is the input times the gain, sample for sample.
    double worst = 0;
    for (size_t i = 100; i < 7900; ++i) worst = std::max(worst, std::abs(out[i] - 0.95 * in[i]));
    EXPECT_LT(worst, 0.01 * 16000);
}

// ---------------------------------------------------------------- filter files

namespace {
std::string filterFileText(const FilterSet& f, const char* sep) {
    std::string s = "  ScaleFactor\t" + std::to_string(f.ScaleFactor) + sep + "Length " +
                    std::to_string(f.Length) + sep + sep + "Nmult  " + std::to_string(f.Nmult) +
                    "\nCoeffs:\n";
    for (int i = 0; i < f.Length; ++i) s += std::to_string(f.Coeffs[i]) + (i % 3 ? "\n" : " \n");
    s += "Differences:\n";
    for (int i = 0; i < f.Length; ++i) s += std::to_string(f.Differences[i]) + "\n";
    return s;
}
}  // namespace

TEST(FilterFile, AConformingFileReproducesTheBuiltInLargeFilter) {
    TempDir dir;
    write_file(dir.file("F65T8.filter"), filterFileText(largeFilter(), "\r\n"));
    const std::string name = dir.file("F65T8.filter");
    const Samples in = noisyTestSignal(12000, 2, 3);
    Samples fromFile, builtIn;
    const double factor = 8000.0 / 44100;
    const int outCount = static_cast<int>(12000 * factor + 0.5);
    EXPECT_EQ(runEngine(in, 2, fromFile, [&](int n) {
                  return resample(factor, n, outCount, 2, 1, 0, 0, name.c_str(), nullptr, 0);
              }),
              outCount);
    EXPECT_EQ(runEngine(in, 2, builtIn, [&](int n) {
                  return resample(factor, n, outCount, 2, 1, 0, 0x100 | 1, "", nullptr, 0);
              }),
              outCount);
    EXPECT_EQ(fromFile, builtIn);
    // useLargeFilter counts by its low byte only: 0x100 takes the small filter.
    Samples small;
    runEngine(in, 2, small, [&](int n) {
        return resample(factor, n, outCount, 2, 1, 0, 0x100, "", nullptr, 0);
    });
    EXPECT_NE(small, builtIn);
}

TEST(FilterFile, ResultCodesAndPartlyReadHeaders) {
    TempDir dir;
    struct Case {
        const char* text;
        int code;
        uint16_t scale, length, nmult;
    };
    const Case cases[] = {
        {"ScaleFactor\n", 2, 0, 0, 0},
        {"Scalefactor 100\n", 2, 0, 0, 0},
        {"ScaleFactor 100 Length x", 3, 100, 0, 0},
        {"ScaleFactor 70000\nLength 3\nNmult\n", 4, 70000 & 0xFFFF, 3, 0},
        {"ScaleFactor 1 Length 3 Nmult 3 Coeffs: 5 6 7 Differences: 1 1 -7", 0, 1, 3, 3},
        {"ScaleFactor 1 Length 4 Nmult 3 Coeffs: 5 -6", 0, 1, 4, 3},
    };
    for (const Case& c : cases) {
        write_file(dir.file("x.filter"), c.text);
        int16_t* coeffs = nullptr;
        int16_t* diffs = nullptr;
        uint16_t scale = 0, nmult = 0, length = 0;
        EXPECT_EQ(read_filter_file(dir.file("x.filter").c_str(), &coeffs, &diffs, &scale, &nmult, &length), c.code) << c.text;
        EXPECT_EQ(scale, c.scale) << c.text;
        EXPECT_EQ(length, c.length) << c.text;
        EXPECT_EQ(nmult, c.nmult) << c.text;
        EXPECT_EQ(coeffs == nullptr, c.code != 0) << c.text;
        if (c.code == 0 && length == 3) {
            EXPECT_EQ(std::vector<int16_t>(coeffs, coeffs + 3), (std::vector<int16_t>{5, 6, 7}));
            EXPECT_EQ(std::vector<int16_t>(diffs, diffs + 3), (std::vector<int16_t>{1, 1, -7}));
        }
        if (c.code == 0 && length == 4) {
            // Entries missing at the end repeat the number read last.
            EXPECT_EQ(std::vector<int16_t>(coeffs, coeffs + 4), (std::vector<int16_t>{5, -6, -6, -6}));
            EXPECT_EQ(std::vector<int16_t>(diffs, diffs + 4), (std::vector<int16_t>{-6, -6, -6, -6}));
        }
        delete[] coeffs;
        delete[] diffs;
    }
    int16_t* coeffs = nullptr;
    int16_t* diffs = nullptr;
    uint16_t scale = 0, nmult = 0, length = 0;
    EXPECT_EQ(read_filter_file(dir.file("missing.filter").c_str(), &coeffs, &diffs, &scale, &nmult, &length), 1);
    EXPECT_EQ(open_stream_count(), 0);
    // The engine turns any failure into its message and -1.
    testing::internal::CaptureStderr();
    EXPECT_EQ(resample(0.5, 10, 5, 1, 1, 0, 1, dir.file("missing.filter").c_str(), nullptr, 0), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "resample: could not find filter file, or syntax error in contents of filter file \n\n");
    // A table longer than Nmult allows would reach outside the block's history.
    write_file(dir.file("long.filter"), "ScaleFactor 14746 Length 8192 Nmult 13 Coeffs: 1 Differences: 0");
    testing::internal::CaptureStderr();
    EXPECT_EQ(resample(0.5, 10, 5, 1, 1, 0, 1, dir.file("long.filter").c_str(), nullptr, 0), -1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("filter is longer"), std::string::npos);
}

// ---------------------------------------------------------------- the stages on WAV files

class StagesAtRate : public StageTest, public testing::WithParamInterface<std::tuple<int, int>> {};

TEST_P(StagesAtRate, HeadersFrameCountsProgressToneFrequencyAndGain) {
    const auto [rate, channels] = GetParam();
    const int frames = rate / 2 + 37;
    write_file("in.wav", wavBytes(tone(1000, rate, frames, 16000, channels), channels, static_cast<uint32_t>(rate)));

    g_progress.clear();
    mix_to_mono("in.wav", "mono.wav", recordProgress, 77);
    EXPECT_EQ(open_stream_count(), 0);
    const Wav mono = readWav("mono.wav");
    EXPECT_EQ(mono.channels, 1);
    EXPECT_EQ(mono.blockAlign, 2);
    EXPECT_EQ(mono.rate, static_cast<uint32_t>(rate));
    EXPECT_EQ(mono.byteRate, 2u * static_cast<uint32_t>(rate));
    EXPECT_EQ(mono.dataSize, 2u * static_cast<uint32_t>(frames));
    EXPECT_EQ(mono.riff, mono.dataSize + 36);
    EXPECT_EQ(mono.samples.size(), static_cast<size_t>(frames));
    ASSERT_EQ(g_progress.size(), static_cast<size_t>(frames));
    EXPECT_EQ(g_progress.front(), 40);
    EXPECT_EQ(g_progress.back(), 59);
    EXPECT_TRUE(std::is_sorted(g_progress.begin(), g_progress.end()));

    g_progress.clear();
    resample_to_8k("mono.wav", "out.wav", 1, recordProgress, 77);
    EXPECT_EQ(open_stream_count(), 0);
    const Wav out = readWav("out.wav");
    const int m = static_cast<int>(std::trunc(frames * (8000.0 / rate) + 0.5));
    EXPECT_EQ(out.rate, 8000u);
    EXPECT_EQ(out.channels, 1);
    EXPECT_EQ(out.blockAlign, 2);
    EXPECT_EQ(out.byteRate, 16000u);
    EXPECT_EQ(out.dataSize, 2u * static_cast<uint32_t>(m));
    EXPECT_EQ(out.riff, out.dataSize + 36);
    EXPECT_EQ(out.samples.size(), static_cast<size_t>(m));
    ASSERT_FALSE(g_progress.empty());
    EXPECT_GE(g_progress.front(), 60);
    EXPECT_EQ(g_progress.back(), 80);
    EXPECT_TRUE(std::is_sorted(g_progress.begin(), g_progress.end()));
    EXPECT_EQ(read_file("temp.txt").size(), 400u);

    // What a listener hears: the same pitch, about 0.95 of the level (-0.45 dB).
    EXPECT_NEAR(zeroCrossingFrequency(out.samples, 8000, 200), 1000.0, 0.5);
    const double gain = amplitudeAt(out.samples, 1000, 8000, 200) / 16000.0;
    EXPECT_NEAR(20 * std::log10(gain), -0.45, 0.1) << gain;
}

INSTANTIATE_TEST_SUITE_P(MpegRates, StagesAtRate,
                         testing::Combine(testing::Values(8000, 11025, 12000, 16000, 22050, 24000,
                                                          32000, 44100, 48000),
                                          testing::Values(1, 2)));

TEST_F(StageTest, StereoIsAveragedTowardZero) {
    const Samples frames = {32767, 32767, -32768, -32767, -3, 0, 3, 0, 5, -6, -32768, -32768};
    write_file("in.wav", wavBytes(frames, 2, 44100));
    mix_to_mono("in.wav", "mono.wav", nullptr, 0);
    EXPECT_EQ(readWav("mono.wav").samples, (Samples{32767, -32767, -1, 1, 0, -32768}));
}

TEST_F(StageTest, MissingFramesAreMixedAsSilence) {
    std::string bytes = wavBytes({100, 300, 500, 700}, 2, 22050);
    bytes.replace(40, 4, le(16, 4));  // promises 4 frames, holds 2
    write_file("in.wav", bytes);
    mix_to_mono("in.wav", "mono.wav", nullptr, 0);
    const Wav mono = readWav("mono.wav");
    EXPECT_EQ(mono.dataSize, 8u);
    EXPECT_EQ(mono.samples, (Samples{200, 600, 0, 0}));
}

TEST_F(StageTest, StopbandAt44100IsRejected) {
    // Tones at and above the 8 kHz output's Nyquist frequency must not alias into it.
    for (double freq : {4100.0, 4500.0, 6000.0}) {
        const Samples in = tone(freq, 44100, 44100, 16000);
        write_file("in.wav", wavBytes(in, 1, 44100));
        resample_to_8k("in.wav", "out.wav", 1, nullptr, 0);
        const Wav out = readWav("out.wav");
        const double rejection = 20 * std::log10(rms(out.samples, 200) / rms(in, 1000));
        EXPECT_LT(rejection, -60.0) << freq << " Hz: " << rejection << " dB";
        RecordProperty("rejection_" + std::to_string(static_cast<int>(freq)), std::to_string(rejection));
        std::printf("stopband %.0f Hz: %.1f dB\n", freq, rejection);
    }
}

TEST_F(StageTest, AgreesWithSoxOnAMixOfTones) {
    Samples in(44100 * 2);
    for (size_t n = 0; n < in.size(); ++n) {
        const double t = static_cast<double>(n) / 44100;
        in[n] = static_cast<int16_t>(std::lround(5000 * std::sin(2 * std::numbers::pi * 310 * t) +
                                                 4000 * std::sin(2 * std::numbers::pi * 1270 * t) +
                                                 3000 * std::sin(2 * std::numbers::pi * 2100 * t)));
    }
    write_file("in.wav", wavBytes(in, 1, 44100));
    resample_to_8k("in.wav", "ours.wav", 1, nullptr, 0);
    const auto sox = run_process({"/usr/bin/env", "sox", "in.wav", "-r", "8000", "sox.wav"}, dir_.path());
    if (sox.exit_code != 0) GTEST_SKIP() << "sox is not available: " << sox.err;
    const Samples ours = readWav("ours.wav").samples;
    const Samples theirs = readWav("sox.wav").samples;
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
    EXPECT_EXIT(mix_to_mono("absent.wav", "mono.wav", nullptr, 0), testing::ExitedWithCode(1), "");
    EXPECT_EXIT(resample_to_8k("absent.wav", "out.wav", 1, nullptr, 0), testing::ExitedWithCode(1), "");
    write_file("empty.wav", wavBytes({}, 1, 44100));
    write_file("one.wav", wavBytes({1234}, 1, 44100));
    write_file("one8k.wav", wavBytes({1234}, 1, 8000));
    for (const char* name : {"empty.wav", "one.wav", "one8k.wav"}) {
        EXPECT_EXIT(resample_to_8k(name, "out.wav", 1, nullptr, 0), testing::ExitedWithCode(1), "") << name;
    }
    // A header-only file mixes to a header-only file.
    mix_to_mono("empty.wav", "mono.wav", nullptr, 0);
    EXPECT_EQ(readWav("mono.wav").fileSize, 44u);
    std::string noFrameSize = wavBytes({1, 2, 3}, 1, 44100);
    noFrameSize.replace(32, 2, le(0, 2));
    write_file("zero-align.wav", noFrameSize);
    EXPECT_EXIT(mix_to_mono("zero-align.wav", "m.wav", nullptr, 0), testing::ExitedWithCode(1), "no frame size");
    std::string noRate = wavBytes({1, 2, 3}, 1, 0);
    write_file("zero-rate.wav", noRate);
    EXPECT_EXIT(resample_to_8k("zero-rate.wav", "o.wav", 1, nullptr, 0), testing::ExitedWithCode(1), "frame rate");
    EXPECT_EXIT(resample_to_8k("short", "o.wav", 1, nullptr, 0), testing::ExitedWithCode(1), "");
}

// ---------------------------------------------------------------- the commands

TEST(CliResample, MixAndResampleARealFile) {
    TempDir dir;
    write_file(dir.file("st.wav"), wavBytes(tone(1000, 44100, 44100, 12000, 2), 2, 44100));
    auto mix = run_process({KAVO_CLI_PATH, "mix", "st.wav", "mono.wav"}, dir.path());
    EXPECT_EQ(mix.exit_code, 0) << mix.err;
    auto rs = run_process({KAVO_CLI_PATH, "resample", "mono.wav", "out.wav"}, dir.path());
    EXPECT_EQ(rs.exit_code, 0) << rs.err;
    EXPECT_EQ(readWav(dir.file("out.wav")).samples.size(), 8000u);
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"mono.wav", "out.wav", "st.wav"}));

    write_file(dir.file("one.wav"), wavBytes({5}, 1, 44100));
    write_file(dir.file("keep.wav"), "old");
    rs = run_process({KAVO_CLI_PATH, "resample", "one.wav", "keep.wav"}, dir.path());
    EXPECT_EQ(rs.exit_code, 1);
    EXPECT_NE(rs.err.find("was not written"), std::string::npos) << rs.err;
    EXPECT_EQ(read_file(dir.file("keep.wav")), "old");
    rs = run_process({KAVO_CLI_PATH, "mix", "nothing.wav", "x.wav"}, dir.path());
    EXPECT_EQ(rs.exit_code, 1);
    EXPECT_NE(rs.err.find("cannot read 'nothing.wav'"), std::string::npos) << rs.err;
    EXPECT_FALSE(kavotest::file_exists(dir.file("x.wav")));
}
