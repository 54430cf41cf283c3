// A block of input bytes in memory, read in order (a ByteSource for the frame layer) or at
// any offset (a ByteReader for the container layer and the engine).
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "container/byte_reader.h"
#include "frame/frame_sync.h"

namespace kavolib {

struct MemoryInput {
    const uint8_t* bytes;
    size_t size;
    size_t position;

    static size_t read(void* context, uint8_t* dst, size_t n) {
        auto* input = static_cast<MemoryInput*>(context);
        const size_t got = std::min(n, input->size - input->position);
        if (got > 0) std::memcpy(dst, input->bytes + input->position, got);
        input->position += got;
        return got;
    }

    static size_t read_at(void* context, uint64_t offset, uint8_t* dst, size_t n) {
        auto* input = static_cast<MemoryInput*>(context);
        if (offset >= input->size) return 0;
        const size_t got = std::min<uint64_t>(n, input->size - offset);
        if (got > 0) std::memcpy(dst, input->bytes + offset, got);
        return got;
    }

    ByteSource source() { return ByteSource{read, this}; }
    ByteReader reader() { return ByteReader{size, read_at, this}; }
};

}  // namespace kavolib
