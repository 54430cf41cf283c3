// The ADPCM coder, the output stage and the expansion back to PCM: known code sequences, the
// ranges the adaptation must respect, the decoder following the encoder sample for sample,
// the gain's wrap, the packed file (lengths, nibble order, WAV and raw inputs, progress values,
// the temporary copy, failures), the kavo encode / expand commands, and interoperability with
// an independent G.726 decoder on synthetic speech.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

#include "adpcm/adpcm_core.h"
#include "adpcm/adpcm_expand.h"
#include "adpcm/adpcm_output.h"
#include "process.h"

using kavotest::read_file;
using kavotest::run_process;
using kavotest::TempDir;
using kavotest::write_file;
using namespace kavolib;

namespace {

using Samples = std::vector<int16_t>;

// Deterministic pseudo-random 16-bit values.
struct Lcg {
    uint32_t s;
    int16_t next() {
        s = s * 1664525u + 1013904223u;
        return static_cast<int16_t>(static_cast<uint16_t>(s >> 16));
    }
};

Samples sine(size_t n, double freq, double amp) {
    Samples out(n);
    for (size_t i = 0; i < n; ++i) {
        out[i] =
            static_cast<int16_t>(std::lround(amp * std::sin(2 * M_PI * freq * double(i) / 8000.0)));
    }
    return out;
}

std::string pcm_bytes(const Samples& s) {
    std::string out;
    for (int16_t v : s) {
        const auto u = static_cast<uint16_t>(v);
        out.push_back(static_cast<char>(u & 0xFF));
        out.push_back(static_cast<char>(u >> 8));
    }
    return out;
}

Samples pcm_samples(const std::string& bytes, size_t offset = 0) {
    Samples out;
    for (size_t i = offset; i + 1 < bytes.size(); i += 2) {
        out.push_back(static_cast<int16_t>(static_cast<uint16_t>(
            static_cast<unsigned char>(bytes[i]) | static_cast<unsigned char>(bytes[i + 1]) << 8)));
    }
    return out;
}

void put_le(std::string& s, size_t at, uint32_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) s[at + size_t(i)] = static_cast<char>((v >> (8 * i)) & 0xFF);
}

// A 44-byte WAV header declaring data_size bytes, followed by body.
std::string wav(const std::string& body, uint32_t data_size, uint32_t rate = 8000,
                uint32_t channels = 1) {
    std::string h(44, '\0');
    std::memcpy(h.data(), "RIFF", 4);
    put_le(h, 4, data_size + 36, 4);
    std::memcpy(h.data() + 8, "WAVEfmt ", 8);
    put_le(h, 16, 16, 4);
    put_le(h, 20, 1, 2);
    put_le(h, 22, channels, 2);
    put_le(h, 24, rate, 4);
    put_le(h, 28, rate * channels * 2, 4);
    put_le(h, 32, channels * 2, 2);
    put_le(h, 34, 16, 2);
    std::memcpy(h.data() + 36, "data", 4);
    put_le(h, 40, data_size, 4);
    return h + body;
}

std::string wav(const Samples& s) {
    return wav(pcm_bytes(s), uint32_t(s.size() * 2));
}

// Runs the stage with the test's temporary directory as the current one (the stage keeps its
// data copy there), then returns to where the test program was.
class InDir {
  public:
    explicit InDir(const std::string& dir) {
        if (getcwd(old_, sizeof old_) == nullptr) old_[0] = '\0';
        EXPECT_EQ(chdir(dir.c_str()), 0);
    }
    ~InDir() {
        if (old_[0] != '\0') {
            EXPECT_EQ(chdir(old_), 0);
        }
    }

  private:
    char old_[4096];
};

std::vector<std::array<int32_t, 5>> g_calls;
int32_t record_call(int32_t user, int32_t lo, int32_t hi, int32_t percent, int32_t one) {
    g_calls.push_back({user, lo, hi, percent, one});
    return 0;
}

// Encodes the file content in a fresh directory; returns the output bytes.
std::string encode_bytes(const std::string& input, float gain = 1.0f,
                         ProgressCallback callback = nullptr, int32_t user = 0) {
    TempDir dir;
    write_file(dir.file("in"), input);
    {
        InDir here(dir.path());
        adpcm_encode_file("in", "out", gain, callback, user);
    }
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"in", "out"})) << "stray files";
    return read_file(dir.file("out"));
}

// Reconstructed samples the encoder holds while coding s from a fresh state.
Samples encoder_reconstruction(const Samples& s, std::vector<int>* codes = nullptr) {
    AdpcmState st;
    adpcm_init(st);
    Samples sr;
    for (int16_t v : s) {
        const int code = adpcm_encode_sample(st, v);
        if (codes != nullptr) codes->push_back(code);
        sr.push_back(st.sr1);
    }
    return sr;
}

double snr_db(const Samples& ref, const Samples& test, double scale = 1.0) {
    const size_t n = std::min(ref.size(), test.size());
    double s = 0;
    double e = 0;
    for (size_t i = 0; i < n; ++i) {
        s += double(ref[i]) * ref[i];
        const double d = ref[i] - scale * test[i];
        e += d * d;
    }
    return 10.0 * std::log10(s / e);
}

}  // namespace

