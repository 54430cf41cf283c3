// The ADPCM coder and its output stage: the coder, its block form and the decoder against a
// literal rendering of the coding steps over one long signal; the gain's wrap; the packed file
// (lengths, nibble order, WAV and raw inputs, its expansion back to the coder's samples, odd
// headers, progress values, the data copy, failures).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "adpcm/adpcm_core.h"
#include "adpcm/adpcm_expand.h"
#include "adpcm/adpcm_output.h"
#include "audio.h"
#include "process.h"

using namespace kavotest;
using namespace kavolib;

namespace {

// Deterministic pseudo-random 16-bit values.
struct Lcg {
    uint32_t s;
    int16_t next() {
        s = s * 1664525u + 1013904223u;
        return static_cast<int16_t>(static_cast<uint16_t>(s >> 16));
    }
};

std::vector<std::array<int32_t, 5>> g_calls;
int32_t record_call(int32_t user, int32_t lo, int32_t hi, int32_t percent, int32_t one) {
    g_calls.push_back({user, lo, hi, percent, one});
    return 0;
}

// Encodes the file content in a fresh directory holding a stale copy of the stage's data file;
// the copy must be replaced and removed. Returns the output bytes.
std::string encode_bytes(const std::string& input, float gain = 1.0f,
                         ProgressCallback callback = nullptr, int32_t user = 0) {
    TempDir dir;
    write_file(dir.file("in"), input);
    write_file(dir.file("ZUTMP.TM1"), "left over by an earlier run");
    {
        InDir here(dir.path());
        adpcm_encode_file("in", "out", gain, callback, user);
    }
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"in", "out"})) << "stray files";
    return read_file(dir.file("out"));
}

std::vector<int> fields(const AdpcmState& s) {
    std::vector<int> v = {s.yl, s.yu, s.ap, s.dms, s.dml, s.a1, s.a2, s.sr1, s.sr2, s.pk1, s.pk2, s.td};
    v.insert(v.end(), std::begin(s.b), std::end(s.b));
    v.insert(v.end(), std::begin(s.dq), std::end(s.dq));
    return v;
}

// ---- coder core ----

// A literal rendering of the coding steps in their written order, in 64-bit arithmetic with
// every 16-bit reduction spelled out, against which the production coder (split into the parts
// the decoder shares) is compared over long signals.
struct PlainCoder {
    int64_t yl = 34816, yu = 544, ap = 0, dms = 0, dml = 0, a1 = 0, a2 = 0, td = 0;
    int64_t b[7] = {}, dq[7] = {}, sr1 = 0, sr2 = 0, pk1 = 0, pk2 = 0;

    static int64_t w16(int64_t v) { return static_cast<int16_t>(static_cast<uint16_t>(v & 0xFFFF)); }
    static int64_t w32(int64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(v & 0xFFFFFFFF)); }
    static int64_t lim(int64_t v, int64_t lo, int64_t hi) { return v < lo ? lo : v > hi ? hi : v; }

    struct Estimate {
        int64_t sez, se, y;
    };
    Estimate estimate() const {
        int64_t S = 0;
        for (int k = 1; k <= 6; ++k) S = w32(S + b[k] * dq[k]);
        const int64_t sez = w16(S >> 14);
        S = w32(w32(S + a1 * sr1) + a2 * sr2);
        const int64_t al = ap >= 256 ? 64 : ap >> 2;
        const int64_t dif = w16(yu - (yl >> 6));
        return {sez, w16(S >> 14), w16((yl + dif * al) >> 6)};
    }

    int encode(int64_t sl) {
        const auto [sez, se, y] = estimate();
        const int64_t d = w16(sl - se);
        const int64_t m = d < 0 ? -d : d;
        int64_t e = 14;
        for (int64_t x = w16(m); x > 0 && x < 16384; x <<= 1) --e;
        if (w16(m) < 0) e = 14;
        if (m == 0) e = 0;
        const int64_t mant = ((w16(m) * 128) >> e) & 127;
        const int64_t dln = w16(e * 128 + mant - (y >> 2));
        // The decision levels: below -124 code 15, then codes 1 to 7 from 80, 178, ... 400 up.
        int I = dln < -124 ? 15 : 1;
        for (const int64_t level : {80, 178, 246, 300, 349, 400}) I += (I != 15 && dln >= level) ? 1 : 0;
        if (d < 0 && I != 15) I = 15 - I;
        adapt(I, {sez, se, y});
        return I;
    }

    // Everything after the quantizer: the decoder's steps for code I.
    void adapt(int I, const Estimate& est) {
        const auto [sez, se, y] = est;
        static const int64_t DQLN[16] = {-2048, 4,   135, 213, 273, 323, 373, 425,
                                         425,   373, 323, 273, 213, 135, 4,   -2048};
        static const int64_t WI[16] = {-12,  18,  41,  64,  112, 198, 355, 1122,
                                       1122, 355, 198, 112, 64,  41,  18,  -12};
        static const int64_t FI[16] = {0, 0, 0, 1, 1, 1, 3, 7, 7, 3, 1, 1, 1, 0, 0, 0};
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
    }
};

