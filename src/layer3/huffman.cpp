// Part 3 of a channel's granule data: the Huffman-coded spectrum. Big values in up to three
// regions of pairs, then count1 quadruples until part2_3_length is used up; the cursor ends
// exactly at the end of the channel's data, and the bits are charged to the reservoir.
#include <algorithm>
#include <bit>
#include <cstring>
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

// The pair decoder's view of a short code word: the two values, the code word's length and
// the bits the whole pair takes (code word, escapes of values 15 in a table with linbits, and a
// sign bit per nonzero value), so that the next pair's position is known from one lookup.
struct PairCode {
    uint8_t x;
    uint8_t y;
    uint8_t length;
    uint8_t total;
};

PairCode pair_code(uint32_t entry, int linbits) {
    PairCode code{};
    code.x = static_cast<uint8_t>((entry >> 4) & 15u);
    code.y = static_cast<uint8_t>(entry & 15u);
    code.length = static_cast<uint8_t>(entry_length(entry));
    int total = code.length + (code.x != 0) + (code.y != 0);
    if (linbits != 0) total += linbits * ((code.x == 15) + (code.y == 15));
    code.total = static_cast<uint8_t>(total);
    return code;
}

// The quadruple decoder's view: the code word's length, the nonzero values (bit i for value i)
// and the bits the quadruple takes with its signs.
struct QuadCode {
    uint8_t length;
    uint8_t nonzero;
    uint8_t total;
};

struct FastCodes {
    PairCode pair[kHuffmanSlots][1 << kShortCodeBits];
    bool pair_short[kHuffmanSlots][1 << kShortCodeBits];
    QuadCode quad[2][1 << kShortCodeBits];
    // The four values of a quadruple as bytes (value i in byte i) for each set of nonzero
    // values and the four bits after the code word (its signs, first value first).
    uint32_t quad_values[16][16];
    int32_t most_pair_bits[kHuffmanSlots];
};

FastCodes make_fast_codes() {
    FastCodes fast{};
    for (int32_t slot = 0; slot < kHuffmanSlots; ++slot) {
        const int linbits = kHuffmanTables[slot].linbits;
        for (int i = 0; i < (1 << kShortCodeBits); ++i) {
            const uint32_t entry = kShortCodes.entry[slot][i];
            fast.pair_short[slot][i] = entry != kNoShortCode;
            if (entry != kNoShortCode) fast.pair[slot][i] = pair_code(entry, linbits);
        }
        int32_t most = 0;
        const HuffmanTable& codes = kHuffmanTables[slot];
        for (int32_t e = 0; e < codes.count; ++e) {
            most = std::max<int32_t>(most, pair_code(codes.codes[e], linbits).total);
        }
        // Every lookup ends at an entry of the table, even for a stream that matches none.
        fast.most_pair_bits[slot] = most;
    }
    for (int32_t t = 0; t < 2; ++t) {
        for (int i = 0; i < (1 << kShortCodeBits); ++i) {
            const uint32_t entry = kShortCodes.entry[32 + t][i];
            if (entry == kNoShortCode) continue;  // never: both tables have short code words
            QuadCode& code = fast.quad[t][i];
            code.length = static_cast<uint8_t>(entry_length(entry));
            code.nonzero = 0;
            for (int v = 0; v < 4; ++v) {
                if (((entry >> (3 - v)) & 1u) != 0) code.nonzero |= static_cast<uint8_t>(1 << v);
            }
            code.total = static_cast<uint8_t>(code.length + std::popcount(code.nonzero));
        }
    }
    for (uint32_t nonzero = 0; nonzero < 16; ++nonzero) {
        for (uint32_t signs = 0; signs < 16; ++signs) {
            uint32_t packed = 0;
            int next = 3;
            for (int v = 0; v < 4; ++v) {
                if (((nonzero >> v) & 1u) == 0) continue;
                const uint8_t value = ((signs >> next--) & 1u) != 0 ? 0xFFu : 0x01u;
                packed |= uint32_t{value} << (8 * v);
            }
            fast.quad_values[nonzero][signs] = packed;
        }
    }
    return fast;
}

const FastCodes kFast = make_fast_codes();