// ---- coder core ----

struct SequenceCase {
    const char* name;
    Samples input;
    std::vector<int> codes;
};

void PrintTo(const SequenceCase& c, std::ostream* os) {
    *os << c.name;
}

class AdpcmSequence : public testing::TestWithParam<SequenceCase> {};

TEST_P(AdpcmSequence, CodesFromAFreshState) {
    AdpcmState st;
    adpcm_init(st);
    std::vector<int> codes;
    for (int16_t v : GetParam().input) codes.push_back(adpcm_encode_sample(st, v));
    EXPECT_EQ(codes, GetParam().codes);
}

INSTANTIATE_TEST_SUITE_P(
    KnownInputs, AdpcmSequence,
    testing::Values(
        SequenceCase{"Zeros", Samples(12, 0), std::vector<int>(12, 15)},
        SequenceCase{"Plus1000", Samples(12, 1000), {7, 7, 7, 7, 7, 7, 7, 7, 7, 6, 5, 4}},
        SequenceCase{"Minus1000", Samples(12, -1000), {8, 8, 8, 8, 8, 8, 8, 8, 8, 9, 10, 10}},
        SequenceCase{"FullScale", Samples(8, 32767), std::vector<int>(8, 7)},
        SequenceCase{"RisingSine",
                     {0, 4064, 7649, 10328, 11787, 11852, 10515, 7935, 4417, 376, -3708, -7354},
                     {15, 7, 7, 7, 7, 7, 7, 7, 7, 2, 8, 8}}),
    [](const auto& param_info) { return std::string(param_info.param.name); });

TEST(AdpcmCore, NormShiftMatchesAShiftLoopForEveryValue) {
    for (int v = -32768; v <= 32767; ++v) {
        int expected = 0;
        if (v == 0) {
            expected = 14;
        } else if (v > 0) {
            for (int x = v; x < 16384; x <<= 1) ++expected;
        }
        ASSERT_EQ(norm_shift(static_cast<int16_t>(v)), expected) << v;
    }
}

struct RangeCase {
    const char* name;
    Samples input;
};

void PrintTo(const RangeCase& c, std::ostream* os) {
    *os << c.name;
}

class AdpcmRanges : public testing::TestWithParam<RangeCase> {};

// The adaptation keeps its fields in range whatever comes in; codes are never 0.
TEST_P(AdpcmRanges, AdaptationStaysInRange) {
    AdpcmState st;
    adpcm_init(st);
    for (int16_t v : GetParam().input) {
        const int code = adpcm_encode_sample(st, v);
        ASSERT_GE(code, 1);
        ASSERT_LE(code, 15);
        ASSERT_GE(st.yu, 544);
        ASSERT_LE(st.yu, 5120);
        ASSERT_GE(st.a2, -12288);
        ASSERT_LE(st.a2, 12288);
        ASSERT_GE(st.ap, 0);
        ASSERT_LE(st.ap, 512);
        ASSERT_TRUE(st.td == 0 || st.td == 1);
        ASSERT_GE(st.yl, 34816);  // never below 64 x the lowest yu
    }
}

// A literal rendering of the coding steps in their written order, in 64-bit arithmetic with
// every 16-bit reduction spelled out, against which the production coder (split into the parts
// the decoder shares) is compared over long signals.
struct PlainCoder {
    int64_t yl = 34816, yu = 544, ap = 0, dms = 0, dml = 0, a1 = 0, a2 = 0, td = 0;
    int64_t b[7] = {}, dq[7] = {}, sr1 = 0, sr2 = 0, pk1 = 0, pk2 = 0;

    static int64_t w16(int64_t v) {
        return static_cast<int16_t>(static_cast<uint16_t>(v & 0xFFFF));
    }
    static int64_t w32(int64_t v) {
        return static_cast<int32_t>(static_cast<uint32_t>(v & 0xFFFFFFFF));
    }
    static int64_t lim(int64_t v, int64_t lo, int64_t hi) { return v < lo ? lo : v > hi ? hi : v; }

