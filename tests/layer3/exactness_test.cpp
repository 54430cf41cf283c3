// The decoder's fast paths against their plain forms: every output double must be the same bit
// pattern (compared with memcmp, so that -0.0 against 0.0 counts as a difference), over many
// random inputs, several granules in a row (so that the carried state is exercised) and both
// channels interleaved.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <random>

#include "layer3/layer3_stages.h"
#include "layer3/layer3_tables.h"

using namespace kavolib;

namespace {

bool same_bits(const double* a, const double* b, size_t n) {
    return std::memcmp(a, b, n * sizeof(double)) == 0;
}

// Subband samples of the kinds a decoder meets: silence, a few nonzero lines, full random
// values of ordinary size, and rare very large ones (past full scale).
void random_slots(std::mt19937& rng, double* x, int count, int kind) {
    std::uniform_real_distribution<double> unit(-1.0, 1.0);
    std::uniform_int_distribution<int> pick(0, 15);
    for (int i = 0; i < count; ++i) {
        switch (kind % 4) {
            case 0: x[i] = 0.0; break;
            case 1: x[i] = pick(rng) == 0 ? unit(rng) : 0.0; break;
            case 2: x[i] = unit(rng) * 0.3; break;
            default: x[i] = pick(rng) == 0 ? unit(rng) * 1.0e5 : unit(rng); break;
        }
    }
}

TEST(FastSynthesis, GranulesMatchThePlainSlotByBit) {
    auto state = std::make_unique<Layer3State>();
    std::memset(state->synthesis, 0, sizeof state->synthesis);
    double plain_history[2][512] = {};
    std::mt19937 rng(11);
    for (int granule = 0; granule < 120; ++granule) {
        // A clear of both histories now and then, as after a change of mode.
        if (granule == 70) {
            std::memset(state->synthesis, 0, sizeof state->synthesis);
            std::memset(plain_history, 0, sizeof plain_history);
        }
        for (int channel = 0; channel < 2; ++channel) {
            random_slots(rng, state->spectrum, 576, granule + 3 * channel);
            double plain_out[576];
            for (int t = 0; t < 18; ++t) {
                synthesize_slot(state->spectrum + 32 * t, plain_history[channel], plain_out + 32 * t);
            }
            double fast_out[576];
            synthesize_granule(*state, channel, fast_out);
            ASSERT_TRUE(same_bits(plain_out, fast_out, 576))
                << "granule " << granule << " channel " << channel;
        }
    }
}

// The plain hybrid filterbank: imdct_subband for each subband in turn, over the overlap held
// subband by subband, with the block types of a mixed block's long part as in hybrid_synthesis.
struct PlainHybrid {
    double overlap[32][9] = {};
    PreviousBlock previous{};

