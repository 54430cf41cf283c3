// The circular stream buffer that holds the input bytes of the current frame and of the
// frames before it (the Layer III bit reservoir), the bit reader over it, and the CRC-16 of
// the frame's protected bits. Every byte index wraps modulo kStreamBufferSize.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace kavolib {

inline constexpr int kStreamBufferSize = 1920;

struct StreamBuffer {
    uint8_t bytes[kStreamBufferSize];
};

// A position in the stream buffer: bit_offset bits (0..7, from the most significant bit) of
// the byte at byte_index have been consumed.
struct BitPosition {
    uint8_t* buffer;
    int32_t bit_offset;
    int32_t byte_index;
};

// The reader's state: its cursor and the CRC register (a 16-bit value in a 32-bit word).
struct BitReader {
    BitPosition cursor;
    uint32_t crc;
};

// The module-level reader used by the header decode and the granule decoder.
extern BitReader g_bit_reader;

namespace bitstream_detail {
constexpr std::array<uint32_t, 32> make_masks() {
    std::array<uint32_t, 32> masks{};
    for (uint32_t n = 0; n < 32; ++n) masks[n] = (uint32_t{1} << n) - 1u;
    return masks;
}

constexpr std::array<uint32_t, 256> make_crc_table() {
    std::array<uint32_t, 256> table{};
    for (uint32_t byte = 0; byte < 256; ++byte) {
        uint32_t reg = byte << 8;
        for (int bit = 0; bit < 8; ++bit) {
            reg = (reg & 0x8000u) != 0 ? ((reg << 1) ^ 0x8005u) : (reg << 1);
        }
        table[byte] = reg & 0xFFFFu;
    }
    return table;
}

inline int32_t next_index(int32_t index) { return index == kStreamBufferSize - 1 ? 0 : index + 1; }
}  // namespace bitstream_detail

// mask[n] = 2^n - 1.
inline constexpr std::array<uint32_t, 32> kBitMask = bitstream_detail::make_masks();
// Entry i: the byte i shifted, most significant bit first, through a zero register with the
// generator x^16 + x^15 + x^2 + 1.
inline constexpr std::array<uint32_t, 256> kCrcTable = bitstream_detail::make_crc_table();

// The next n bits (0..24), first bit most significant, without moving the cursor. These run
// for every code word of every granule, so they are inline: the four bytes from the cursor
// (bit offset 7 plus 24 bits fit in them) are read at once, wrapping only at the buffer's end.
inline uint32_t bitunp_peek(const BitReader& reader, int n) {
    const uint8_t* bytes = reader.cursor.buffer;
    const int32_t index = reader.cursor.byte_index;
    uint32_t acc = 0;
    if (index <= kStreamBufferSize - 4) {
        acc = (uint32_t{bytes[index]} << 24) | (uint32_t{bytes[index + 1]} << 16) |
              (uint32_t{bytes[index + 2]} << 8) | uint32_t{bytes[index + 3]};
    } else {
        int32_t i = index;
        for (int b = 0; b < 4; ++b) {
            acc = (acc << 8) | bytes[i];
            i = bitstream_detail::next_index(i);
        }
    }
    if (n == 0) return 0;
    return (acc << reader.cursor.bit_offset) >> (32 - n);
}

uint32_t bitunp_rj(BitReader& reader, int n);

inline void bitunp_skip(BitReader& reader, int n) {
    int32_t offset = reader.cursor.bit_offset + n;
    if (offset >= 8) {
        int32_t index = reader.cursor.byte_index + offset / 8;
        if (index >= kStreamBufferSize) index %= kStreamBufferSize;
        reader.cursor.byte_index = index;
        offset %= 8;
    }
    reader.cursor.bit_offset = offset;
}

inline void bitunp_back(BitReader& reader, int n) {
    int32_t offset = reader.cursor.bit_offset - n;
    if (offset < 0) {
        const int32_t k = (7 - offset) / 8;
        reader.cursor.byte_index =
            ((reader.cursor.byte_index - k) % kStreamBufferSize + kStreamBufferSize) %
            kStreamBufferSize;
        offset += 8 * k;
    }
    reader.cursor.bit_offset = offset;
}

// Continues the CRC register over count whole bytes from the given position (the cursor does
// not move). A position that is not byte-aligned is fatal.
void crc_calc_byte(BitReader& reader, const uint8_t* buffer, int32_t byte_index,
                   int32_t bit_offset, int32_t count);

}  // namespace kavolib