    int encode(int64_t sl) {
        static const int64_t DQLN[16] = {-2048, 4,   135, 213, 273, 323, 373, 425,
                                         425,   373, 323, 273, 213, 135, 4,   -2048};
        static const int64_t WI[16] = {-12,  18,  41,  64,  112, 198, 355, 1122,
                                       1122, 355, 198, 112, 64,  41,  18,  -12};
        static const int64_t FI[16] = {0, 0, 0, 1, 1, 1, 3, 7, 7, 3, 1, 1, 1, 0, 0, 0};
        int64_t S = 0;
        for (int k = 1; k <= 6; ++k) S = w32(S + b[k] * dq[k]);
        const int64_t sez = w16(S >> 14);
        S = w32(w32(S + a1 * sr1) + a2 * sr2);
        const int64_t se = w16(S >> 14);
        const int64_t al = ap >= 256 ? 64 : ap >> 2;
        const int64_t dif = w16(yu - (yl >> 6));
        const int64_t y = w16((yl + dif * al) >> 6);
        const int64_t d = w16(sl - se);
        const int64_t m = d < 0 ? -d : d;
        int64_t e = 14;
        for (int64_t x = w16(m); x > 0 && x < 16384; x <<= 1) --e;
        if (w16(m) < 0) e = 14;
        if (m == 0) e = 0;
        const int64_t mant = ((w16(m) * 128) >> e) & 127;
        const int64_t dln = w16(e * 128 + mant - (y >> 2));
        int I = dln < -124  ? 15
                : dln < 80  ? 1
                : dln < 178 ? 2
                : dln < 246 ? 3
                : dln < 300 ? 4
                : dln < 349 ? 5
                : dln < 400 ? 6
                            : 7;
        if (d < 0 && I != 15) I = 15 - I;
        const int64_t dql = w16(DQLN[I] + (y >> 2));
        const int64_t dqmag = dql < 0 ? 0 : ((128 + (dql & 127)) * 128) >> (14 - ((dql >> 7) & 15));
        const int64_t dq0 = w16(I >= 8 ? -dqmag : dqmag);
        const int64_t ylint = yl >> 15, ylfrac = (yl >> 10) & 31;
        const int64_t thr = ylint > 9 ? 31744 : w16((ylfrac + 32) << ylint);
        const int64_t dqthr = w16((thr + (thr >> 1)) >> 1);
        const bool tr = (dq0 < 0 ? -dq0 : dq0) > dqthr && td == 1;
        yu = lim(w16(y + WI[I] - (y >> 5)), 544, 5120);
        yl = yl + yu - (yl >> 6);
        const int64_t sr = w16(dq0 + se);
        const int64_t p = w16(dq0 + sez);
        const int64_t pk0 = p < 0 ? 1 : 0, p0 = p == 0 ? 1 : 0;
        const int64_t fa1 = lim(a1, -8191, 8191);
        const int64_t fa = pk0 != pk1 ? fa1 : -fa1;
        const int64_t u = p0 ? 0 : ((pk0 == pk2 ? 4096 : -4096) + fa) >> 5;
        const int64_t a2t = lim(w16(a2 - (a2 >> 7) + u), -12288, 12288);
        const int64_t g = p0 ? 0 : pk0 != pk1 ? -192 : 192;
        int64_t a1t = w16(a1 - (a1 >> 8) + g);
        if (a1t < a2t - 15360)
            a1t = a2t - 15360;
        else if (a1t >= 15360 - a2t)
            a1t = 15360 - a2t;
        for (int k = 1; k <= 6; ++k) {
            const int64_t h = dq0 == 0 ? 0 : ((dq[k] >> 15) & 1) != ((dq0 >> 15) & 1) ? -128 : 128;
            b[k] = tr ? 0 : w16(b[k] - (b[k] >> 8) + h);
        }
        a2 = tr ? 0 : a2t;
        a1 = tr ? 0 : a1t;
        pk2 = pk1;
        pk1 = pk0;
        sr2 = sr1;
        sr1 = sr;
        for (int k = 6; k > 1; --k) dq[k] = dq[k - 1];
        dq[1] = dq0;
        const int64_t tdp = a2t < -11776 ? 1 : 0;
        td = tr ? 0 : tdp;
        dms = w16(dms + ((FI[I] * 512 - dms) >> 5));
        dml = w16(dml + ((FI[I] * 2048 - dml) >> 7));
        const int64_t spread = 4 * dms - dml;
        const int64_t ax =
            (y < 1536 || w16(spread < 0 ? -spread : spread) >= (dml >> 3) || tdp) ? 1 : 0;
        ap = tr ? 256 : w16(ap + ((ax * 512 - ap) >> 4));
        return I;
    }
};

TEST_P(AdpcmRanges, MatchesTheStepsInTheirWrittenOrder) {
    AdpcmState st;
    adpcm_init(st);
    PlainCoder plain;
    const Samples& in = GetParam().input;
    for (size_t i = 0; i < in.size(); ++i) {
        ASSERT_EQ(adpcm_encode_sample(st, in[i]), plain.encode(in[i])) << "sample " << i;
        ASSERT_EQ(st.sr1, plain.sr1);
        ASSERT_EQ(st.a1, plain.a1);
        ASSERT_EQ(st.a2, plain.a2);
        ASSERT_EQ(st.yl, plain.yl);
    }
}

void expect_same_state(const AdpcmState& a, const AdpcmState& b, size_t at) {
    EXPECT_EQ(a.yl, b.yl) << at;
    EXPECT_EQ(a.yu, b.yu) << at;
    EXPECT_EQ(a.ap, b.ap) << at;
    EXPECT_EQ(a.dms, b.dms) << at;
    EXPECT_EQ(a.dml, b.dml) << at;
    EXPECT_EQ(a.a1, b.a1) << at;
    EXPECT_EQ(a.a2, b.a2) << at;
    for (int k = 0; k < 6; ++k) {
        EXPECT_EQ(a.b[k], b.b[k]) << at << " b" << k + 1;
        EXPECT_EQ(a.dq[k], b.dq[k]) << at << " dq" << k + 1;
    }
    EXPECT_EQ(a.sr1, b.sr1) << at;
    EXPECT_EQ(a.sr2, b.sr2) << at;
    EXPECT_EQ(a.pk1, b.pk1) << at;
    EXPECT_EQ(a.pk2, b.pk2) << at;
    EXPECT_EQ(a.td, b.td) << at;
}

