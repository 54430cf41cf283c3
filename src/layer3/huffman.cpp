// Part 3 of a channel's granule data: the Huffman-coded spectrum. Big values in up to three
// regions of pairs, then count1 quadruples until part2_3_length is used up; the cursor ends
// exactly at the end of the channel's data, and the bits are charged to the reservoir.
#include <algorithm>
#include <cstdio>

#include "layer3/layer3_stages.h"
#include "layer3/layer3_tables.h"

namespace kavolib {

namespace {
inline uint32_t entry_length(uint32_t entry) { return (entry >> 8) & 0x1Fu; }

// True when the entry's code word is the first len bits of the 19-bit string w.
inline bool entry_matches(uint32_t entry, uint32_t w) {
    const uint32_t len = entry_length(entry);
    return len == 0 || (entry >> (32 - len)) == (w >> (19 - len));
}

// bitunp_rj for 1 to 24 bits, inline: these run for every sign bit and escape.
inline uint32_t read_bits(BitReader& reader, int n) {
    const uint32_t value = bitunp_peek(reader, n);
    bitunp_skip(reader, n);
    return value;
}

inline int32_t apply_sign(BitReader& reader, int32_t value) {
    return read_bits(reader, 1) != 0 ? -value : value;
}

// Code words of up to kShortCodeBits bits looked up directly by the first kShortCodeBits bits
// of the stream. In a prefix code the entry that matches is the only one, so this finds the
// entry the search finds; longer code words (kNoShortCode) go through the search.
constexpr int kShortCodeBits = 8;
constexpr uint32_t kNoShortCode = 0xFFFFFFFFu;  // no entry has length 31

struct ShortCodes {
    uint32_t entry[kHuffmanSlots][1 << kShortCodeBits];
};

ShortCodes make_short_codes() {
    ShortCodes table{};
    for (int32_t slot = 0; slot < kHuffmanSlots; ++slot) {
        uint32_t* direct = table.entry[slot];
        for (int i = 0; i < (1 << kShortCodeBits); ++i) direct[i] = kNoShortCode;
        const HuffmanTable& codes = kHuffmanTables[slot];
        for (int32_t e = 0; e < codes.count; ++e) {
            const uint32_t entry = codes.codes[e];
            const uint32_t len = entry_length(entry);
            if (len > kShortCodeBits) continue;
            const uint32_t first = len == 0 ? 0u : (entry >> (32 - len)) << (kShortCodeBits - len);
            const uint32_t count = 1u << (kShortCodeBits - len);
            for (uint32_t i = first; i < first + count; ++i) direct[i] = entry;
        }
    }
    return table;
}

const ShortCodes kShortCodes = make_short_codes();

// Highest line index holding a nonzero value among [0, end), -1 when none.
int32_t highest_nonzero(const double* values, int32_t end) {
    for (int32_t i = end - 1; i >= 0; --i) {
        if (values[i] != 0.0) return i;
    }
    return -1;
}

// Lines beyond 576 or band indices beyond 22 are outside the format: region ends are clamped
// to line 576 and band indices to 22, so such a granule decodes as far as the lines reach.
int32_t clamped_bound(const int32_t* long_bounds, uint32_t band) {
    return long_bounds[std::min<uint32_t>(band, 22u)];
}

// The 64 bits from the cursor, first bit most significant: at least 57 of them are the
// stream's (the bit offset is at most 7), more than one pair or quadruple ever uses (a 19-bit
// code word and two 13-bit escapes with their signs make 47).
inline uint64_t peek64(const BitReader& reader) {
    const uint8_t* bytes = reader.cursor.buffer;
    int32_t index = reader.cursor.byte_index;
    uint64_t acc = 0;
    if (index <= kStreamBufferSize - 8) {
        for (int b = 0; b < 8; ++b) acc = (acc << 8) | bytes[index + b];
    } else {
        for (int b = 0; b < 8; ++b) {
            acc = (acc << 8) | bytes[index];
            index = bitstream_detail::next_index(index);
        }
    }
    return acc << reader.cursor.bit_offset;
}

// The entry of the code word at the top of window (as huffman_lookup finds it).
inline uint32_t window_entry(uint64_t window, int32_t slot) {
    const uint32_t entry = kShortCodes.entry[slot][window >> (64 - kShortCodeBits)];
    if (entry != kNoShortCode) return entry;
    return huffman_entry_search(slot, static_cast<uint32_t>(window >> (64 - 19)));
}

// One value of a pair from the window: the escape bits when the value is 15, then the sign.
inline int32_t window_value(uint64_t& window, int32_t& used, int32_t value, int linbits) {
    if (value == 15 && linbits != 0) {
        value += static_cast<int32_t>(window >> (64 - linbits));
        window <<= linbits;
        used += linbits;
    }
    if (value != 0) {
        if ((window >> 63) != 0) value = -value;
        window <<= 1;
        ++used;
    }
    return value;
}
}  // namespace

// Pairs with the reader's bits taken 64 at a time: the same code words, escapes and signs in
// the same order as huffman_pair, and the cursor moved once per pair.
void huffman_pairs(BitReader& reader, int32_t slot, double* out, int32_t count) {
    const int linbits = kHuffmanTables[slot].linbits;
    for (int32_t p = 0; p < count; ++p) {
        uint64_t window = peek64(reader);
        const uint32_t entry = window_entry(window, slot);
        int32_t used = static_cast<int32_t>(entry_length(entry));
        window <<= used;
        const int32_t x = window_value(window, used, static_cast<int32_t>((entry >> 4) & 15u), linbits);
        const int32_t y = window_value(window, used, static_cast<int32_t>(entry & 15u), linbits);
        bitunp_skip(reader, used);
        out[2 * p] = x;
        out[2 * p + 1] = y;
    }
}

// One quadruple as huffman_quad decodes it, from one 64-bit window.
int32_t huffman_quad_fast(BitReader& reader, int32_t slot, int32_t values[4]) {
    uint64_t window = peek64(reader);
    const uint32_t entry = window_entry(window, slot);
    int32_t used = static_cast<int32_t>(entry_length(entry));
    window <<= used;
    for (int32_t i = 0; i < 4; ++i) {
        int32_t v = static_cast<int32_t>((entry >> (3 - i)) & 1u);
        if (v != 0) {
            if ((window >> 63) != 0) v = -v;
            window <<= 1;
            ++used;
        }
        values[i] = v;
    }
    bitunp_skip(reader, used);
    return used;
}

namespace {
void decode_pairs(BitReader& reader, uint32_t slot, double* out, int32_t begin, int32_t end) {
    huffman_pairs(reader, static_cast<int32_t>(slot), out + begin, (end - begin + 1) / 2);
}

void find_intensity_bound(Layer3State& state, const GranuleInfo& gi) {
    const double* values = state.spectrum;
    const int32_t* lb = state.long_bounds;
    const int32_t* sb = state.short_bounds;
    int32_t* bound = state.intensity_bound;
    if (gi.block_type != 2) {
        const int32_t m = highest_nonzero(values, kGranuleLines);
        int32_t b = 21;
        while (b >= 0 && lb[b] > m) --b;
        bound[0] = b + 1;
        return;
    }
    for (int32_t w = 0; w < 3; ++w) {
        bound[w] = 0;
        for (int32_t b = 12; b >= 0; --b) {
            const int32_t s = sb[b];
            const int32_t n = sb[b + 1] - s;
            const int32_t first = 3 * s + w * n;
            bool nonzero = false;
            for (int32_t i = first; i < first + n; ++i) nonzero = nonzero || values[i] != 0.0;
            if (nonzero) {
                bound[w] = b + 1;
                break;
            }
        }
    }
    if (gi.mixed_block_flag != 0) {
        bound[3] = -1;
        if (std::max({bound[0], bound[1], bound[2]}) > 3) return;
        bound[0] = bound[1] = bound[2] = 3;
        const int32_t m = highest_nonzero(values, 36);
        int32_t count = 0;
        if (m >= 0) {
            while (count < 23 && lb[count] <= m) ++count;
        }
        bound[3] = count;
    }
}
}  // namespace

uint32_t huffman_entry_search(int32_t slot, uint32_t w) {
    const HuffmanTable& table = kHuffmanTables[slot];
    const uint32_t* codes = table.codes;
    const uint32_t k = w >> 15;
    int32_t p = table.h_cue[k];
    if (!entry_matches(codes[p], w)) {
        if (k == 15) {
            std::fputs("WARNING: huffman decode h_cue error!\n", stdout);
        } else {
            const uint32_t key = (w << 13) | 0x1FFFu;
            const int32_t n = table.h_cue[k + 1] - table.h_cue[k];
            p = table.h_cue[k] + n / 2;
            int32_t r = n - n / 2;
            while (r > 1) {
                const int32_t h = r / 2;
                p = codes[p] < key ? p + h : p - h;
                r -= h;
            }
            if (!entry_matches(codes[p], w)) {
                p = codes[p] > key ? p - 1 : p + 1;
                // A complete code list never gets here; stay inside the list if one did.
                p = std::clamp(p, 0, table.count - 1);
                if (!entry_matches(codes[p], w)) {
                    std::fputs("WARNING: huffman decode error!\n", stdout);
                }
            }
        }
    }
    return codes[p];
}

uint32_t huffman_lookup(BitReader& reader, int32_t slot) {
    const uint32_t w = bitunp_peek(reader, 19);
    uint32_t entry = kShortCodes.entry[slot][w >> (19 - kShortCodeBits)];
    if (entry == kNoShortCode) entry = huffman_entry_search(slot, w);
    bitunp_skip(reader, static_cast<int>(entry_length(entry)));
    return entry;
}

void huffman_pair(BitReader& reader, int32_t slot, int32_t& x, int32_t& y) {
    const uint32_t entry = huffman_lookup(reader, slot);
    const int linbits = kHuffmanTables[slot].linbits;
    x = static_cast<int32_t>((entry >> 4) & 15u);
    y = static_cast<int32_t>(entry & 15u);
    if (x == 15 && linbits != 0) x += static_cast<int32_t>(read_bits(reader, linbits));
    if (x != 0) x = apply_sign(reader, x);
    if (y == 15 && linbits != 0) y += static_cast<int32_t>(read_bits(reader, linbits));
    if (y != 0) y = apply_sign(reader, y);
}

int32_t huffman_quad(BitReader& reader, int32_t slot, int32_t values[4]) {
    const uint32_t entry = huffman_lookup(reader, slot);
    int32_t bits = static_cast<int32_t>(entry_length(entry));
    for (int32_t i = 0; i < 4; ++i) {
        int32_t v = static_cast<int32_t>((entry >> (3 - i)) & 1u);
        if (v != 0) {
            v = apply_sign(reader, v);
            ++bits;
        }
        values[i] = v;
    }
    return bits;
}

void huffman_decode(Layer3State& state, BitReader& reader, int32_t granule, int32_t channel) {
    const GranuleInfo& gi = state.side_info.gr[granule][channel];
    const int32_t* lb = state.long_bounds;
    double* out = state.spectrum;

    const int32_t big = 2 * static_cast<int32_t>(std::min<uint32_t>(gi.big_values, 288u));
    int32_t r1 = 0;
    int32_t r2 = 0;
    if (gi.window_switching_flag != 0) {
        r1 = (gi.block_type == 2 && gi.mixed_block_flag == 0) ? 3 * state.short_bounds[3] : lb[8];
        r1 = std::min(r1, big);
        r2 = big;
    } else {
        r1 = clamped_bound(lb, gi.region0_count + 1);
        if (r1 > big) {
            r1 = r2 = big;
        } else {
            r2 = std::min(clamped_bound(lb, gi.region0_count + gi.region1_count + 2), big);
        }
    }
    // All region ends are even line numbers, so the pairs fill exactly [0, big).
    decode_pairs(reader, gi.table_select[0], out, 0, r1);
    if (r1 < r2) decode_pairs(reader, gi.table_select[1], out, r1, r2);
    if (gi.window_switching_flag == 0 && r2 < big) {
        decode_pairs(reader, gi.table_select[2], out, r2, big);
    }
    int32_t i = big;

    const BitPosition& start = state.part2_start;
    const int32_t bytes =
        ((reader.cursor.byte_index - start.byte_index) % kStreamBufferSize + kStreamBufferSize) %
        kStreamBufferSize;
    int32_t used = bytes * 8 - start.bit_offset + reader.cursor.bit_offset;
    const int32_t length = static_cast<int32_t>(gi.part2_3_length);
    const int32_t quad_slot = 32 + static_cast<int32_t>(gi.count1table_select & 1u);
    while (used < length && i < kGranuleLines) {
        int32_t values[4];
        used += huffman_quad_fast(reader, quad_slot, values);
        for (int32_t j = 0; j < 4 && i + j < kGranuleLines; ++j) out[i + j] = values[j];
        i += 4;
    }
    const int32_t d = length - used;
    if (d > 0) {
        bitunp_skip(reader, d);
    } else if (d < 0) {
        bitunp_back(reader, -d);
        // Scale factors alone may overrun part2_3_length before any value is stored: never
        // give up more lines than were written.
        i = std::max(i - 4, 0);
    }
    for (int32_t n = std::min(i, kGranuleLines); n < kGranuleLines; ++n) out[n] = 0.0;
    state.reservoir_bits -= length;

    if (state.is_stereo == 1 && channel == 1) find_intensity_bound(state, gi);
}

}  // namespace kavolib