// One long signal through the coder's corners: random full-range values; extremes, a
// full-scale square and sine and the difference of exactly -32768; steady tones across the band
// (poles driven to their limits, the tone flag set) with bursts between them (transitions);
// noise under a slowly swinging envelope (the scale factor through the middle of its range,
// where the speed control's decisions change); digital silence, steps of DC and the smallest
// values (the quantizer's zero exponent and lowest interval, a dq + sez of exactly 0).
Samples corner_signal() {
    Samples s;
    Lcg r{12345};
    for (int i = 0; i < 200000; ++i) s.push_back(r.next());
    for (int i = 0; i < 4000; ++i) s.push_back(i % 2 ? int16_t{32767} : int16_t{-32768});
    for (int i = 0; i < 4000; ++i) s.push_back((i / 20) % 2 ? int16_t{32767} : int16_t{-32768});
    const auto append = [&](const Samples& x) { s.insert(s.end(), x.begin(), x.end()); };
    append(sine(8000, 440.0, 8000, 32767.0));
    s.insert(s.end(), 100, int16_t{-32768});
    for (double freq : {60.0, 150.0, 400.0, 1000.0, 2000.0, 3000.0, 3700.0, 3950.0}) {
        for (double amp : {200.0, 3000.0, 20000.0}) {
            append(sine(3000, freq, 8000, amp));
            for (int i = 0; i < 40; ++i) s.push_back(r.next());
        }
    }
    for (int i = 0; i < 60000; ++i) {
        const double env = 40.0 + 1500.0 * (1.0 + std::sin(2 * M_PI * i / 7000.0));
        s.push_back(static_cast<int16_t>(std::lround(env * r.next() / 32768.0)));
    }
    for (int16_t level : {int16_t{0}, int16_t{1}, int16_t{-1}, int16_t{5000}, int16_t{-12000}}) {
        s.insert(s.end(), 3000, level);
        for (int i = 0; i < 500; ++i) s.push_back(static_cast<int16_t>(r.next() >> 13));
        s.insert(s.end(), 2000, int16_t{0});
    }
    return s;
}

}  // namespace

// The coder sample by sample, the coder in blocks of the output stage's size (and a ragged
// last one) and the decoder fed the codes all follow the plain coder: the same codes, the same
// reconstruction, every field of the state the same; the adaptation keeps its ranges. And from
// every state on the way, each of the 15 codes in turn: the decoder's step gives the plain
// steps' reconstruction and state; far more states and codes than the signal itself takes,
// among them the transition detector's threshold met exactly.
TEST(AdpcmCoder, CoderBlocksAndDecoderFollowTheStepsInTheirWrittenOrder) {
    AdpcmState one, block, dec;
    adpcm_init(one);
    adpcm_init(block);
    adpcm_init(dec);
    PlainCoder plain;
    const Samples in = corner_signal();
    for (size_t at = 0; at < in.size(); at += 160) {
        const size_t n = std::min<size_t>(160, in.size() - at);
        uint8_t codes[160];
        adpcm_encode_block(block, in.data() + at, static_cast<int>(n), codes);
        for (size_t i = at; i < at + n; ++i) {
            for (int code = 1; code <= 15; ++code) {
                AdpcmState d = dec;
                PlainCoder p = plain;
                p.adapt(code, p.estimate());
                ASSERT_EQ(adpcm_decode_code(d, code), p.sr1) << "sample " << i << " code " << code;
                ASSERT_EQ(std::vector<int64_t>({d.a1, d.a2, d.yl, d.yu, d.ap, d.td, d.b[0], d.b[5]}),
                          std::vector<int64_t>({p.a1, p.a2, p.yl, p.yu, p.ap, p.td, p.b[1], p.b[6]}))
                    << "sample " << i << " code " << code;
            }
            const int code = adpcm_encode_sample(one, in[i]);
            ASSERT_EQ(code, plain.encode(in[i])) << "sample " << i;
            ASSERT_EQ(codes[i - at], code) << "sample " << i;
            ASSERT_EQ(one.sr1, plain.sr1) << "sample " << i;
            ASSERT_EQ(adpcm_decode_code(dec, code), one.sr1) << "sample " << i;
            ASSERT_EQ(fields(dec), fields(one)) << "sample " << i;
            ASSERT_TRUE(one.yu >= 544 && one.yu <= 5120 && one.ap >= 0 && one.ap <= 512 &&
                        one.a2 >= -12288 && one.a2 <= 12288 && one.yl >= 34816 && code >= 1)
                << "sample " << i;
        }
        ASSERT_EQ(fields(block), fields(one)) << "block at " << at;
        ASSERT_EQ(std::vector<int64_t>({one.a1, one.a2, one.yl, one.yu, one.ap, one.td}),
                  std::vector<int64_t>({plain.a1, plain.a2, plain.yl, plain.yu, plain.ap, plain.td}))
            << "block at " << at;
    }
}