// Blocks of the output stage's size (and a ragged last one) give the plain coder's codes and
// leave every field of the state where the sample-by-sample coder leaves it.
TEST_P(AdpcmRanges, BlocksMatchTheStepsInTheirWrittenOrder) {
    AdpcmState st;
    adpcm_init(st);
    AdpcmState one;
    adpcm_init(one);
    PlainCoder plain;
    const Samples& in = GetParam().input;
    for (size_t at = 0; at < in.size(); at += 160) {
        const size_t n = std::min<size_t>(160, in.size() - at);
        uint8_t codes[160];
        adpcm_encode_block(st, in.data() + at, static_cast<int>(n), codes);
        for (size_t i = 0; i < n; ++i) {
            ASSERT_EQ(codes[i], plain.encode(in[at + i])) << "sample " << at + i;
            adpcm_encode_sample(one, in[at + i]);
        }
        expect_same_state(st, one, at);
        if (HasFailure()) return;
        ASSERT_EQ(st.sr1, plain.sr1);
        ASSERT_EQ(st.a1, plain.a1);
        ASSERT_EQ(st.a2, plain.a2);
        ASSERT_EQ(st.yl, plain.yl);
    }
}

Samples random_input(size_t n) {
    Lcg r{12345};
    Samples s(n);
    for (auto& v : s) v = r.next();
    return s;
}

Samples full_scale_input() {
    // Extremes, a full-scale square and sine, and the difference of exactly -32768.
    Samples s;
    for (int i = 0; i < 4000; ++i) s.push_back(i % 2 ? int16_t{32767} : int16_t{-32768});
    for (int i = 0; i < 4000; ++i) s.push_back((i / 20) % 2 ? int16_t{32767} : int16_t{-32768});
    const Samples tone = sine(8000, 440.0, 32767.0);
    s.insert(s.end(), tone.begin(), tone.end());
    s.insert(s.end(), 100, int16_t{-32768});
    return s;
}

// Steady tones across the band drive the poles to their limits and set the tone flag; the
// bursts between them are transitions.
Samples tones_and_bursts() {
    Samples s;
    Lcg r{99};
    for (double freq : {60.0, 150.0, 400.0, 1000.0, 2000.0, 3000.0, 3700.0, 3950.0}) {
        for (double amp : {200.0, 3000.0, 20000.0}) {
            const Samples tone = sine(3000, freq, amp);
            s.insert(s.end(), tone.begin(), tone.end());
            for (int i = 0; i < 40; ++i) s.push_back(r.next());
        }
    }
    return s;
}

// Noise under a slowly swinging envelope keeps the scale factor moving through the middle of
// its range, where the speed control's decisions change.
Samples modulated_noise() {
    Samples s(60000);
    Lcg r{7};
    for (size_t i = 0; i < s.size(); ++i) {
        const double env = 40.0 + 1500.0 * (1.0 + std::sin(2 * M_PI * double(i) / 7000.0));
        s[i] = static_cast<int16_t>(std::lround(env * r.next() / 32768.0));
    }
    return s;
}

// Digital silence (a difference of 0), steps of DC and the smallest values: the quantizer's
// zero exponent and its lowest interval, and a sum of dq and sez of exactly 0.
Samples silence_and_steps() {
    Samples s;
    Lcg r{3};
    for (int16_t level : {int16_t{0}, int16_t{1}, int16_t{-1}, int16_t{5000}, int16_t{-12000}}) {
        s.insert(s.end(), 3000, level);
        for (int i = 0; i < 500; ++i) s.push_back(static_cast<int16_t>(r.next() >> 13));
        s.insert(s.end(), 2000, int16_t{0});
    }
    return s;
}

INSTANTIATE_TEST_SUITE_P(Signals, AdpcmRanges,
                         testing::Values(RangeCase{"LongRandom", random_input(400000)},
                                         RangeCase{"FullScale", full_scale_input()},
                                         RangeCase{"TonesAndBursts", tones_and_bursts()},
                                         RangeCase{"ModulatedNoise", modulated_noise()},
                                         RangeCase{"SilenceAndSteps", silence_and_steps()}),
                         [](const auto& param_info) { return std::string(param_info.param.name); });

