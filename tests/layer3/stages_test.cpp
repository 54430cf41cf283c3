// The granule decoder's stages driven one at a time on hand-built bit buffers and states (the
// cases the conformance streams reach rarely or never), and the fatal paths of the decoder.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "layer3/layer3.h"
#include "layer3/layer3_stages.h"
#include "layer3/layer3_state.h"
#include "layer3/layer3_tables.h"

using namespace kavolib;

namespace {

// Writes bits most significant first into a stream buffer from bit `first`, wrapping at its end.
struct BitWriter {
    StreamBuffer stream{};
    int64_t first = 0;
    int64_t bit = first;
    void put(uint32_t value, int n) {
        for (int i = n - 1; i >= 0; --i) {
            const auto index = static_cast<size_t>(bit / 8 % kStreamBufferSize);
            const int shift = 7 - static_cast<int>(bit % 8);
            stream.bytes[index] = static_cast<uint8_t>((stream.bytes[index] & ~(1 << shift)) |
                                                       (((value >> i) & 1u) << shift));
            ++bit;
        }
    }
    void put_code(const char* bits) {
        for (const char* p = bits; *p != 0; ++p) put(*p == '1' ? 1u : 0u, 1);
    }
    BitReader reader() {
        return BitReader{BitPosition{stream.bytes, static_cast<int32_t>(first % 8), static_cast<int32_t>(first / 8)}, 0};
    }
};

int64_t bits_moved(const BitReader& r) { return r.cursor.byte_index * 8 + r.cursor.bit_offset; }

std::unique_ptr<Layer3State> fresh_state(int row = 0, int rate = 0) {
    auto state = std::make_unique<Layer3State>();
    state->pow43 = pow43_table();
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

struct LsfCase {
    uint32_t scalefac_compress;
    int mode_ext;
    uint32_t block_type, mixed;
    std::vector<int> lengths;  // bits of each value in order
};

void PrintTo(const LsfCase& c, std::ostream* os) {
    *os << "scalefac_compress " << c.scalefac_compress << " block " << c.block_type
        << (c.mixed != 0 ? " mixed" : "");
}

class LsfScaleFactors : public testing::TestWithParam<LsfCase> {};

// The right channel's partitions in every block kind, with a different length in each
// partition: ordinary coding (rows 0 to 2 by scalefac_compress, preflag from row 2 on, the
// intensity scale untouched) and intensity coding (rows 3 to 5: c = s / 2, intensity_scale =
// s & 1, no preflag). The conformance streams never reach rows 1 and 2.
TEST_P(LsfScaleFactors, ReadThePartitionsOfTheRow) {
    const LsfCase& c = GetParam();
    auto state = fresh_state(1, 0);
    state->scale_factors.intensity_scale = 7;
    GranuleInfo& g = state->side_info.gr[0][1];
    g.scalefac_compress = c.scalefac_compress;
    g.block_type = c.block_type;
    g.mixed_block_flag = c.mixed;
    g.window_switching_flag = c.block_type != 0 ? 1 : 0;
    g.preflag = 1;
    BitWriter w;
    std::vector<uint32_t> values;
    for (size_t i = 0; i < c.lengths.size(); ++i) {
        const uint32_t v = c.lengths[i] == 0 ? 0u : static_cast<uint32_t>((i * 5 + 1) % (1u << c.lengths[i]));
        values.push_back(v);
        if (c.lengths[i] != 0) w.put(v, c.lengths[i]);
    }
    BitReader r = w.reader();
    read_scale_factors(*state, r, header_of(kVersionMpeg2, 1, c.mode_ext), 0, 1);
    EXPECT_EQ(bits_moved(r), w.bit);
    const bool intensity = (c.mode_ext & 1) != 0;
    EXPECT_EQ(g.preflag, !intensity && c.scalefac_compress >= 500 ? 1u : 0u);
    const ScaleFactors& sf = state->scale_factors;
    EXPECT_EQ(sf.intensity_scale, intensity ? c.scalefac_compress & 1 : 7u);
    if (c.block_type != 2) {
        for (int b = 0; b < 21; ++b) EXPECT_EQ(sf.l[1][b], values[static_cast<size_t>(b)]) << b;
        EXPECT_EQ(sf.l[1][21], 0u);
    } else {
        const int long_count = c.mixed != 0 ? 6 : 0;
        for (int b = 0; b < long_count; ++b) EXPECT_EQ(sf.l[1][b], values[static_cast<size_t>(b)]);
        size_t next = static_cast<size_t>(long_count);
        for (int b = c.mixed != 0 ? 3 : 0; b < 12; ++b) {
            for (int win = 0; win < 3; ++win) EXPECT_EQ(sf.s[1][b][win], values[next++]) << b << "," << win;
        }
        for (int win = 0; win < 3; ++win) EXPECT_EQ(sf.s[1][12][win], 0u);
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
        // row 0 for s < 400: s = 80 l0 + 16 l1 + 4 l2 + l3
        LsfCase{189, 0, 2, 0, repeat({{9, 2}, {9, 1}, {9, 3}, {9, 1}})},
        LsfCase{189, 0, 2, 1, repeat({{6, 2}, {9, 1}, {9, 3}, {9, 1}})},
        // row 1 for s < 500: s - 400 = 20 l0 + 4 l1 + l2
        LsfCase{431, 0, 0, 0, repeat({{6, 1}, {5, 2}, {7, 3}, {3, 0}})},
        LsfCase{450, 0, 2, 0, repeat({{9, 2}, {9, 2}, {12, 2}, {6, 0}})},
        LsfCase{499, 0, 2, 1, repeat({{6, 4}, {9, 4}, {12, 3}, {6, 0}})},
        // row 2 from s = 500: s - 500 = 3 l0 + l1
        LsfCase{500, 0, 0, 0, repeat({{11, 0}, {10, 0}})},
        LsfCase{507, 0, 2, 0, repeat({{18, 2}, {18, 1}})},
        // row 3 for c < 180
        LsfCase{103, 1, 0, 0, repeat({{7, 1}, {7, 2}, {7, 3}})},
        LsfCase{103, 3, 2, 0, repeat({{12, 1}, {12, 2}, {12, 3}})},
        LsfCase{102, 1, 2, 1, repeat({{6, 1}, {15, 2}, {12, 3}})},
        // row 4: c - 180 = 16 l0 + 4 l1 + l2
        LsfCase{438, 1, 0, 0, repeat({{6, 2}, {6, 1}, {6, 3}, {3, 0}})},
        LsfCase{401, 3, 2, 0, repeat({{12, 1}, {9, 1}, {9, 0}, {6, 0}})},
        LsfCase{438, 1, 2, 1, repeat({{6, 2}, {12, 1}, {9, 3}, {6, 0}})},
        // row 5: c - 244 = 3 l0 + l1
        LsfCase{511, 1, 0, 0, repeat({{8, 3}, {8, 2}, {5, 0}})},
        LsfCase{510, 1, 2, 0, repeat({{15, 3}, {12, 2}, {9, 0}})},
        LsfCase{511, 3, 2, 1, repeat({{6, 3}, {18, 2}, {9, 0}})}));

// ---- Huffman decoding ---------------------------------------------------------------------

TEST(Huffman, OutOfFormatCountsStayInsideTheSpectrum) {
    // big_values 511 (clamped to 288 pairs), region counts past band 22, and scale factors
    // that already overran part2_3_length: nothing is written outside the 576 lines.
    auto state = fresh_state();
    GranuleInfo& g = state->side_info.gr[0][0];
    g.big_values = 511;
    g.region0_count = 15;
    g.region1_count = 7;
    g.count1table_select = 1;  // table 0 in every region: no bits, zeros
    BitWriter w;
    w.put(0xFFFF, 16);
    BitReader r = w.reader();
    bitunp_skip(r, 10);  // the "scale factors" used 10 bits
    state->part2_start = w.reader().cursor;
    huffman_decode(*state, r, 0, 0);
    EXPECT_EQ(bits_moved(r), 0);
    for (int i = 0; i < 576; ++i) ASSERT_EQ(state->spectrum[i], 0.0);
}

// Pairs are read for all of big_values even when part2_3_length is long overrun: 288 pairs of
// table 31's longest code word (both values escaped by 13 bits, both negative) in regions of
// 18, 37 and 233 pairs, under a length of 0, from near the buffer's end. Every byte the pairs
// read must be taken across the wrap, whichever region holds them.
TEST(Huffman, PairsOfTheLongestCodeWordsFarPastTheGranulesLength) {
    const HuffmanTable& table = kHuffmanTables[31];
    const auto value_bits = [&](uint32_t v) { return (v == 15 ? static_cast<uint32_t>(table.linbits) : 0u) + (v != 0 ? 1u : 0u); };
    const auto total = [&](uint32_t e) { return ((e >> 8) & 31u) + value_bits((e >> 4) & 15u) + value_bits(e & 15u); };
    uint32_t longest = table.codes[0];
    for (int32_t e = 1; e < table.count; ++e) {
        if (total(table.codes[e]) > total(longest)) longest = table.codes[e];
    }
    const auto length = static_cast<int>((longest >> 8) & 31u);
    BitWriter w{{}, (kStreamBufferSize - 40) * 8 + 3};
    for (int pair = 0; pair < 288; ++pair) {
        w.put(longest >> (32 - length), length);
        for (uint32_t v : {(longest >> 4) & 15u, longest & 15u}) {
            if (v == 15) w.put((1u << table.linbits) - 1, table.linbits);
            if (v != 0) w.put(1, 1);
        }
    }
    auto state = fresh_state();
    GranuleInfo& g = state->side_info.gr[0][0];
    g.big_values = 288;
    g.table_select[0] = g.table_select[1] = g.table_select[2] = 31;
    g.region0_count = 7;  // to line 36 at 44.1 kHz
    g.region1_count = 5;  // to line 110
    BitReader r = w.reader();
    state->part2_start = r.cursor;
    huffman_decode(*state, r, 0, 0);
    const auto line = [&](uint32_t v) { return -static_cast<double>(v == 15 ? v + (1u << table.linbits) - 1 : v); };
    // The overrun gives up the last four lines.
    for (int i = 0; i < 572; i += 2) {
        ASSERT_EQ(state->spectrum[i], line((longest >> 4) & 15u)) << i;
        ASSERT_EQ(state->spectrum[i + 1], line(longest & 15u)) << i;
    }
}

// A mixed block whose only nonzero line is 20 (table 1, pair (1, 0)): the short windows' bounds
// are 3, the mixed long part's is 6.
TEST(Huffman, IntensityBoundOfAMixedBlock) {
    auto state = fresh_state();
    state->is_stereo = 1;
    GranuleInfo& g = state->side_info.gr[0][1];
    g.table_select[0] = g.table_select[1] = g.table_select[2] = 1;
    g.window_switching_flag = 1;
    g.block_type = 2;
    g.mixed_block_flag = 1;
    g.big_values = 11;
    BitWriter w;
    for (int i = 0; i < 20; i += 2) w.put_code("1");  // (0, 0)
    w.put_code("010");                                // (1, 0), positive
    g.part2_3_length = static_cast<uint32_t>(w.bit);
    BitReader r = w.reader();
    state->part2_start = r.cursor;
    huffman_decode(*state, r, 0, 1);
    EXPECT_EQ(std::vector<int>(state->intensity_bound, state->intensity_bound + 4),
              (std::vector<int>{3, 3, 3, 6}));
}

// ---- requantisation, reorder, stereo ---------------------------------------------------------

TEST(Requantise, SignedPowersBeyondTheTableAndLargeGains) {
    auto state = fresh_state();
    EXPECT_EQ(signed_pow43(*state, -8.0), -state->pow43[8]);
    EXPECT_NEAR(signed_pow43(*state, -8.0), -16.0, 1e-14);
    EXPECT_EQ(signed_pow43(*state, 0.0), 0.0);
    EXPECT_EQ(signed_pow43(*state, 8206.0), std::pow(8206.0, 4.0 / 3.0));
    EXPECT_EQ(signed_pow43(*state, -8192.0), -std::pow(8192.0, 4.0 / 3.0));
    // Gains above 1: global_gain over 210.
    EXPECT_EQ(long_band_gain(218, 0, 0, 0, 0), 4.0);
    EXPECT_DOUBLE_EQ(long_band_gain(255, 0, 0, 0, 0), std::pow(2.0, 11.25));
}

// A mixed block at 8 kHz: the long part copied, and the lines past the short bands' layout
// (540 on) set to zero whatever the buffer held.
TEST(Reorder, MixedBlockAtEightKilohertzEndsInZeros) {
    auto state = fresh_state(2, 2);
    GranuleInfo& g = state->side_info.gr[0][0];
    g.block_type = 2;
    g.mixed_block_flag = 1;
    for (int i = 0; i < 576; ++i) state->spectrum[i] = i + 1;
    std::vector<double> dst(576, -1.0);
    reorder(*state, 0, 0, dst.data());
    for (int i = 0; i < 576; ++i) {
        const double v = dst[static_cast<size_t>(i)];
        EXPECT_TRUE(i < 36 ? v == i + 1 : i < 540 ? v > 36 : v == 0.0) << i << ": " << v;
    }
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

TEST(Stereo, Mpeg1PositionsAboveSixAreNotIntensityCoded) {
    StereoFixture f;
    f.state->is_stereo = 1;
    f.state->ms_stereo = 1;
    f.state->intensity_bound[0] = 0;
    for (uint32_t& v : f.state->scale_factors.l[1]) v = 12;
    f.state->scale_factors.l[1][0] = 6;
    f.state->scale_factors.l[1][20] = 0;  // band 20 (lines 342 to 417) and the lines above it
    stereo_process(*f.state, header_of(kVersionMpeg1, 1, 3), 0, f.left, f.right);
    EXPECT_EQ(f.left[0], 1.0);  // position 6: left keeps all
    EXPECT_EQ(f.right[0], 0.0);
    EXPECT_EQ(f.left[100], ((0.5 - 100) + 101.0) * 0.7071067811865476);  // 12: middle/side
    for (int i : {342, 417, 418, 575}) {
        EXPECT_EQ(f.left[i], 0.0) << i;  // position 0: right takes all
        EXPECT_EQ(f.right[i], 1.0 + i) << i;
    }
}

TEST(Stereo, Mpeg2IntensityPositions) {
    const auto intensity = [](StereoFixture& f, std::vector<uint32_t> positions, uint32_t scale) {
        f.state->is_stereo = 1;
        f.state->long_bounds = kLongBandBounds[1][0];  // bands of 6 lines
        f.state->intensity_bound[0] = 0;
        std::copy(positions.begin(), positions.end(), f.state->scale_factors.l[1]);
        f.state->scale_factors.intensity_scale = scale;
        stereo_process(*f.state, header_of(kVersionMpeg2, 1, 1), 0, f.left, f.right);
    };
    StereoFixture f;
    intensity(f, {0, 1, 2, 7}, 0);  // 7 in the fourth band: the marker, untouched
    EXPECT_EQ(f.left[0], 1.0);
    EXPECT_EQ(f.right[0], 1.0);
    EXPECT_EQ(f.left[6], 7.0 * 0.8408964152537146);
    EXPECT_EQ(f.right[6], 7.0);
    EXPECT_EQ(f.left[12], 13.0);
    EXPECT_EQ(f.right[12], 13.0 * 0.8408964152537146);
    EXPECT_EQ(f.right[18], 0.5 - 18);
    // Even position 2, intensity_scale 1: q = 1, the factor 2^(-1/2) on the right channel.
    StereoFixture g;
    intensity(g, {2}, 1);
    EXPECT_EQ(g.right[0], 0.7071067811865476);
    EXPECT_EQ(g.left[0], 1.0);
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

// PCM buffers that are not contiguous, and unknown block types, end the process.
TEST(DecodeGranuleDeathTest, NonContiguousBuffersAndUnknownBlockTypesEndTheProcess) {
    for (int gap : {1, -1}) {
        EXPECT_EXIT(decode_with_buffer_gap(gap), testing::ExitedWithCode(1),
                    "Each PCM buffer must be in contiguous 576 locations");
    }
    double input[18] = {};
    double overlap[9] = {};
    double output[576];
    EXPECT_EXIT(imdct_subband(input, overlap, output, 0, 4, 0), testing::ExitedWithCode(1), "");
    EXPECT_EXIT(imdct_subband(input, overlap, output, 5, 0, 0), testing::ExitedWithCode(1), "");
}

}  // namespace