// ---- gain ----

// Each product truncated toward zero, its low 16 bits kept; nothing beyond count, nothing for
// a count that is not positive.
TEST(ApplyGain, TruncatesTowardZeroAndWrapsInSixteenBits) {
    const auto low16 = [](int64_t v) { return static_cast<int16_t>(static_cast<uint16_t>(v & 0xFFFF)); };
    const std::tuple<int16_t, float, int16_t> cases[] = {
        {1000, 1.0f, 1000}, {-1001, 0.5f, -500}, {1001, 0.5f, 500}, {30000, 2.0f, -5536},
        {-30000, 2.0f, 5536}, {-32768, -1.0f, -32768}, {32767, 3.0f, low16(98301)},
        {100, 1e9f, low16(100 * static_cast<int64_t>(1e9f))},
        {-7, 3e11f, low16(-7 * static_cast<int64_t>(3e11f))},
        {-7, 1e12f, 0},  // the float nearest 1e12 is a multiple of 65536
        {3, 1e30f, 0},   // an integer of 2^99 and more has no low bits set
        {5, std::numeric_limits<float>::infinity(), 0}, {5, std::nanf(""), 0}};
    for (const auto& [in, gain, out] : cases) {
        int16_t buf[3] = {in, in, 77};
        apply_gain(buf, 2, gain);
        EXPECT_EQ(std::vector<int16_t>(buf, buf + 3), std::vector<int16_t>({out, out, 77})) << in << " x " << gain;
    }
    int16_t untouched[2] = {1234, -1234};
    apply_gain(untouched, 0, 2.0f);
    apply_gain(untouched, -5, 2.0f);
    EXPECT_EQ(std::vector<int16_t>(untouched, untouched + 2), std::vector<int16_t>({1234, -1234}));
}

// ---- output stage ----

// WAV and raw inputs of the same samples give the same 80 bytes per whole frame, the core's
// codes two to a byte, the earlier in the low nibble; a trailing partial frame is dropped.
TEST(AdpcmFile, TheCoresCodesPackedForEveryWholeFrameFromWavOrRaw) {
    const std::pair<int, int> sizes[] = {{0, 0}, {0, 100}, {1, 0}, {1, 100}, {7, 0}, {60, 318}};
    for (const auto& [frames, extra] : sizes) {
        Lcg r{uint32_t(frames * 7 + extra)};
        Samples s(size_t(frames * 160 + extra / 2));
        for (auto& v : s) v = static_cast<int16_t>(r.next() / 4);
        const std::string body = pcm_bytes(s);
        const std::string from_wav = encode_bytes(wav_header(uint32_t(body.size()), 1, 8000) + body);
        EXPECT_EQ(encode_bytes(body), from_wav);
        AdpcmState st;
        adpcm_init(st);
        std::string packed;
        Samples reconstructed;
        for (size_t i = 0; i + 1 < size_t(frames) * 160; i += 2) {
            const int lo = adpcm_encode_sample(st, s[i]);
            reconstructed.push_back(st.sr1);
            packed.push_back(static_cast<char>(lo | adpcm_encode_sample(st, s[i + 1]) << 4));
            reconstructed.push_back(st.sr1);
        }
        EXPECT_EQ(from_wav, packed) << frames << " frames and " << extra << " bytes";
        // Expanded (60 frames are more than one of the expander's reads), each sample is the one
        // the coder reconstructed.
        TempDir dir;
        write_file(dir.file("codes"), packed);
        ASSERT_EQ(adpcm_expand_file(dir.file("codes").c_str(), dir.file("codes.wav").c_str()), "");
        EXPECT_TRUE(read_file(dir.file("codes.wav")) == wav_bytes(reconstructed, 1, 8000)) << frames;
    }
}

