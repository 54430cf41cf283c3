// The granule decoder's stages driven one at a time on hand-built bit buffers and states, and
// decode_granule's error paths and concealment on real frames.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "frame_walker.h"
#include "layer3/layer3.h"
#include "layer3/layer3_stages.h"
#include "layer3/layer3_state.h"
#include "layer3/layer3_tables.h"

using namespace kavolib;

namespace {

// Writes bits most significant first into a stream buffer from a given byte index.
struct BitWriter {
    StreamBuffer stream{};
    int32_t start;
    int64_t bit = 0;
    explicit BitWriter(int32_t first_byte = 0) : start(first_byte) {}
    void put(uint32_t value, int n) {
        for (int i = n - 1; i >= 0; --i) {
            const auto index = static_cast<size_t>((start + bit / 8) % kStreamBufferSize);
            const int shift = 7 - static_cast<int>(bit % 8);
            stream.bytes[index] = static_cast<uint8_t>((stream.bytes[index] & ~(1 << shift)) |
                                                       (((value >> i) & 1u) << shift));
            ++bit;
        }
    }
    void put_code(const char* bits) {
        for (const char* p = bits; *p != 0; ++p) put(*p == '1' ? 1u : 0u, 1);
    }
    BitReader reader() { return BitReader{BitPosition{stream.bytes, 0, start}, 0}; }
};

int64_t bits_moved(const BitReader& r, int32_t start) {
    return ((r.cursor.byte_index - start + kStreamBufferSize) % kStreamBufferSize) * 8 + r.cursor.bit_offset;
}

std::unique_ptr<Layer3State> fresh_state(int row = 0, int rate = 0) {
    auto state = std::make_unique<Layer3State>();
    for (int i = 0; i < kPow43Size; ++i) state->pow43[i] = std::pow(i, 4.0 / 3.0);
    state->long_bounds = kLongBandBounds[row][rate];
    state->short_bounds = kShortBandBounds[row][rate];
    return state;
}

FrameHeader header_of(int version, int mode, int mode_ext) {
    FrameHeader h{};
    h.version = version;
    h.id = version == kVersionMpeg1 ? 1 : 0;
    h.mode = mode;
    h.mode_ext = mode_ext;
    h.channels = mode == 3 ? 1 : 2;
    return h;
}

// ---- scale factors ------------------------------------------------------------------------

TEST(ScaleFactors, Mpeg1SecondGranuleReusesGroupsFlaggedByScfsi) {
    auto state = fresh_state();
    const FrameHeader h = header_of(kVersionMpeg1, 3, 0);
    GranuleInfo& g0 = state->side_info.gr[0][0];
    GranuleInfo& g1 = state->side_info.gr[1][0];
    g0.scalefac_compress = g1.scalefac_compress = 15;  // slen1 4, slen2 3
    uint32_t scfsi[4] = {1, 0, 1, 0};
    std::memcpy(state->side_info.scfsi[0], scfsi, sizeof scfsi);
    BitWriter w;
    for (int b = 0; b < 21; ++b) w.put(static_cast<uint32_t>(b % 8), b < 11 ? 4 : 3);  // granule 0: all read
    for (int b = 6; b < 11; ++b) w.put(9, 4);                                    // granule 1 group 1
    for (int b = 16; b < 21; ++b) w.put(5, 3);                                   // granule 1 group 3
    BitReader r = w.reader();
    read_scale_factors(*state, r, h, 0, 0);
    EXPECT_EQ(bits_moved(r, 0), 6 * 4 + 5 * 4 + 10 * 3);
    read_scale_factors(*state, r, h, 1, 0);
    EXPECT_EQ(bits_moved(r, 0), w.bit);
    for (int b = 0; b < 21; ++b) {
        const uint32_t expected = (b >= 6 && b < 11) ? 9u : (b >= 16 ? 5u : static_cast<uint32_t>(b % 8));
        EXPECT_EQ(state->scale_factors.l[0][b], expected) << b;
    }
    EXPECT_EQ(state->scale_factors.l[0][21], 0u);
}

TEST(ScaleFactors, Mpeg1MixedBlockWithZeroSecondLength) {
    auto state = fresh_state();
    GranuleInfo& g = state->side_info.gr[0][0];
    g.scalefac_compress = 4;  // slen1 3, slen2 0
    g.block_type = 2;
    g.mixed_block_flag = 1;
    g.window_switching_flag = 1;
    for (auto& band : state->scale_factors.s[0]) for (uint32_t& v : band) v = 99;
    BitWriter w;
    for (int i = 0; i < 17; ++i) w.put(static_cast<uint32_t>(i % 8), 3);
    BitReader r = w.reader();
    read_scale_factors(*state, r, header_of(kVersionMpeg1, 3, 0), 0, 0);
    EXPECT_EQ(bits_moved(r, 0), 51);
    for (int b = 0; b < 8; ++b) EXPECT_EQ(state->scale_factors.l[0][b], static_cast<uint32_t>(b));
    for (int b = 3; b < 6; ++b) {
        for (int win = 0; win < 3; ++win) {
            EXPECT_EQ(state->scale_factors.s[0][b][win], static_cast<uint32_t>((8 + 3 * (b - 3) + win) % 8));
        }
    }
    for (int b = 6; b < 13; ++b) {
        for (int win = 0; win < 3; ++win) EXPECT_EQ(state->scale_factors.s[0][b][win], 0u);
    }
}

struct LsfCase {
    uint32_t scalefac_compress;
    int channel;
    int mode_ext;
    uint32_t block_type, mixed;
    std::vector<int> lengths;  // bits of each value in order
    uint32_t preflag;
    uint32_t intensity_scale;  // expected (starts at 7)
};

void PrintTo(const LsfCase& c, std::ostream* os) {
    *os << "scalefac_compress " << c.scalefac_compress << " channel " << c.channel << " block "
        << c.block_type << (c.mixed != 0 ? " mixed" : "");
}

class LsfScaleFactors : public testing::TestWithParam<LsfCase> {};

TEST_P(LsfScaleFactors, ReadThePartitionsOfTheRow) {
    const LsfCase& c = GetParam();
    auto state = fresh_state(1, 0);
    state->scale_factors.intensity_scale = 7;
    GranuleInfo& g = state->side_info.gr[0][c.channel];
    g.scalefac_compress = c.scalefac_compress;
    g.block_type = c.block_type;
    g.mixed_block_flag = c.mixed;
    g.window_switching_flag = c.block_type != 0 ? 1 : 0;
    BitWriter w;
    std::vector<uint32_t> values;
    for (size_t i = 0; i < c.lengths.size(); ++i) {
        const uint32_t v = c.lengths[i] == 0 ? 0u : static_cast<uint32_t>((i * 5 + 1) % (1u << c.lengths[i]));
        values.push_back(v);
        if (c.lengths[i] != 0) w.put(v, c.lengths[i]);
    }
    BitReader r = w.reader();
    read_scale_factors(*state, r, header_of(kVersionMpeg2, 1, c.mode_ext), 0, c.channel);
    EXPECT_EQ(bits_moved(r, 0), w.bit);
    EXPECT_EQ(g.preflag, c.preflag);
    EXPECT_EQ(state->scale_factors.intensity_scale, c.intensity_scale);
    const ScaleFactors& sf = state->scale_factors;
    const int ch = c.channel;
    if (c.block_type != 2) {
        for (int b = 0; b < 21; ++b) EXPECT_EQ(sf.l[ch][b], values[static_cast<size_t>(b)]) << b;
        EXPECT_EQ(sf.l[ch][21], 0u);
    } else {
        const int long_count = c.mixed != 0 ? 6 : 0;
        for (int b = 0; b < long_count; ++b) EXPECT_EQ(sf.l[ch][b], values[static_cast<size_t>(b)]);
        size_t next = static_cast<size_t>(long_count);
        for (int b = c.mixed != 0 ? 3 : 0; b < 12; ++b) {
            for (int win = 0; win < 3; ++win) EXPECT_EQ(sf.s[ch][b][win], values[next++]) << b << "," << win;
        }
        for (int win = 0; win < 3; ++win) EXPECT_EQ(sf.s[ch][12][win], 0u);
    }
}

std::vector<int> repeat(std::initializer_list<std::pair<int, int>> runs) {
    std::vector<int> out;
    for (auto [count, bits] : runs) out.insert(out.end(), static_cast<size_t>(count), bits);
    return out;
}

INSTANTIATE_TEST_SUITE_P(
    Rows, LsfScaleFactors,
    testing::Values(
        // 511, long, not intensity-coded: lengths 3 2, row 2 (11 and 10 values), preflag 1
        LsfCase{511, 0, 0, 0, 0, repeat({{11, 3}, {10, 2}}), 1, 7},
        // right channel with mode_ext 1: intensity_scale 1, c = 255, lengths 3 2, row 5
        LsfCase{511, 1, 1, 0, 0, repeat({{8, 3}, {8, 2}, {5, 0}}), 0, 1},
        // left channel with mode_ext 3: ordinary coding, intensity_scale untouched
        LsfCase{100, 0, 3, 0, 0, repeat({{6, 1}, {5, 1}, {5, 1}, {5, 0}}), 0, 7},
        // s = 100: lengths (1, 1, 1, 0); mixed block row 0: 6 long then 27 short values
        LsfCase{100, 0, 0, 2, 1, repeat({{6, 1}, {9, 1}, {9, 1}, {9, 0}}), 0, 7},
        // s = 450, short: x = 50, lengths (2, 2, 2, 0), row 1
        LsfCase{450, 0, 0, 2, 0, repeat({{9, 2}, {9, 2}, {12, 2}, {6, 0}}), 0, 7},
        // right channel, c = 200 (s = 401): x = 20, lengths (1, 1, 0, 0), row 4 short
        LsfCase{401, 1, 3, 2, 0, repeat({{12, 1}, {9, 1}, {9, 0}, {6, 0}}), 0, 1}));

// ---- Huffman decoding ---------------------------------------------------------------------

TEST(Huffman, EscapesAndSignsFollowInStreamOrder) {
    // Slot 24 (table 24, linbits 4): (15, 15) is code 111111111 ... find it in the list.
    const HuffmanTable& t = kHuffmanTables[24];
    uint32_t code = 0;
    for (int i = 0; i < t.count; ++i) {
        if ((t.codes[i] & 0xFFu) == 0xFFu) code = t.codes[i];
    }
    const int len = static_cast<int>((code >> 8) & 31u);
    BitWriter w;
    w.put(code >> (32 - len), len);
    w.put(3, 4);  // x extension
    w.put(1, 1);  // x negative
    w.put(9, 4);  // y extension
    w.put(0, 1);  // y positive
    BitReader r = w.reader();
    int32_t x = 0;
    int32_t y = 0;
    huffman_pair(r, 24, x, y);
    EXPECT_EQ(x, -18);
    EXPECT_EQ(y, 24);
    EXPECT_EQ(bits_moved(r, 0), len + 10);
}

TEST(Huffman, CountOneTableBValueIsFifteenMinusTheCode) {
    for (uint32_t c = 0; c < 16; ++c) {
        BitWriter w;
        w.put(c, 4);
        w.put(0, 4);  // all signs positive
        BitReader r = w.reader();
        int32_t v[4];
        const int32_t bits = huffman_quad(r, 33, v);
        const uint32_t value = 15 - c;
        EXPECT_EQ(v[0] * 8 + v[1] * 4 + v[2] * 2 + v[3], static_cast<int32_t>(value));
        EXPECT_EQ(bits, 4 + __builtin_popcount(value));
    }
}

// One long granule: big values from table 1, then count1 quadruples from table B.
struct HuffmanGranule {
    std::unique_ptr<Layer3State> state = fresh_state();
    BitWriter w;
    GranuleInfo& g() { return state->side_info.gr[0][0]; }
    HuffmanGranule() {
        GranuleInfo& gi = g();
        gi.table_select[0] = gi.table_select[1] = gi.table_select[2] = 1;
        gi.region0_count = 2;
        gi.region1_count = 2;
        gi.count1table_select = 1;
    }
    void run(BitReader& r) {
        state->part2_start = r.cursor;
        huffman_decode(*state, r, 0, 0);
    }
};

TEST(Huffman, CountOneOverrunGivesUpTheLastQuadrupleAndMovesBack) {
    HuffmanGranule t;
    t.g().big_values = 2;       // pairs (1,1) (1,0): table 1 codes 000 and 01
    t.w.put_code("000");  // (1, 1): x negative, y positive
    t.w.put_code("1");
    t.w.put_code("0");
    t.w.put_code("01");
    t.w.put_code("1");          // (1,0) with x negative
    t.w.put_code("1110");       // table B quad 0001: y = 1
    t.w.put_code("0");
    t.w.put_code("1100");       // 0011: the last one, which overruns by 3 bits
    t.w.put_code("00");
    t.g().part2_3_length = static_cast<uint32_t>(t.w.bit - 3);
    t.state->reservoir_bits = 1000;
    BitReader r = t.w.reader();
    t.run(r);
    EXPECT_EQ(bits_moved(r, 0), t.w.bit - 3);
    const double expected[8] = {-1, 1, -1, 0, 0, 0, 0, 1};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(t.state->spectrum[i], expected[i]) << i;
    for (int i = 8; i < 576; ++i) ASSERT_EQ(t.state->spectrum[i], 0.0) << i;
    EXPECT_EQ(t.state->reservoir_bits, 1000 - static_cast<int32_t>(t.g().part2_3_length));
}

TEST(Huffman, StuffingBitsAreSkipped) {
    // 288 pairs of table 0 fill all 576 lines from no bits; the count1 region is not entered
    // and the cursor skips the whole part2_3_length.
    HuffmanGranule t;
    t.g().big_values = 288;
    t.g().table_select[0] = t.g().table_select[1] = t.g().table_select[2] = 0;
    t.g().part2_3_length = 50;
    for (double& v : t.state->spectrum) v = 3.0;
    BitReader r = t.w.reader();
    r.cursor.bit_offset = 5;
    t.run(r);
    EXPECT_EQ(bits_moved(r, 0), 55);
    for (int i = 0; i < 576; ++i) ASSERT_EQ(t.state->spectrum[i], 0.0);
}

TEST(Huffman, OutOfFormatCountsStayInsideTheSpectrum) {
    // big_values 511 (clamped to 288 pairs), region counts past band 22, and scale factors
    // that already overran part2_3_length: nothing is written outside the 576 lines.
    HuffmanGranule t;
    t.g().big_values = 511;
    t.g().region0_count = 15;
    t.g().region1_count = 7;
    t.g().table_select[0] = t.g().table_select[1] = t.g().table_select[2] = 0;  // no bits, zeros
    t.g().part2_3_length = 0;
    t.w.put(0xFFFF, 16);
    BitReader r = t.w.reader();
    bitunp_skip(r, 10);  // the "scale factors" used 10 bits
    t.state->part2_start = t.w.reader().cursor;
    huffman_decode(*t.state, r, 0, 0);
    EXPECT_EQ(bits_moved(r, 0), 0);
    for (int i = 0; i < 576; ++i) ASSERT_EQ(t.state->spectrum[i], 0.0);
}

TEST(Huffman, IntensityBoundOfLongAndMixedBlocks) {
    auto state = fresh_state();
    state->is_stereo = 1;
    GranuleInfo& g = state->side_info.gr[0][1];
    g.table_select[0] = g.table_select[1] = g.table_select[2] = 0;
    g.region0_count = 15;
    g.region1_count = 7;
    // Table 0 decodes nothing, so the spectrum is what count1 writes: use table A's "1" = 0000.
    struct Case {
        int nonzero_line;
        int bound;
    };
    for (Case c : {Case{417, 21}, Case{418, 22}, Case{-1, 0}}) {
        BitWriter w;
        const int big = c.nonzero_line < 0 ? 0 : (c.nonzero_line / 2) * 2 + 2;
        g.big_values = static_cast<uint32_t>(big / 2);
        g.table_select[0] = g.table_select[1] = g.table_select[2] = 1;
        for (int i = 0; i < big; i += 2) {
            if (i + 1 == c.nonzero_line) {
                w.put_code("001");  // (0, 1)
                w.put(0, 1);
            } else if (i == c.nonzero_line) {
                w.put_code("01");  // (1, 0)
                w.put(0, 1);
            } else {
                w.put_code("1");  // (0, 0)
            }
        }
        g.part2_3_length = static_cast<uint32_t>(w.bit);
        BitReader r = w.reader();
        state->part2_start = r.cursor;
        huffman_decode(*state, r, 0, 1);
        EXPECT_EQ(state->intensity_bound[0], c.bound) << c.nonzero_line;
    }
    // Mixed block, nonzero line 20 only: window bounds 3, mixed long bound 6.
    BitWriter w;
    g.window_switching_flag = 1;
    g.block_type = 2;
    g.mixed_block_flag = 1;
    g.big_values = 11;
    for (int i = 0; i < 22; i += 2) {
        if (i == 20) {
            w.put_code("01");
            w.put(0, 1);
        } else {
            w.put_code("1");
        }
    }
    g.part2_3_length = static_cast<uint32_t>(w.bit);
    BitReader r = w.reader();
    state->part2_start = r.cursor;
    huffman_decode(*state, r, 0, 1);
    EXPECT_EQ(state->intensity_bound[0], 3);
    EXPECT_EQ(state->intensity_bound[1], 3);
    EXPECT_EQ(state->intensity_bound[2], 3);
    EXPECT_EQ(state->intensity_bound[3], 6);
}

// ---- requantisation, reorder, stereo ---------------------------------------------------------

TEST(Requantise, GainsAreQuarterPowersOfTwo) {
    EXPECT_EQ(long_band_gain(210, 0, 0, 0, 0), 1.0);
    EXPECT_EQ(long_band_gain(211, 0, 0, 0, 0), 1.189207115002721);
    EXPECT_EQ(long_band_gain(209, 0, 0, 0, 0), 0.8408964152537145);
    EXPECT_EQ(long_band_gain(214, 0, 0, 0, 0), 2.0);
    EXPECT_EQ(long_band_gain(255, 0, 0, 0, 0), std::ldexp(QuarterPowerUp[1], 11));
    EXPECT_EQ(short_band_gain(83, 0, 0, 0), 0.5946035575013605 / 2147483648.0);  // e = -127
    EXPECT_EQ(short_band_gain(82, 0, 0, 0), 0.0);                                // e = -128
    EXPECT_EQ(long_band_gain(210, 1, 1, 0, 0), 0.5);                              // e - 4
    EXPECT_EQ(long_band_gain(210, 0, 1, 0, 0), std::sqrt(0.5));                   // e - 2
    EXPECT_EQ(long_band_gain(210, 0, 0, 17, 1), 0.5 * QuarterPowerDown[2]);       // pretab 3
    EXPECT_EQ(long_band_gain(210, 1, 0, 17, 1), 0.125);
    EXPECT_EQ(long_band_gain(210, 0, 0, 10, 1), 1.0);
    EXPECT_EQ(short_band_gain(210, 1, 0, 0), 0.25);
    EXPECT_EQ(short_band_gain(210, 7, 0, 0), std::ldexp(1.0, -14));
}

TEST(Requantise, SignedPowersAndMagnitudesBeyondTheTable) {
    auto state = fresh_state();
    EXPECT_EQ(signed_pow43(*state, -8.0), -state->pow43[8]);
    EXPECT_NEAR(signed_pow43(*state, -8.0), -16.0, 1e-14);
    EXPECT_EQ(signed_pow43(*state, 0.0), 0.0);
    EXPECT_EQ(signed_pow43(*state, 8206.0), std::pow(8206.0, 4.0 / 3.0));
    EXPECT_EQ(signed_pow43(*state, -8192.0), -std::pow(8192.0, 4.0 / 3.0));
}

TEST(Requantise, MixedBlockFollowsLongThenShortBands) {
    auto state = fresh_state();
    GranuleInfo& g = state->side_info.gr[0][0];
    g.global_gain = 210;
    g.block_type = 2;
    g.mixed_block_flag = 1;
    g.subblock_gain[2] = 1;
    for (int b = 0; b < 8; ++b) state->scale_factors.l[0][b] = static_cast<uint32_t>(b);
    for (double& v : state->spectrum) v = 1.0;
    requantise(*state, 0, 0);
    for (int i = 0; i < 36; ++i) {
        int b = 0;
        while (kLongBandBounds[0][0][b + 1] <= i) ++b;
        EXPECT_EQ(state->spectrum[i], long_band_gain(210, 0, static_cast<uint32_t>(b), b, 0)) << i;
    }
    // Band 3 window 2 (positions 36 + 8 .. 36 + 11) carries the subblock gain.
    EXPECT_EQ(state->spectrum[36], 1.0);
    EXPECT_EQ(state->spectrum[44], 0.25);
}

TEST(Reorder, ShortBlockGoesFromWindowOrderToLineOrder) {
    auto state = fresh_state();
    GranuleInfo& g = state->side_info.gr[0][0];
    g.block_type = 2;
    for (int i = 0; i < 576; ++i) state->spectrum[i] = i;
    double dst[576];
    reorder(*state, 0, 0, dst);
    const double expected[12] = {0, 4, 8, 1, 5, 9, 2, 6, 10, 3, 7, 11};
    for (int i = 0; i < 12; ++i) EXPECT_EQ(dst[i], expected[i]);
    // Every source value lands exactly once.
    std::vector<int> seen(576, 0);
    for (double v : dst) ++seen[static_cast<size_t>(v)];
    for (int n : seen) EXPECT_EQ(n, 1);
}

TEST(Reorder, EightKilohertzMixedBlockLeavesTheTailZero) {
    auto state = fresh_state(2, 2);
    GranuleInfo& g = state->side_info.gr[0][0];
    g.block_type = 2;
    g.mixed_block_flag = 1;
    for (int i = 0; i < 576; ++i) state->spectrum[i] = i + 1;
    double dst[576];
    reorder(*state, 0, 0, dst);
    for (int i = 540; i < 576; ++i) EXPECT_EQ(dst[i], 0.0);
    for (int i = 0; i < 36; ++i) EXPECT_EQ(dst[i], i + 1);
}

struct StereoFixture {
    std::unique_ptr<Layer3State> state = fresh_state();
    double left[576];
    double right[576];
    StereoFixture() {
        for (int i = 0; i < 576; ++i) {
            left[i] = 1.0 + i;
            right[i] = 0.5 - i;
        }
    }
};

TEST(Stereo, MiddleSideOnEveryLine) {
    StereoFixture f;
    f.state->ms_stereo = 1;
    stereo_process(*f.state, header_of(kVersionMpeg1, 1, 2), 0, f.left, f.right);
    for (int i = 0; i < 576; ++i) {
        const double l = 1.0 + i;
        const double r = 0.5 - i;
        ASSERT_EQ(f.left[i], (r + l) * 0.7071067811865476);
        ASSERT_EQ(f.right[i], (l - r) * 0.7071067811865476);
    }
}

TEST(Stereo, Mpeg1IntensityLongBlock) {
    StereoFixture f;
    f.state->is_stereo = 1;
    f.state->intensity_bound[0] = 19;  // bands 19, 20 and 21 are intensity-coded
    f.state->scale_factors.l[1][19] = 0;
    f.state->scale_factors.l[1][20] = 3;
    f.state->scale_factors.l[1][18] = 6;
    stereo_process(*f.state, header_of(kVersionMpeg1, 1, 1), 0, f.left, f.right);
    EXPECT_EQ(f.left[287], 288.0);  // band 18: untouched
    EXPECT_EQ(f.left[288], 0.0);    // band 19, position 0: all to the right
    EXPECT_EQ(f.right[288], 289.0);
    EXPECT_EQ(f.left[400], 401.0 * 0.5);  // band 20, position 3
    EXPECT_EQ(f.right[400], 401.0 - 401.0 * 0.5);
    EXPECT_EQ(f.left[575], 576.0 * 0.5);  // band 21 continues band 20
}

TEST(Stereo, Mpeg1PositionsAboveSixAreNotIntensityCoded) {
    StereoFixture f;
    f.state->is_stereo = 1;
    f.state->ms_stereo = 1;
    f.state->intensity_bound[0] = 0;
    for (uint32_t& v : f.state->scale_factors.l[1]) v = 12;
    f.state->scale_factors.l[1][0] = 6;
    stereo_process(*f.state, header_of(kVersionMpeg1, 1, 3), 0, f.left, f.right);
    EXPECT_EQ(f.left[0], 1.0);  // position 6: left keeps all
    EXPECT_EQ(f.right[0], 0.0);
    EXPECT_EQ(f.left[100], ((0.5 - 100) + 101.0) * 0.7071067811865476);  // 12: middle/side
}

TEST(Stereo, Mpeg2IntensityPositions) {
    StereoFixture f;
    f.state->is_stereo = 1;
    f.state->long_bounds = kLongBandBounds[1][0];
    f.state->intensity_bound[0] = 0;
    f.state->scale_factors.l[1][0] = 0;  // lines 0..5
    f.state->scale_factors.l[1][1] = 1;  // lines 6..11
    f.state->scale_factors.l[1][2] = 2;  // lines 12..17
    f.state->scale_factors.l[1][3] = 7;  // lines 18..23: the marker, untouched
    f.state->scale_factors.intensity_scale = 0;
    stereo_process(*f.state, header_of(kVersionMpeg2, 1, 1), 0, f.left, f.right);
    EXPECT_EQ(f.left[0], 1.0);
    EXPECT_EQ(f.right[0], 1.0);
    EXPECT_EQ(f.left[6], 7.0 * 0.8408964152537146);
    EXPECT_EQ(f.right[6], 7.0);
    EXPECT_EQ(f.left[12], 13.0);
    EXPECT_EQ(f.right[12], 13.0 * 0.8408964152537146);
    EXPECT_EQ(f.right[18], 0.5 - 18);
    f = StereoFixture{};
    f.state->is_stereo = 1;
    f.state->long_bounds = kLongBandBounds[1][0];
    f.state->intensity_bound[0] = 0;
    f.state->scale_factors.l[1][0] = 2;
    f.state->scale_factors.intensity_scale = 1;
    stereo_process(*f.state, header_of(kVersionMpeg2, 1, 1), 0, f.left, f.right);
    // Even position 2, intensity_scale 1: q = 1, the factor 2^(-1/2) on the right channel.
    EXPECT_EQ(f.right[0], 0.7071067811865476);
    EXPECT_EQ(f.left[0], 1.0);
}

// ---- reservoir ---------------------------------------------------------------------------------

TEST(Reservoir, MovesMainDataBeginBytesAcrossTheBufferEnd) {
    auto state = fresh_state();
    BitWriter w;
    for (int i = 0; i < kStreamBufferSize; ++i) w.stream.bytes[i] = static_cast<uint8_t>(i * 7);
    FrameHeader h = header_of(kVersionMpeg1, 3, 0);
    h.frame_length = 104;
    // Frame header at bytes 2..5, side info 6..22, main data from 23; reservoir bytes before 2.
    state->frame_start_index = 6;
    state->frame_prefix_length = 21;
    state->side_info.main_data_begin = 10;
    state->reservoir_bits = 80;
    const uint8_t b1912 = w.stream.bytes[1912];
    const uint8_t b1 = w.stream.bytes[1];
    BitReader r = w.reader();
    r.cursor.byte_index = 23;
    EXPECT_EQ(setup_main_data(*state, r, h), 0);
    EXPECT_EQ(r.cursor.byte_index, 13);
    EXPECT_EQ(r.cursor.bit_offset, 0);
    EXPECT_EQ(w.stream.bytes[22], b1);     // last reservoir byte just before the main data
    EXPECT_EQ(w.stream.bytes[13], b1912);  // the first, taken from before the wrap
    EXPECT_EQ(state->reservoir_bits, (104 - 21 + 10) * 8);
}

TEST(Reservoir, ShortfallReportsAndKeepsTheFrameBits) {
    auto state = fresh_state();
    BitWriter w;
    FrameHeader h = header_of(kVersionMpeg1, 3, 0);
    h.frame_length = 104;
    state->frame_start_index = 100;
    state->frame_prefix_length = 21;
    state->side_info.main_data_begin = 10;
    state->reservoir_bits = 0;
    BitReader r = w.reader();
    r.cursor.byte_index = 117;
    EXPECT_EQ(setup_main_data(*state, r, h), 1);
    EXPECT_EQ(r.cursor.byte_index, 117);  // nothing moved
    EXPECT_EQ(state->reservoir_bits, (104 - 21) * 8);
    // With 20 bits available, 3 bytes move and the cursor stands at the first of them.
    state->reservoir_bits = 20;
    for (int i = 0; i < 200; ++i) w.stream.bytes[i] = static_cast<uint8_t>(i);
    EXPECT_EQ(setup_main_data(*state, r, h), 1);
    EXPECT_EQ(r.cursor.byte_index, 114);
    EXPECT_EQ(w.stream.bytes[114], 93);
    EXPECT_EQ(w.stream.bytes[116], 95);
    EXPECT_EQ(state->reservoir_bits, 20 + (104 - 21) * 8);
}

// ---- decode_granule on real frames ------------------------------------------------------------

std::vector<uint8_t> conformance(const char* name) {
    return layer3test::load(std::string(KAVO_SHARED_DIR) + "/conformance/" + name);
}

// Frame 5 of the stream gets a corrupted side-information byte, so its CRC fails.
void corrupt_frame5(int frame, std::vector<uint8_t>& bytes) {
    if (frame == 5) bytes[20] ^= 0x01;
}

TEST(Concealment, CrcMismatchSilencesOrRepeatsByTheLimit) {
    const auto file = conformance("iso11172-4/l3-hecommon.bit");
    layer3test::WalkOptions keep;
    keep.keep_failed = true;
    const auto clean = layer3test::walk_file(file, keep);
    const size_t granule = 1152;  // stereo samples per granule
    for (int limit : {0, 1, 2}) {
        layer3test::WalkOptions options = keep;
        options.conceal_limit = limit;
        options.mutate = corrupt_frame5;
        const auto hit = layer3test::walk_file(file, options);
        ASSERT_EQ(hit.samples.size(), clean.samples.size());
        EXPECT_EQ(hit.crc_granules, 2);
        const auto at = [&](const auto& r, size_t g, size_t i) { return r.samples[g * granule + i]; };
        for (size_t i = 0; i < granule; ++i) {
            // Granule 0 of frame 5 is granule 10 of the stream.
            const int16_t g10 = at(hit, 10, i);
            const int16_t g11 = at(hit, 11, i);
            ASSERT_EQ(g10, limit >= 1 ? at(clean, 9, i) : 0) << limit;
            ASSERT_EQ(g11, limit >= 2 ? at(clean, 9, i) : 0) << limit;
        }
        // From granule 1 of the next frame on, the overlap and history are refreshed.
        for (size_t i = 13 * granule; i < clean.samples.size(); ++i) {
            ASSERT_EQ(hit.samples[i], clean.samples[i]) << i;
        }
    }
}

TEST(Concealment, ShortfallAtTheStartGivesNoDecodedGranules) {
    // The 1 kHz vector's first two frames reach back before the stream.
    const auto r = layer3test::walk_file(conformance("iso11172-4/l3-sin1k0db.bit"));
    EXPECT_EQ(r.short_granules, 4);
    EXPECT_GT(r.decoded_granules, 600);
}

void decode_with_buffer_gap(int extra_values) {
    alignas(8) static double storage[2 * 576 + 8];
    double* buffers[2] = {storage, storage + 576 + extra_values};
    static StreamBuffer stream{};
    GranuleJob job{};
    job.buffer = stream.bytes;
    job.pcm_buffers = buffers;
    FrameHeader h = header_of(kVersionMpeg1, 3, 0);
    h.frame_length = 104;
    BitReader reader{};
    layer3_reset(layer3_state());
    decode_granule(layer3_state(), reader, h, 0, job);
}

TEST(DecodeGranuleDeathTest, BuffersMustBeContiguous) {
    EXPECT_EXIT(decode_with_buffer_gap(1), testing::ExitedWithCode(1),
                "Each PCM buffer must be in contiguous 576 locations");
    EXPECT_EXIT(decode_with_buffer_gap(-1), testing::ExitedWithCode(1),
                "Each PCM buffer must be in contiguous 576 locations");
}

TEST(ImdctDeathTest, UnknownBlockTypesEndTheProcess) {
    double input[18] = {};
    double overlap[9] = {};
    double output[576];
    EXPECT_EXIT(imdct_subband(input, overlap, output, 0, 4, 0), testing::ExitedWithCode(1), "");
    EXPECT_EXIT(imdct_subband(input, overlap, output, 5, 0, 0), testing::ExitedWithCode(1), "");
}

}  // namespace
