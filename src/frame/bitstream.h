// The circular stream buffer that holds the input bytes of the current frame and of the
// frames before it (the Layer III bit reservoir), the bit reader over it, and the CRC-16 of
// the frame's protected bits. Every byte index wraps modulo kStreamBufferSize.
#pragma once

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

// The next n bits (0..24), first bit most significant; advances the cursor by n.
uint32_t bitunp_rj(BitReader& reader, int n);
// The same value as bitunp_rj(n) without moving the cursor.
uint32_t bitunp_peek(const BitReader& reader, int n);
void bitunp_skip(BitReader& reader, int n);
void bitunp_back(BitReader& reader, int n);
// Continues the CRC register over count whole bytes from the given position (the cursor does
// not move). A position that is not byte-aligned is fatal.
void crc_calc_byte(BitReader& reader, const uint8_t* buffer, int32_t byte_index,
                   int32_t bit_offset, int32_t count);

}  // namespace kavolib