// A steady low tone drives the second pole to its limit and sets the tone flag; a sudden
// burst after it is a transition that clears the whole predictor.
TEST(AdpcmCore, ToneThenBurstSetsToneFlagAndResetsThePredictor) {
    AdpcmState st;
    adpcm_init(st);
    bool tone_seen = false;
    for (int16_t v : sine(8000, 200.0, 300.0)) {
        adpcm_encode_sample(st, v);
        tone_seen = tone_seen || st.td == 1;
    }
    ASSERT_TRUE(tone_seen);
    ASSERT_NE(st.a2, 0);
    bool reset_seen = false;
    for (int i = 0; i < 200 && !reset_seen; ++i) {
        adpcm_encode_sample(st, i % 2 ? int16_t{30000} : int16_t{-30000});
        reset_seen = st.a1 == 0 && st.a2 == 0 && st.ap == 256 && st.td == 0;
        for (int16_t b : st.b) reset_seen = reset_seen && b == 0;
    }
    EXPECT_TRUE(reset_seen);
}

// Decoding the codes reproduces the encoder's reconstruction and its whole state.
TEST(AdpcmCore, DecoderFollowsTheEncoderExactly) {
    Samples input = random_input(20000);
    const Samples fs = full_scale_input();
    input.insert(input.end(), fs.begin(), fs.end());
    for (int16_t v : sine(8000, 1000.0, 8000.0)) input.push_back(v);

    AdpcmState enc;
    AdpcmState dec;
    adpcm_init(enc);
    adpcm_init(dec);
    for (size_t i = 0; i < input.size(); ++i) {
        const int code = adpcm_encode_sample(enc, input[i]);
        const int16_t sr = adpcm_decode_code(dec, code);
        ASSERT_EQ(sr, enc.sr1) << "sample " << i;
        ASSERT_EQ(dec.yl, enc.yl);
        ASSERT_EQ(dec.yu, enc.yu);
        ASSERT_EQ(dec.ap, enc.ap);
        ASSERT_EQ(dec.dms, enc.dms);
        ASSERT_EQ(dec.dml, enc.dml);
        ASSERT_EQ(dec.a1, enc.a1);
        ASSERT_EQ(dec.a2, enc.a2);
        ASSERT_EQ(dec.td, enc.td);
        for (int k = 0; k < 6; ++k) ASSERT_EQ(dec.b[k], enc.b[k]);
    }
}

// ---- gain ----

TEST(ApplyGain, TruncatesTowardZeroAndWrapsInSixteenBits) {
    struct Case {
        int16_t in;
        float gain;
        int16_t out;
    };
    const auto low16 = [](int64_t v) {
        return static_cast<int16_t>(static_cast<uint16_t>(v & 0xFFFF));
    };
    const float inf = std::numeric_limits<float>::infinity();
    const Case cases[] = {
        {1000, 1.0f, 1000},
        {-1001, 0.5f, -500},
        {1001, 0.5f, 500},
        {30000, 2.0f, -5536},
        {-30000, 2.0f, 5536},
        {-32768, -1.0f, -32768},
        {32767, 3.0f, low16(98301)},
        {100, 1e9f, low16(100 * static_cast<int64_t>(1e9f))},
        {-7, 3e11f, low16(-7 * static_cast<int64_t>(3e11f))},
        {-7, 1e12f, 0},  // the float nearest 1e12 is a multiple of 65536
        {3, 1e30f, 0},   // an integer of 2^99 and more has no low bits set
        {5, inf, 0},
        {5, std::nanf(""), 0},
    };
    for (const Case& c : cases) {
        int16_t buf[3] = {c.in, c.in, 77};
        apply_gain(buf, 2, c.gain);
        EXPECT_EQ(buf[0], c.out) << c.in << " x " << c.gain;
        EXPECT_EQ(buf[1], c.out);
        EXPECT_EQ(buf[2], 77) << "beyond count";
    }
    int16_t untouched[2] = {1234, -1234};
    apply_gain(untouched, 0, 2.0f);
    apply_gain(untouched, -5, 2.0f);
    EXPECT_EQ(untouched[0], 1234);
    EXPECT_EQ(untouched[1], -1234);
}

// ---- output stage ----

TEST(AdpcmFile, FourCodesToAWordEarliestInTheLowNibble) {
    // Find four samples that code as 1, 2, 3, 4 in turn.
    AdpcmState st;
    adpcm_init(st);
    Samples first;
    for (int want = 1; want <= 4; ++want) {
        bool found = false;
        for (int v = 0; v <= 32767 && !found; ++v) {
            AdpcmState trial = st;
            if (adpcm_encode_sample(trial, static_cast<int16_t>(v)) == want) {
                first.push_back(static_cast<int16_t>(v));
                st = trial;
                found = true;
            }
        }
        ASSERT_TRUE(found) << want;
    }
    Samples frame = first;
    frame.resize(160, 0);
    const std::string out = encode_bytes(pcm_bytes(frame));
    ASSERT_EQ(out.size(), 80u);
    EXPECT_EQ(static_cast<unsigned char>(out[0]), 0x21);
    EXPECT_EQ(static_cast<unsigned char>(out[1]), 0x43);
}

struct LengthCase {
    int frames;
    int extra_bytes;
};

void PrintTo(const LengthCase& c, std::ostream* os) {
    *os << c.frames << " frames + " << c.extra_bytes << " bytes";
}

class AdpcmFileLength : public testing::TestWithParam<LengthCase> {};

