// Random access to an input of known size (a block in memory or a seekable file), the one way
// the container layer reads: every read is checked against the size, so nothing outside the
// input is ever asked for.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kavolib {

struct ByteReader {
    uint64_t size;
    // Copies up to n bytes from offset to dst and returns how many (fewer only on a read error).
    size_t (*read_at)(void* context, uint64_t offset, uint8_t* dst, size_t n);
    void* context;

    // n bytes at offset, or false when they are not all inside the input or cannot be read.
    bool get(uint64_t offset, uint8_t* dst, size_t n) const {
        if (offset > size || n > size - offset) return false;
        return n == 0 || read_at(context, offset, dst, n) == n;
    }
};

inline uint32_t get_le32(const uint8_t* p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

inline uint32_t get_le16(const uint8_t* p) { return uint32_t{p[0]} | uint32_t{p[1]} << 8; }

}  // namespace kavolib
