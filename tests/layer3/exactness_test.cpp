// The decoder's fast paths against their plain forms: every output double must be the same bit
// pattern (compared with memcmp, so that -0.0 against 0.0 counts as a difference), over many
// random inputs, several granules in a row (so that the carried state is exercised) and both
// channels interleaved.
#include <gtest/gtest.h>

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

// The direct table for short code words against the search through h_cue, for every slot and
// every 19-bit string; the strings straddle the end of the circular buffer at every bit offset,
// so the reader's wrap is crossed as well.
TEST(FastHuffman, LookupFindsTheEntryTheSearchFinds) {
    StreamBuffer stream{};
    BitReader reader{};
    for (int32_t slot = 0; slot < kHuffmanSlots; ++slot) {
        for (uint32_t w = 0; w < (1u << 19); ++w) {
            const int offset = static_cast<int>(w % 8);
            const int32_t start = 1917 + static_cast<int32_t>((w >> 3) % 3);  // 1917..1919
            const uint64_t bits = static_cast<uint64_t>(w) << (45 - offset);
            for (int b = 0; b < 4; ++b) {
                stream.bytes[(start + b) % kStreamBufferSize] =
                    static_cast<uint8_t>(bits >> (56 - 8 * b));
            }
            reader.cursor = BitPosition{stream.bytes, offset, start};
            const uint32_t entry = huffman_lookup(reader, slot);
            const uint32_t expected = huffman_entry_search(slot, w);
            const int32_t len = static_cast<int32_t>((expected >> 8) & 31u);
            const int32_t bit = start * 8 + offset + len;
            if (entry != expected || reader.cursor.byte_index != (bit / 8) % kStreamBufferSize ||
                reader.cursor.bit_offset != bit % 8) {
                FAIL() << "slot " << slot << " string " << w << " entry " << std::hex << entry
                       << " expected " << expected;
            }
        }
    }
}

}  // namespace