// WAV and raw inputs of the same samples give the same 80 bytes per whole frame; a trailing
// partial frame is dropped.
TEST_P(AdpcmFileLength, EightyBytesPerWholeFrameFromWavOrRaw) {
    const auto [frames, extra] = GetParam();
    Lcg r{uint32_t(frames * 7 + extra)};
    Samples s(size_t(frames * 160 + extra / 2));
    for (auto& v : s) v = static_cast<int16_t>(r.next() / 4);
    const std::string body = pcm_bytes(s);
    const std::string from_wav = encode_bytes(wav(body, uint32_t(body.size())));
    const std::string from_raw = encode_bytes(body);
    EXPECT_EQ(from_wav.size(), size_t(80 * frames));
    EXPECT_EQ(from_raw, from_wav);
    // The codes are those of the samples themselves: expanding gives the encoder's
    // reconstruction of the whole frames.
    Samples expanded(from_raw.size() * 2);
    AdpcmState st;
    adpcm_init(st);
    adpcm_expand_codes(st, reinterpret_cast<const unsigned char*>(from_raw.data()), from_raw.size(),
                       expanded.data());
    s.resize(size_t(frames * 160));
    EXPECT_EQ(expanded, encoder_reconstruction(s));
}

INSTANTIATE_TEST_SUITE_P(Sizes, AdpcmFileLength,
                         testing::Values(LengthCase{0, 0}, LengthCase{0, 100}, LengthCase{1, 0},
                                         LengthCase{1, 100}, LengthCase{7, 0}, LengthCase{7, 100},
                                         LengthCase{50, 318}),
                         [](const auto& param_info) {
                             return "Frames" + std::to_string(param_info.param.frames) + "Plus" +
                                    std::to_string(param_info.param.extra_bytes);
                         });

TEST(AdpcmFile, OddHeadersAndTinyInputs) {
    const std::string two_frames = pcm_bytes(sine(320, 500.0, 9000.0));
    // A data size of 0 encodes nothing, whatever follows.
    EXPECT_EQ(encode_bytes(wav(two_frames, 0)).size(), 0u);
    // A data size beyond the end of the file encodes the samples that are there.
    EXPECT_EQ(encode_bytes(wav(two_frames, 0xFFFFFFFFu)), encode_bytes(two_frames));
    EXPECT_EQ(encode_bytes(wav(two_frames, 321)).size(), 80u);
    // A header cut short, a file of three bytes, an empty file: an empty output.
    EXPECT_EQ(encode_bytes(wav(two_frames, 640).substr(0, 42)).size(), 0u);
    EXPECT_EQ(encode_bytes("RIF").size(), 0u);
    EXPECT_EQ(encode_bytes("").size(), 0u);
}

struct ProgressCase {
    const char* name;
    size_t file_bytes;
    bool riff;
    std::vector<int32_t> values;
};

void PrintTo(const ProgressCase& c, std::ostream* os) {
    *os << c.name;
}

class AdpcmProgress : public testing::TestWithParam<ProgressCase> {};

TEST_P(AdpcmProgress, ReportsAfterFramesOneFourSeven) {
    const ProgressCase& c = GetParam();
    const size_t body = c.riff ? c.file_bytes - 44 : c.file_bytes;
    const std::string samples = pcm_bytes(sine(body / 2, 300.0, 5000.0));
    g_calls.clear();
    encode_bytes(c.riff ? wav(samples, uint32_t(samples.size())) : samples, 1.0f, record_call,
                 4242);
    std::vector<int32_t> values;
    for (const auto& call : g_calls) {
        EXPECT_EQ(call[0], 4242);
        EXPECT_EQ(call[1], 0);
        EXPECT_EQ(call[2], 100);
        EXPECT_EQ(call[4], 1);
        values.push_back(call[3]);
    }
    EXPECT_EQ(values, c.values);
}

std::vector<int32_t> one_second_values() {
    // 50 frames of a one-second WAV: 17 reports, after frames 1, 4, ..., 49, the first 80.
    std::vector<int32_t> v;
    const double T = 16044 * 6.25e-5;
    for (int frame = 1; frame <= 49; frame += 3) v.push_back(int32_t(80 + 20 * (frame * 0.02) / T));
    return v;
}

INSTANTIATE_TEST_SUITE_P(
    Files, AdpcmProgress,
    testing::Values(ProgressCase{"WavOfSevenFrames", 44 + 2240, true, {82, 91, 99}},
                    ProgressCase{"RawOfFourFrames", 1280, false, {85, 100}},
                    // 80 + 20 x 0.02 / 0.2 in single-precision p and T is 81.99999994.
                    ProgressCase{"RawOfTenFrames", 3200, false, {81, 87, 94, 100}},
                    ProgressCase{"OneSecondWav", 16044, true, one_second_values()},
                    ProgressCase{"LessThanAFrame", 44 + 300, true, {}}),
    [](const auto& param_info) { return std::string(param_info.param.name); });