    void run(const GranuleInfo& gi, const double* x, double* output) {
        const bool mixed = gi.window_switching_flag != 0 && gi.mixed_block_flag != 0;
        const bool previous_mixed =
            previous.window_switching_flag != 0 && previous.mixed_block_flag != 0;
        for (int s = 0; s < 32; ++s) {
            const uint32_t type = (mixed && s < 2) ? 0u : gi.block_type;
            const uint32_t previous_type = (previous_mixed && s < 2) ? 0u : previous.block_type;
            imdct_subband(x + 18 * s, overlap[s], output + s, type, previous_type, s);
        }
        previous = {gi.block_type, gi.window_switching_flag, gi.mixed_block_flag};
    }
};

// Block kinds as the side information gives them: (window_switching_flag, block_type,
// mixed_block_flag); long, start, short, stop and mixed short.
constexpr uint32_t kBlockKinds[][3] = {{0, 0, 0}, {1, 1, 0}, {1, 2, 0}, {1, 3, 0}, {1, 2, 1}};

TEST(FastHybrid, GranulesMatchThePlainSubbandTransformByBit) {
    auto state = std::make_unique<Layer3State>();
    std::memset(state->overlap, 0, sizeof state->overlap);
    std::memset(state->previous_block, 0, sizeof state->previous_block);
    PlainHybrid plain[2];
    std::mt19937 rng(23);
    std::uniform_int_distribution<int> kind(0, 4);
    // Every pair of block kinds in a row appears many times over 400 granules per channel.
    for (int granule = 0; granule < 400; ++granule) {
        for (int channel = 0; channel < 2; ++channel) {
            const uint32_t* k = kBlockKinds[kind(rng)];
            GranuleInfo& gi = state->side_info.gr[0][channel];
            gi = GranuleInfo{};
            gi.window_switching_flag = k[0];
            gi.block_type = k[1];
            gi.mixed_block_flag = k[2];
            double x[576];
            random_slots(rng, x, 576, granule + channel);
            double plain_out[576];
            plain[channel].run(gi, x, plain_out);
            hybrid_synthesis(*state, 0, channel, x);
            ASSERT_TRUE(same_bits(plain_out, state->spectrum, 576))
                << "granule " << granule << " channel " << channel << " type " << k[1];
        }
    }
}

// The one exhaustive Huffman sweep: for every slot and every 19-bit string, the search through
// h_cue finds an entry whose code word begins the string (so every code list is complete and
// the cues point right), and no warning is printed.
TEST(FastHuffman, EveryNineteenBitStringFindsItsCodeWord) {
    testing::internal::CaptureStdout();
    for (int32_t slot = 0; slot < kHuffmanSlots; ++slot) {
        for (uint32_t w = 0; w < (1u << 19); ++w) {
            const uint32_t entry = huffman_entry_search(slot, w);
            const uint32_t len = (entry >> 8) & 31u;
            if ((len > 0 && (entry >> (32 - len)) != (w >> (19 - len))) || (len == 0 && slot != 0)) {
                FAIL() << "slot " << slot << " string " << w << " entry " << std::hex << entry;
            }
        }
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

// The plain forms the fast reads must equal: one code word at a time found by the search of the
// sorted code list, then escape bits and sign bits in the standard's order.
uint32_t plain_entry(BitReader& reader, int32_t slot) {
    const uint32_t entry = huffman_entry_search(slot, bitunp_peek(reader, 19));
    bitunp_skip(reader, static_cast<int>((entry >> 8) & 31u));
    return entry;
}

int32_t plain_value(BitReader& reader, int32_t value, int linbits) {
    if (value == 15 && linbits != 0) value += static_cast<int32_t>(bitunp_rj(reader, linbits));
    return value != 0 && bitunp_rj(reader, 1) != 0 ? -value : value;
}

void plain_pair(BitReader& reader, int32_t slot, int32_t& x, int32_t& y) {
    const uint32_t entry = plain_entry(reader, slot);
    x = plain_value(reader, static_cast<int32_t>((entry >> 4) & 15u), kHuffmanTables[slot].linbits);
    y = plain_value(reader, static_cast<int32_t>(entry & 15u), kHuffmanTables[slot].linbits);
}

int32_t plain_quad(BitReader& reader, int32_t slot, int32_t values[4]) {
    const uint32_t entry = plain_entry(reader, slot);
    int32_t bits = static_cast<int32_t>((entry >> 8) & 31u);
    for (int32_t i = 0; i < 4; ++i) {
        values[i] = plain_value(reader, static_cast<int32_t>((entry >> (3 - i)) & 1u), 0);
        bits += values[i] != 0 ? 1 : 0;
    }
    return bits;
}

// Pairs and quadruples read 64 bits at a time against the plain forms: random
// streams (escapes and long code words included) decoded from every bit offset and from near
// the buffer's end, so that the window wraps; values and cursor after every step must agree.
TEST(FastHuffman, PairsAndQuadruplesMatchTheOneCodeWordForm) {
    StreamBuffer stream{};
    std::mt19937 rng(77);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<int32_t> start(0, kStreamBufferSize - 1);
    for (int round = 0; round < 200; ++round) {
        for (uint8_t& b : stream.bytes) b = static_cast<uint8_t>(byte(rng));
        const int32_t first = round % 4 == 0 ? kStreamBufferSize - 1 - round % 9 : start(rng);
        for (int32_t slot = 0; slot < kHuffmanSlots; ++slot) {
            BitReader plain{{stream.bytes, round % 8, first}, 0};
            BitReader fast = plain;
            const bool quads = slot >= 32;
            for (int step = 0; step < 40; ++step) {
                if (quads) {
                    int32_t expected[4];
                    int32_t got[4];
                    const int32_t bits = plain_quad(plain, slot, expected);
                    ASSERT_EQ(huffman_quad_fast(fast, slot, got), bits);
                    ASSERT_EQ(0, std::memcmp(expected, got, sizeof got)) << slot;
                } else {
                    int32_t x = 0;
                    int32_t y = 0;
                    plain_pair(plain, slot, x, y);
                    double got[2];
                    huffman_pairs(fast, slot, got, 1);
                    ASSERT_EQ(got[0], x) << "slot " << slot << " step " << step;
                    ASSERT_EQ(got[1], y) << "slot " << slot << " step " << step;
                }
                ASSERT_EQ(std::pair(fast.cursor.byte_index, fast.cursor.bit_offset),
                          std::pair(plain.cursor.byte_index, plain.cursor.bit_offset));
            }
            if (!quads) {
                // Many pairs in one call end where as many single pairs end.
                BitReader single{{stream.bytes, 3, first}, 0};
                BitReader many = single;
                double values[64];
                double expected[64];
                huffman_pairs(many, slot, values, 32);
                for (int p = 0; p < 32; ++p) {
                    int32_t x = 0;
                    int32_t y = 0;
                    plain_pair(single, slot, x, y);
                    expected[2 * p] = x;
                    expected[2 * p + 1] = y;
                }
                ASSERT_TRUE(same_bits(values, expected, 64)) << slot;
                ASSERT_EQ(std::pair(many.cursor.byte_index, many.cursor.bit_offset),
                          std::pair(single.cursor.byte_index, single.cursor.bit_offset));
            }
        }
    }
}

// Requantisation against every line scaled as the plain form does it, over every row of band
// bounds: long blocks leave the zero tail alone (-0.0 and a nonzero last line among the
// inputs); short blocks scale each window of each band by its own gain (bands of 4 to 56
// lines: runs of four and the lines after them); magnitudes beyond the table in both.
TEST(FastRequantise, LongAndShortBlocksMatchEveryLineScaledByBit) {
    auto state = std::make_unique<Layer3State>();
    state->pow43 = pow43_table();
    std::mt19937 rng(31);
    std::uniform_int_distribution<int> escape(-8206, 8206), line(0, 576), gain(0, 255), factor(0, 15);
    for (int round = 0; round < 390; ++round) {
        const bool short_blocks = round >= 300;
        const int row = round % 3;
        const int rate = (round / 3) % 3;
        state->long_bounds = kLongBandBounds[row][rate];
        state->short_bounds = kShortBandBounds[row][rate];
        GranuleInfo& gi = state->side_info.gr[0][0];
        gi = GranuleInfo{};
        gi.block_type = short_blocks ? 2 : 0;
        gi.window_switching_flag = short_blocks ? 1 : 0;
        gi.global_gain = static_cast<uint32_t>(gain(rng));
        gi.scalefac_scale = static_cast<uint32_t>(round & 1);
        gi.preflag = static_cast<uint32_t>(short_blocks ? 0 : (round >> 1) & 1);
        for (uint32_t& g : gi.subblock_gain) g = static_cast<uint32_t>(factor(rng) & 7);
        for (uint32_t& l : state->scale_factors.l[0]) l = static_cast<uint32_t>(factor(rng));
        state->scale_factors.l[0][21] = 0;
        for (auto& band : state->scale_factors.s[0]) {
            for (uint32_t& f : band) f = static_cast<uint32_t>(factor(rng) & 7);
        }
        const int end = short_blocks || round == 0 ? 576 : line(rng);
        std::uniform_int_distribution<int> magnitude(short_blocks ? -40 : -20, short_blocks ? 40 : 20);
        for (int i = 0; i < 576; ++i) {
            const int v = (i % (short_blocks ? 41 : 97) == 7) ? escape(rng) : magnitude(rng);
            state->spectrum[i] = i < end ? v : 0.0;
        }
        if (round % 5 == 1 && !short_blocks) state->spectrum[575] = -0.0;
        if (round % 7 == 2 && end > 0) state->spectrum[end - 1] = 3.0;

        double plain[576] = {};
        const int32_t* lb = state->long_bounds;
        const int32_t* sb = state->short_bounds;
        int p = 0;
        for (int b = 0; b < (short_blocks ? 13 : 22); ++b) {
            for (int w = 0; w < (short_blocks ? 3 : 1); ++w) {
                const double g =
                    short_blocks ? short_band_gain(gi.global_gain, gi.subblock_gain[w],
                                                   gi.scalefac_scale, state->scale_factors.s[0][b][w])
                                 : long_band_gain(gi.global_gain, gi.scalefac_scale,
                                                  state->scale_factors.l[0][b], b, gi.preflag);
                const int n = short_blocks ? sb[b + 1] - sb[b] : lb[b + 1] - lb[b];
                for (int i = 0; i < n; ++i, ++p) plain[p] = signed_pow43(*state, state->spectrum[p]) * g;
            }
        }
        requantise(*state, 0, 0);
        ASSERT_TRUE(same_bits(plain, state->spectrum, static_cast<size_t>(p))) << "round " << round;
    }
}

// Alias reduction, four pairs at a time, against each pair's two expressions: all 31
// boundaries for long blocks, the first one for mixed blocks, none for short blocks; values
// with mixed signs and magnitudes, and lines the butterflies do not touch left as they are.
TEST(FastAntialias, BoundariesMatchEachPairByBit) {
    auto state = std::make_unique<Layer3State>();
    std::mt19937 rng(43);
    std::uniform_real_distribution<double> unit(-1.0, 1.0);
    struct Kind {
        uint32_t block_type;
        uint32_t mixed;
        int boundaries;
    };
    for (const Kind kind : {Kind{0, 0, 31}, Kind{1, 0, 31}, Kind{3, 0, 31}, Kind{2, 1, 1},
                            Kind{2, 0, 0}}) {
        for (int round = 0; round < 20; ++round) {
            GranuleInfo& gi = state->side_info.gr[round & 1][1];
            gi = GranuleInfo{};
            gi.block_type = kind.block_type;
            gi.window_switching_flag = kind.block_type != 0 ? 1 : 0;
            gi.mixed_block_flag = kind.mixed;
            double x[576];
            for (int i = 0; i < 576; ++i) x[i] = unit(rng) * (i % 3 == 0 ? 3.0e4 : 1.0);
            double plain[576];
            std::memcpy(plain, x, sizeof x);
            for (int sb = 0; sb < kind.boundaries; ++sb) {
                for (int i = 0; i < 8; ++i) {
                    const double a = plain[18 * sb + 17 - i];
                    const double b = plain[18 * sb + 18 + i];
                    plain[18 * sb + 17 - i] = a * cs[i] - b * ca[i];
                    plain[18 * sb + 18 + i] = b * cs[i] + a * ca[i];
                }
            }
            antialias(*state, round & 1, 1, x);
            ASSERT_TRUE(same_bits(plain, x, 576))
                << "block type " << kind.block_type << " mixed " << kind.mixed;
        }
    }
}

// Middle/side alone takes a loop of its own; with intensity on but its bound above every band
// the general loop treats every line as middle/side. Both must give the same bits.
TEST(FastStereo, MiddleSideAloneMatchesTheGeneralLoop) {
    std::mt19937 rng(41);
    for (int id : {1, 0}) {
        auto fast = std::make_unique<Layer3State>();
        auto general = std::make_unique<Layer3State>();
        for (Layer3State* st : {fast.get(), general.get()}) {
            st->long_bounds = kLongBandBounds[id == 1 ? 0 : 1][0];
            st->short_bounds = kShortBandBounds[id == 1 ? 0 : 1][0];
            st->side_info.gr[0][1] = GranuleInfo{};
            st->ms_stereo = 1;
        }
        fast->is_stereo = 0;
        general->is_stereo = 1;
        general->intensity_bound[0] = 22;
        FrameHeader header{};
        header.id = id;
        header.mode = 1;
        double fast_lr[2][576];
        random_slots(rng, fast_lr[0], 576, 3);
        random_slots(rng, fast_lr[1], 576, 2);
        fast_lr[0][7] = -0.0;
        fast_lr[1][9] = -0.0;
        double general_lr[2][576];
        std::memcpy(general_lr, fast_lr, sizeof fast_lr);
        stereo_process(*fast, header, 0, fast_lr[0], fast_lr[1]);
        stereo_process(*general, header, 0, general_lr[0], general_lr[1]);
        EXPECT_TRUE(same_bits(fast_lr[0], general_lr[0], 576)) << "id " << id;
        EXPECT_TRUE(same_bits(fast_lr[1], general_lr[1], 576)) << "id " << id;
    }
}

}  // namespace
