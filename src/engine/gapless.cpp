// The encoder's header: found by its tag behind the side information (Xing, Info) or 32 bytes
// into the frame (VBRI), each field read only when the frame holds it; the encoder's extension
// counts only when its encoder string starts with four printable characters and its CRC-16,
// where the frame holds it, matches the bytes before it.
#include "engine/gapless.h"

#include <algorithm>
#include <cstring>

namespace kavolib {

namespace {

uint32_t be32(const uint8_t* p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

uint32_t be16(const uint8_t* p) {
    return (uint32_t{p[0]} << 8) | p[1];
}

// The extension's CRC: CRC-16 with the reflected polynomial 0xA001 from 0, not the frame CRC.
uint32_t extension_crc(const uint8_t* bytes, size_t size) {
    uint32_t crc = 0;
    for (size_t i = 0; i < size; ++i) {
        crc ^= bytes[i];
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 1u) != 0 ? (crc >> 1) ^ 0xA001u : crc >> 1;
    }
    return crc;
}

bool printable(const uint8_t* p, size_t n) {
    return std::all_of(p, p + n, [](uint8_t c) { return c >= 0x20 && c <= 0x7E; });
}

// The extension after the Xing fields: encoder string (9), revision (1), lowpass (1),
// ReplayGain (8), flags (1), bitrate (1), delay and padding (3, 12 bits each), then six bytes
// of other fields and the CRC (2) of every byte of the frame before it.
constexpr size_t kDelayAt = 21;
constexpr size_t kCrcAt = 34;

void read_extension(const uint8_t* frame, size_t size, size_t at, EncoderHeader& header) {
    if (at + kDelayAt + 3 > size || !printable(frame + at, 4)) return;
    if (at + kCrcAt + 2 <= size && extension_crc(frame, at + kCrcAt) != be16(frame + at + kCrcAt)) {
        return;
    }
    const uint8_t* d = frame + at + kDelayAt;
    header.has_extension = true;
    header.delay = static_cast<int32_t>((uint32_t{d[0]} << 4) | (d[1] >> 4));
    header.padding = static_cast<int32_t>(((uint32_t{d[1]} & 0x0Fu) << 8) | d[2]);
}

}  // namespace

EncoderHeader parse_encoder_header(const uint8_t* frame, size_t size, int32_t id,
                                   int32_t channels) {
    EncoderHeader header{};
    // The encoders write the Xing header right behind the side information even in frames
    // with a CRC word (and the decoders look for it there), so the CRC's 2 bytes are not counted.
    const size_t side_info = id == 1 ? (channels == 1 ? 17 : 32) : (channels == 1 ? 9 : 17);
    size_t at = 4 + side_info;
    if (at + 8 <= size &&
        (std::memcmp(frame + at, "Xing", 4) == 0 || std::memcmp(frame + at, "Info", 4) == 0)) {
        header.found = true;
        const uint32_t flags = be32(frame + at + 4);
        at += 8;
        if ((flags & 1u) != 0) {
            if (at + 4 > size) return header;
            header.has_frames = true;
            header.frames = be32(frame + at);
            at += 4;
        }
        at += ((flags & 2u) != 0 ? 4 : 0) + ((flags & 4u) != 0 ? 100 : 0) +
              ((flags & 8u) != 0 ? 4 : 0);
        read_extension(frame, size, at, header);
        return header;
    }
    // VBRI: tag (4), version (2), delay (2), quality (2), bytes (4), frames (4).
    at = 4 + 32;
    if (at + 18 <= size && std::memcmp(frame + at, "VBRI", 4) == 0) {
        header.found = true;
        header.vbri = true;
        header.has_extension = true;
        header.delay = static_cast<int32_t>(be16(frame + at + 6));
        header.has_frames = true;
        header.frames = be32(frame + at + 14);
    }
    return header;
}

GaplessCut gapless_cut(const EncoderHeader& header, int64_t decoded, int64_t stream_frames) {
    const int64_t front = std::max<int64_t>(0, int64_t{header.delay} + kDecoderDelay);
    const bool whole = header.has_frames && stream_frames == int64_t{header.frames};
    const int64_t back = whole ? std::max<int64_t>(0, int64_t{header.padding} - kDecoderDelay) : 0;
    const int64_t skip = std::min(front, decoded);
    return GaplessCut{skip, std::max<int64_t>(0, decoded - skip - back)};
}

}  // namespace kavolib