TEST(AdpcmFile, DataCopyIsRemovedEvenForRawInput) {
    TempDir dir;
    write_file(dir.file("in.raw"), pcm_bytes(sine(480, 700.0, 3000.0)));
    write_file(dir.file("ZUTMP.TM1"), "left over by an earlier run");
    {
        InDir here(dir.path());
        adpcm_encode_file("in.raw", "out", 1.0f, nullptr, 0);
    }
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"in.raw", "out"}));
    EXPECT_EQ(read_file(dir.file("out")).size(), 240u);
}

using AdpcmFileDeathTest = testing::Test;

TEST_F(AdpcmFileDeathTest, UnopenableFilesEndTheProcessWithStatusOne) {
    TempDir dir;
    write_file(dir.file("in.wav"), wav(sine(320, 500.0, 1000.0)));
    InDir here(dir.path());
    EXPECT_EXIT(adpcm_encode_file("missing.wav", "out", 1.0f, nullptr, 0),
                testing::ExitedWithCode(1), "");
    EXPECT_FALSE(kavotest::file_exists(dir.file("out"))) << "output made for a missing input";
    EXPECT_EXIT(adpcm_encode_file("in.wav", "no/such/dir/out", 1.0f, nullptr, 0),
                testing::ExitedWithCode(1), "");
    // The data copy cannot be created when a directory has its name.
    ASSERT_EQ(mkdir("ZUTMP.TM1", 0755), 0);
    EXPECT_EXIT(adpcm_encode_file("in.wav", "out", 1.0f, nullptr, 0), testing::ExitedWithCode(1),
                "");
    rmdir("ZUTMP.TM1");
}

// ---- the commands ----

TEST(CliEncode, RunsTheStageAndLeavesOnlyTheOutput) {
    TempDir dir;
    const Samples s = sine(8000, 440.0, 12000.0);
    write_file(dir.file("in.wav"), wav(s));
    const auto run =
        run_process({KAVO_CLI_PATH, "encode", "in.wav", "out.adpcm", "--gain", "0.5"}, dir.path());
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"in.wav", "out.adpcm"}));
    EXPECT_EQ(read_file(dir.file("out.adpcm")), encode_bytes(wav(s), 0.5f));

    const auto raw = run_process({KAVO_CLI_PATH, "encode", "in.raw", "raw.adpcm"}, dir.path());
    EXPECT_EQ(raw.exit_code, 1);
    EXPECT_NE(raw.err.find("cannot read 'in.raw'"), std::string::npos) << raw.err;
}

TEST(CliEncode, RefusesWhatTheStageCannotEncodeAndKeepsOut) {
    TempDir dir;
    const std::string body = pcm_bytes(sine(1600, 440.0, 1000.0));
    write_file(dir.file("cd.wav"), wav(body, uint32_t(body.size()), 44100, 1));
    write_file(dir.file("stereo.wav"), wav(body, uint32_t(body.size()), 8000, 2));
    std::string listed = wav(body, uint32_t(body.size()));
    std::memcpy(listed.data() + 36, "LIST", 4);
    write_file(dir.file("listed.wav"), listed);
    write_file(dir.file("out.adpcm"), "keep me");
    struct Case {
        const char* file;
        const char* says;
    };
    for (const Case& c : {Case{"cd.wav", "44100 Hz"}, Case{"stereo.wav", "2 channels"},
                          Case{"listed.wav", "plain 44-byte WAV header"}}) {
        const auto run = run_process({KAVO_CLI_PATH, "encode", c.file, "out.adpcm"}, dir.path());
        EXPECT_EQ(run.exit_code, 1) << c.file;
        EXPECT_NE(run.err.find(c.says), std::string::npos) << run.err;
    }
    const auto nan =
        run_process({KAVO_CLI_PATH, "encode", "cd.wav", "out.adpcm", "--gain", "nan"}, dir.path());
    EXPECT_EQ(nan.exit_code, 2);
    EXPECT_EQ(read_file(dir.file("out.adpcm")), "keep me");
}

TEST(CliExpand, GivesAnEightKilohertzWavOfTheEncodersReconstruction) {
    TempDir dir;
    Samples s = sine(4000, 300.0, 7000.0);
    const Samples noise = random_input(4000);
    s.insert(s.end(), noise.begin(), noise.end());
    write_file(dir.file("in.raw"), pcm_bytes(s));
    ASSERT_EQ(run_process({KAVO_CLI_PATH, "encode", "in.raw", "x.adpcm"}, dir.path()).exit_code, 0);
    const auto run = run_process({KAVO_CLI_PATH, "expand", "x.adpcm", "x.wav"}, dir.path());
    ASSERT_EQ(run.exit_code, 0) << run.err;
    const std::string out = read_file(dir.file("x.wav"));
    ASSERT_EQ(out.size(), 44u + 2 * s.size());
    EXPECT_EQ(out.substr(0, 44), wav(std::string(), uint32_t(2 * s.size())));
    EXPECT_EQ(pcm_samples(out, 44), encoder_reconstruction(s));

    // Every byte is two samples, so an odd size loses nothing; an empty file is a bare header.
    const std::string codes = read_file(dir.file("x.adpcm"));
    write_file(dir.file("odd.adpcm"), codes.substr(0, 81));
    write_file(dir.file("empty.adpcm"), "");
    ASSERT_EQ(run_process({KAVO_CLI_PATH, "expand", "odd.adpcm", "odd.wav"}, dir.path()).exit_code,
              0);
    ASSERT_EQ(
        run_process({KAVO_CLI_PATH, "expand", "empty.adpcm", "empty.wav"}, dir.path()).exit_code,
        0);
    const Samples odd = pcm_samples(read_file(dir.file("odd.wav")), 44);
    const Samples all = pcm_samples(out, 44);
    EXPECT_EQ(odd, Samples(all.begin(), all.begin() + 162));
    EXPECT_EQ(read_file(dir.file("empty.wav")), wav(std::string(), 0));

    const auto missing = run_process({KAVO_CLI_PATH, "expand", "none.adpcm", "n.wav"}, dir.path());
    EXPECT_EQ(missing.exit_code, 1);
    EXPECT_FALSE(kavotest::file_exists(dir.file("n.wav")));
}

