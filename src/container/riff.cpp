// Walking the chunks of a RIFF file: the 12-byte RIFF/WAVE header, then chunk after chunk,
// each an id, a 32-bit little-endian size and a body padded to an even length.
#include "container/riff.h"

#include <cstring>

namespace kavolib {

namespace {

// Far more chunks than any real file has; a damaged file cannot make the walk long.
constexpr size_t kMostChunks = 4096;

}  // namespace

RiffFile walk_riff(const ByteReader& in) {
    RiffFile riff;
    uint8_t head[12];
    if (!in.get(0, head, sizeof head) || std::memcmp(head, "RIFF", 4) != 0 ||
        std::memcmp(head + 8, "WAVE", 4) != 0) {
        return riff;
    }
    riff.is_wave = true;
    riff.riff_size = get_le32(head + 4);
    uint64_t at = 12;
    while (riff.chunks.size() < kMostChunks) {
        uint8_t chunk[8];
        if (!in.get(at, chunk, sizeof chunk)) break;
        RiffChunk c{};
        std::memcpy(c.id, chunk, 4);
        c.declared = get_le32(chunk + 4);
        c.body = at + 8;
        const uint64_t left = in.size - c.body;
        c.present = c.declared < left ? c.declared : left;
        riff.chunks.push_back(c);
        if (c.declared >= left) break;
        at = c.body + c.declared + (c.declared & 1u);
    }
    return riff;
}

}  // namespace kavolib
