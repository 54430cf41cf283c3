// Bit reading over the circular stream buffer, and the CRC-16 of protected frames (generator
// 0x8005, most significant bit first, no reflection, no final inversion).
#include "frame/bitstream.h"

#include "platform/report_message.h"

namespace kavolib {

BitReader g_bit_reader = {};

uint32_t bitunp_rj(BitReader& reader, int n) {
    if (n == 0) return 0;
    if (n > 24) {
        report_message("upk_subs: bitunp_rj unpack items longer than 24 bits\n", kMessageWarning);
    }
    const uint8_t* bytes = reader.cursor.buffer;
    int32_t index = reader.cursor.byte_index;
    uint32_t acc = bytes[index];
    int s = reader.cursor.bit_offset + n;
    while (s >= 8) {
        index = bitstream_detail::next_index(index);
        acc = (acc << 8) + bytes[index];
        s -= 8;
    }
    reader.cursor.byte_index = index;
    reader.cursor.bit_offset = s;
    return (acc >> (8 - s)) & kBitMask[static_cast<std::size_t>(n)];
}

void crc_calc_byte(BitReader& reader, const uint8_t* buffer, int32_t byte_index,
                   int32_t bit_offset, int32_t count) {
    if (bit_offset % 8 != 0) {
        report_message("crc_calc_byte: bit offset not byte aligned\n", kMessageFatal);
    }
    uint32_t reg = reader.crc;
    int32_t index = byte_index;
    for (int32_t i = 0; i < count; ++i) {
        reg = kCrcTable[((reg >> 8) ^ buffer[index]) & 0xFFu] ^ ((reg & 0xFFu) << 8);
        index = bitstream_detail::next_index(index);
    }
    reader.crc = reg;
}

}  // namespace kavolib