// ---- interoperability on speech ----

// Synthetic speech at 8000 Hz coded three ways and decoded: ours by our own expansion, ours by
// an independent G.726 decoder, and the independent encoder's own round trip. That decoder
// works on 14-bit samples and scales its output by 4, while this coder takes the 16-bit
// sample as it is; with the gain 0.25 the levels meet. The floors sit a few dB under the
// measured figures, well above what a nibble- or byte-order fault gives (about 0 dB).
TEST(AdpcmInterop, SpeechThroughAnIndependentDecoder) {
    TempDir dir;
    const auto sh = [&](const std::string& cmd) {
        return run_process({"/bin/sh", "-c", cmd}, dir.path());
    };
    ASSERT_EQ(sh("espeak-ng -w speech.wav 'The quick brown fox jumps over the lazy dog. Please "
                 "leave a message after the tone, and we will call you back as soon as possible.'")
                  .exit_code,
              0);
    ASSERT_EQ(sh("ffmpeg -v error -y -i speech.wav -ar 8000 -ac 1 -f s16le speech.raw").exit_code,
              0);
    const std::string kavo = KAVO_CLI_PATH;
    ASSERT_EQ(sh(kavo + " encode speech.raw ours.adpcm").exit_code, 0);
    ASSERT_EQ(sh(kavo + " encode --gain 0.25 speech.raw quarter.adpcm").exit_code, 0);
    ASSERT_EQ(sh(kavo + " expand ours.adpcm ours.wav").exit_code, 0);
    ASSERT_EQ(sh(kavo + " expand quarter.adpcm quarter.wav").exit_code, 0);
    const std::string dec = "ffmpeg -v error -y -f g726le -code_size 4 -ar 8000 -i ";
    ASSERT_EQ(sh(dec + "ours.adpcm -f s16le ours_ff.raw").exit_code, 0);
    ASSERT_EQ(sh(dec + "quarter.adpcm -f s16le quarter_ff.raw").exit_code, 0);
    ASSERT_EQ(sh("ffmpeg -v error -y -f s16le -ar 8000 -ac 1 -i speech.raw -c:a g726le "
                 "-code_size 4 -f g726le ff.adpcm")
                  .exit_code,
              0);
    ASSERT_EQ(sh(dec + "ff.adpcm -f s16le ff_ff.raw").exit_code, 0);

    const Samples x = pcm_samples(read_file(dir.file("speech.raw")));
    ASSERT_GT(x.size(), 40000u);
    const Samples ours_expand = pcm_samples(read_file(dir.file("ours.wav")), 44);
    const Samples ours_ff = pcm_samples(read_file(dir.file("ours_ff.raw")));
    const Samples quarter_ff = pcm_samples(read_file(dir.file("quarter_ff.raw")));
    const Samples ff_ff = pcm_samples(read_file(dir.file("ff_ff.raw")));
    ASSERT_EQ(ours_expand.size(), x.size() / 160 * 160);
    ASSERT_EQ(ours_ff.size(), ours_expand.size());

    const double snr_expand = snr_db(x, ours_expand);
    const double snr_ours_ff = snr_db(x, ours_ff);
    const double snr_quarter_ff = snr_db(x, quarter_ff);
    const double snr_ff = snr_db(x, ff_ff);
    // Same tables and scale adaptation: until the two predictors' roundings part, the
    // independent decoder's samples are exactly 4 times ours.
    const Samples quarter_expand = pcm_samples(read_file(dir.file("quarter.wav")), 44);
    for (size_t i = 0; i < 64; ++i) ASSERT_EQ(quarter_ff[i], 4 * quarter_expand[i]) << i;
    std::printf(
        "SNR on speech: kavo expand %.2f dB; independent decoder: gain 1 %.2f dB, "
        "gain 0.25 %.2f dB; its own round trip %.2f dB\n",
        snr_expand, snr_ours_ff, snr_quarter_ff, snr_ff);
    EXPECT_GT(snr_expand, 15.0);
    EXPECT_GT(snr_quarter_ff, 6.0);
    EXPECT_GT(snr_ff, 18.0);
    EXPECT_LT(snr_ours_ff, 0.0) << "the independent decoder plays full-level codes 4x louder";
}
