// Stand-in for the Layer III granule decoder until it is built: every granule is concealed
// as silence with error 2, so the frame layer and the decoded output can run end to end.
#include <cstring>

#include "layer3/layer3.h"

namespace kavolib {

struct Layer3State {
    BitPosition returned_position;
};

Layer3State& layer3_state() {
    static Layer3State state{};
    return state;
}

void layer3_reset(Layer3State& state) { state.returned_position = BitPosition{}; }

CodecResult decode_granule(Layer3State& state, BitReader& reader, const FrameHeader&,
                           int32_t, const GranuleJob& job) {
    reader.cursor = BitPosition{job.buffer, job.bit_offset, job.byte_index};
    std::memset(job.pcm_buffers[0], 0, 576 * sizeof(double));
    std::memset(job.pcm_buffers[1], 0, 576 * sizeof(double));
    state.returned_position = reader.cursor;
    return CodecResult{1, 2, &state.returned_position};
}

}  // namespace kavolib
