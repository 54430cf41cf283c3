// The Layer III granule decoder as the codec dispatcher sees it: a reset and the decode of one
// granule into 576 samples per channel (or its concealment).
#pragma once

#include <cstdint>

#include "frame/bitstream.h"
#include "frame/codec.h"
#include "frame/frame_header.h"

namespace kavolib {

struct Layer3State;

// The module-level decoder state used by the codec command dispatcher.
Layer3State& layer3_state();

// Codec command 0: the next granule starts a new stream (tables rebuilt, state cleared).
void layer3_reset(Layer3State& state);

// Codec command 4: decodes (or conceals) one granule. Reads the header of the current frame
// and the stream through the reader; writes the job's two PCM buffers.
CodecResult decode_granule(Layer3State& state, BitReader& reader, const FrameHeader& header,
                           int32_t carried_error, const GranuleJob& job);

}  // namespace kavolib