// The stream from a byte on as one run of bytes. Every bit the decoder may read from there is
// in the first count bytes; when they wrap around the circular buffer's end they are copied
// in order into scratch (count at most kStreamBufferSize + 8).
const uint8_t* linear_bytes(const BitReader& reader, int32_t count, uint8_t* scratch) {
    const uint8_t* bytes = reader.cursor.buffer;
    int32_t index = reader.cursor.byte_index;
    if (index + count <= kStreamBufferSize) return bytes + index;
    int32_t done = 0;
    while (done < count) {
        const int32_t run = std::min(count - done, kStreamBufferSize - index);
        std::memcpy(scratch + done, bytes + index, static_cast<size_t>(run));
        done += run;
        index = 0;
    }
    return scratch;
}

// The 64 bits from a bit position in a run of bytes, first bit most significant: at least 57
// of them are the stream's.
inline uint64_t window_at(const uint8_t* bytes, int32_t position) {
    uint64_t word = 0;
    std::memcpy(&word, bytes + (position >> 3), sizeof word);
    if constexpr (std::endian::native == std::endian::little) word = __builtin_bswap64(word);
    return word << (position & 7);
}

// A bit position in a run of bytes.
struct LinearBits {
    const uint8_t* bytes;
    int32_t position;

    uint64_t window() const { return window_at(bytes, position); }
};

// The pair's values: each value of 15 takes its escape bits when the table has them, each
// nonzero value its sign bit, in the standard's order (no branch on the data).
template <bool kEscapes>
__attribute__((always_inline)) inline int32_t pair_value(uint64_t& window, int32_t value,
                                                         int linbits) {
    if (kEscapes) {
        const bool escape = value == 15;
        const auto extra = static_cast<int32_t>(window >> (64 - linbits));
        value += escape ? extra : 0;
        window = escape ? window << linbits : window;
    }
    const int32_t nonzero = value != 0;
    const int32_t negative = nonzero & static_cast<int32_t>(window >> 63);
    window <<= nonzero;
    return (value ^ -negative) + negative;
}

// kPerWindow pairs decoded from one 64-bit window: the caller makes sure that the bits of all
// of them, and the 19 bits a search of the last one looks at, are among the window's 57.
template <bool kEscapes, int kPerWindow>
void pairs_linear(LinearBits& bits, int32_t slot, double* out, int32_t count) {
    const int linbits = kHuffmanTables[slot].linbits;
    const PairCode* codes = kFast.pair[slot];
    const bool* short_code = kFast.pair_short[slot];
    const uint8_t* bytes = bits.bytes;
    int32_t position = bits.position;
    int32_t p = 0;
    const auto one_pair = [&](uint64_t& window) {
        const auto top = static_cast<uint32_t>(window >> (64 - kShortCodeBits));
        PairCode code = codes[top];
        if (!short_code[top]) {
            code = pair_code(huffman_entry_search(slot, static_cast<uint32_t>(window >> (64 - 19))),
                             linbits);
        }
        position += code.total;
        uint64_t rest = window << code.length;
        window <<= code.total;
        const int32_t x = pair_value<kEscapes>(rest, code.x, linbits);
        const int32_t y = pair_value<kEscapes>(rest, code.y, linbits);
        out[2 * p] = x;
        out[2 * p + 1] = y;
        ++p;
    };
    while (p + kPerWindow <= count) {
        uint64_t window = window_at(bytes, position);
#pragma GCC unroll 4
        for (int k = 0; k < kPerWindow; ++k) one_pair(window);
    }
    while (p < count) {
        uint64_t window = window_at(bytes, position);
        one_pair(window);
    }
    bits.position = position;
}

void decode_pairs_linear(LinearBits& bits, int32_t slot, double* out, int32_t count) {
    const int32_t most = kFast.most_pair_bits[slot];
    if (kHuffmanTables[slot].linbits != 0) {
        if (2 * most <= 57 && most + 19 <= 57) {
            pairs_linear<true, 2>(bits, slot, out, count);
        } else {
            pairs_linear<true, 1>(bits, slot, out, count);
        }
    } else if (3 * most <= 57 && 2 * most + 19 <= 57) {
        pairs_linear<false, 3>(bits, slot, out, count);
    } else {
        pairs_linear<false, 2>(bits, slot, out, count);  // most is at most 21 here
    }
}

// One quadruple of table 32 + t from the top of window (at least 10 bits of it the stream's);
// its four values as bytes (value i in byte i). Returns the bits taken.
inline int32_t quad_from(uint64_t window, int32_t t, uint32_t& values) {
    const QuadCode code = kFast.quad[t][window >> (64 - kShortCodeBits)];
    const auto signs = static_cast<uint32_t>((window << code.length) >> 60);
    values = kFast.quad_values[code.nonzero][signs];
    return code.total;
}

