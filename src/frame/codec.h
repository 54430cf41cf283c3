// The records of the codec command interface (the dispatcher, codec_command, belongs to the
// decode loop that drives both the frame layer and the Layer III decoder): requests and
// results passed by value, and the job records of header checks and granule decodes.
// Addresses are pointer-sized on this platform.
#pragma once

#include <cstdint>

#include "frame/bitstream.h"

namespace kavolib {

struct CodecRequest {
    int32_t command;
    int32_t arg;  // command 4: the error of the previous granule of the same frame
    void* job;    // HeaderJob* for command 1, GranuleJob* for command 4
};

struct CodecResult {
    int32_t status;
    int32_t error;
    void* result;  // FrameHeader* or HeaderJob* (command 1), BitPosition* (command 4)
};

struct HeaderJob {
    BitPosition position;        // first header byte
    int32_t reserved;            // 0
    int32_t free_format_length;  // 0 while none has been measured
};

struct GranuleJob {
    uint8_t* buffer;          // the stream buffer
    int32_t bit_offset;       // start of the granule, 0..7
    int32_t byte_index;       // start of the granule, 0..1919
    int32_t reserved1;        // 0
    double* const* pcm_buffers;  // address of the pair {channel 0, channel 1} of 576 doubles
    int32_t* channel_flags;   // pair of words, both 1 (not consulted by Layer III)
    int32_t* buffer_lengths;  // pair of lengths, both 576 (not consulted by Layer III)
    int32_t reserved2;        // 0
    int32_t granule;          // 0 or 1
    int32_t conceal_limit;    // granules that may be hidden by repetition; 0 in this system
};

inline constexpr int32_t kCodecReset = 0;
inline constexpr int32_t kCodecDecodeHeader = 1;
inline constexpr int32_t kCodecDecodeGranule = 4;
inline constexpr int32_t kCodecEcho = 7;

}  // namespace kavolib