TEST(AdpcmFile, OddHeadersAndTinyInputs) {
    const std::string two_frames = pcm_bytes(sine(320, 500.0, 8000, 9000.0));
    const auto with_size = [&](uint32_t size) { return wav_header(size, 1, 8000) + two_frames; };
    // A data size of 0 encodes nothing, whatever follows.
    EXPECT_EQ(encode_bytes(with_size(0)).size(), 0u);
    // A data size beyond the end of the file encodes the samples that are there.
    EXPECT_EQ(encode_bytes(with_size(0xFFFFFFFFu)), encode_bytes(two_frames));
    EXPECT_EQ(encode_bytes(with_size(321)).size(), 80u);
    EXPECT_EQ(encode_bytes(with_size(0x10000 + 320)), encode_bytes(two_frames));  // every byte counts
    // A header cut short, a file of three bytes, an empty file: an empty output.
    EXPECT_EQ(encode_bytes(with_size(640).substr(0, 42)).size(), 0u);
    EXPECT_EQ(encode_bytes("RIF").size(), 0u);
    EXPECT_EQ(encode_bytes("").size(), 0u);
}

// Reports after frames 1, 4, 7, ... of the file's length in samples, WAV or raw.
TEST(AdpcmFile, ProgressAfterFramesOneFourSeven) {
    const struct {
        size_t file_bytes;
        bool riff;
        std::vector<int32_t> values;
    } cases[] = {{44 + 2240, true, {82, 91, 99}},
                 {1280, false, {85, 100}},
                 // 80 + 20 x 0.02 / 0.2 in single-precision p and T is 81.99999994.
                 {3200, false, {81, 87, 94, 100}},
                 {44 + 300, true, {}}};
    for (const auto& c : cases) {
        const std::string samples =
            pcm_bytes(sine((c.riff ? c.file_bytes - 44 : c.file_bytes) / 2, 300.0, 8000, 5000.0));
        g_calls.clear();
        encode_bytes(c.riff ? wav_header(uint32_t(samples.size()), 1, 8000) + samples : samples,
                     1.0f, record_call, 4242);
        std::vector<int32_t> values;
        for (const auto& call : g_calls) {
            EXPECT_EQ(call, (std::array<int32_t, 5>{4242, 0, 100, call[3], 1}));
            values.push_back(call[3]);
        }
        EXPECT_EQ(values, c.values) << c.file_bytes << " bytes";
    }
}

using AdpcmFileDeathTest = testing::Test;

TEST_F(AdpcmFileDeathTest, UnopenableFilesEndTheProcessWithStatusOne) {
    TempDir dir;
    write_file(dir.file("in.wav"), wav_bytes(sine(320, 500.0, 8000, 1000.0), 1, 8000));
    InDir here(dir.path());
    EXPECT_EXIT(adpcm_encode_file("missing.wav", "out", 1.0f, nullptr, 0),
                testing::ExitedWithCode(1), "");
    EXPECT_FALSE(std::filesystem::exists(dir.file("out"))) << "output made for a missing input";
    EXPECT_EXIT(adpcm_encode_file("in.wav", "no/such/dir/out", 1.0f, nullptr, 0),
                testing::ExitedWithCode(1), "");
    // The data copy cannot be created when a directory has its name.
    ASSERT_EQ(mkdir("ZUTMP.TM1", 0755), 0);
    EXPECT_EXIT(adpcm_encode_file("in.wav", "out", 1.0f, nullptr, 0), testing::ExitedWithCode(1),
                "");
    rmdir("ZUTMP.TM1");
}
