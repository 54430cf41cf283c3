// The RIFF chunk walker: the chunks of a RIFF WAVE file wherever they stand, each with its
// declared size and the part of it the input really holds. Shared by the MP3-in-WAV wrapper
// and the WAV input.
#pragma once

#include <cstdint>
#include <vector>

#include "container/byte_reader.h"

namespace kavolib {

struct RiffChunk {
    char id[4];
    uint32_t declared;  // the size field
    uint64_t body;      // offset of the first byte after the 8-byte chunk header
    uint64_t present;   // bytes of the body inside the input: min(declared, size - body)
};

struct RiffFile {
    bool is_wave = false;     // "RIFF" ... "WAVE" at the start
    uint32_t riff_size = 0;   // the RIFF header's size field
    std::vector<RiffChunk> chunks;
};

// The chunks from byte 12 on, in file order, until fewer than 8 bytes remain or a chunk runs
// past the end of the input (that chunk is the last one listed). Bodies of odd size are
// followed by one pad byte.
RiffFile walk_riff(const ByteReader& in);

}  // namespace kavolib