inline int32_t quad_byte(uint32_t values, int i) {
    return static_cast<int8_t>(static_cast<uint8_t>(values >> (8 * i)));
}

// Bytes that count pairs of the slot may read from a bit offset of at most 7, window included.
int32_t pair_bytes(int32_t slot, int32_t count) {
    return (7 + count * kFast.most_pair_bits[slot] + 64 + 7) / 8;
}
}  // namespace

// Pairs decoded from a linear run of the stream, each pair's bits found by one lookup: the same
// code words, escapes and signs in the same order as decoding one code word at a time.
void huffman_pairs(BitReader& reader, int32_t slot, double* out, int32_t count) {
    uint8_t scratch[kStreamBufferSize + 8];
    LinearBits bits{linear_bytes(reader, std::min(pair_bytes(slot, count), kStreamBufferSize + 8),
                                 scratch),
                    reader.cursor.bit_offset};
    decode_pairs_linear(bits, slot, out, count);
    bitunp_skip(reader, bits.position - reader.cursor.bit_offset);
}

// One quadruple: its code word, then a sign bit for each nonzero value.
int32_t huffman_quad_fast(BitReader& reader, int32_t slot, int32_t values[4]) {
    uint8_t scratch[16];
    LinearBits bits{linear_bytes(reader, 16, scratch), reader.cursor.bit_offset};
    uint32_t packed = 0;
    const int32_t used = quad_from(bits.window(), slot - 32, packed);
    for (int i = 0; i < 4; ++i) values[i] = quad_byte(packed, i);
    bitunp_skip(reader, used);
    return used;
}

namespace {
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
    const BitPosition& start = state.part2_start;
    const int32_t bytes =
        ((reader.cursor.byte_index - start.byte_index) % kStreamBufferSize + kStreamBufferSize) %
        kStreamBufferSize;
    int32_t used = bytes * 8 - start.bit_offset + reader.cursor.bit_offset;
    const int32_t length = static_cast<int32_t>(gi.part2_3_length);

    // Every bit this channel's values may read, as one run of bytes: the pairs take at most
    // their tables' longest pair each, the quadruples end within 10 bits of part2_3_length.
    const uint32_t slot0 = gi.table_select[0];
    const uint32_t slot1 = gi.table_select[1];
    const uint32_t slot2 = gi.window_switching_flag == 0 ? gi.table_select[2] : 0u;
    const int32_t pair_bits = (r1 / 2) * kFast.most_pair_bits[slot0] +
                              ((r2 - r1) / 2) * kFast.most_pair_bits[slot1] +
                              ((big - r2) / 2) * kFast.most_pair_bits[slot2];
    const int32_t reach = 7 + std::max(pair_bits, std::max(length - used, 0) + 10) + 64;
    uint8_t scratch[kStreamBufferSize + 8];
    LinearBits bits{
        linear_bytes(reader, std::min((reach + 7) / 8, kStreamBufferSize + 8), scratch),
        reader.cursor.bit_offset};

    // All region ends are even line numbers, so the pairs fill exactly [0, big).
    decode_pairs_linear(bits, static_cast<int32_t>(slot0), out, r1 / 2);
    if (r1 < r2) decode_pairs_linear(bits, static_cast<int32_t>(slot1), out + r1, (r2 - r1) / 2);
    if (gi.window_switching_flag == 0 && r2 < big) {
        decode_pairs_linear(bits, static_cast<int32_t>(slot2), out + r2, (big - r2) / 2);
    }
    int32_t i = big;
    used += bits.position - reader.cursor.bit_offset;

    // Quadruples take at most 10 bits each: five from each 64-bit window.
    const int32_t quad_table = static_cast<int32_t>(gi.count1table_select & 1u);
    while (used < length && i < kGranuleLines) {
        uint64_t window = bits.window();
        for (int32_t k = 0; k < 5 && used < length && i < kGranuleLines; ++k) {
            uint32_t values = 0;
            const int32_t taken = quad_from(window, quad_table, values);
            window <<= taken;
            bits.position += taken;
            used += taken;
            if (i + 4 <= kGranuleLines) {
                for (int32_t j = 0; j < 4; ++j) out[i + j] = quad_byte(values, j);
            } else {
                for (int32_t j = 0; i + j < kGranuleLines; ++j) out[i + j] = quad_byte(values, j);
            }
            i += 4;
        }
    }
    bitunp_skip(reader, bits.position - reader.cursor.bit_offset);
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
