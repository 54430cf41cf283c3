// A block of input bytes in memory as a ByteSource for the frame layer.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

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

    ByteSource source() { return ByteSource{read, this}; }
};

}  // namespace kavolib
