// Side information of a Layer III frame and the set-up of its main data: the bytes the
// bit reservoir holds before the frame header are moved up against the frame's own main data,
// so that the granules read one contiguous run from the cursor.
#include "layer3/layer3_stages.h"
#include "layer3/layer3_tables.h"

namespace kavolib {

namespace {
int32_t wrap_back(int32_t index) { return index == 0 ? kStreamBufferSize - 1 : index - 1; }

// Copies count bytes backwards, from the byte before the frame header to the byte before the
// cursor, both indices wrapping; returns the last destination index reached.
int32_t move_reservoir(uint8_t* bytes, int32_t source, int32_t destination, int32_t count) {
    int32_t last = destination;
    for (int32_t n = 0; n < count; ++n) {
        bytes[destination] = bytes[source];
        last = destination;
        source = wrap_back(source);
        destination = wrap_back(destination);
    }
    return last;
}

int32_t wrap(int32_t index) {
    return ((index % kStreamBufferSize) + kStreamBufferSize) % kStreamBufferSize;
}
}  // namespace

void read_side_info(Layer3State& state, BitReader& reader, const FrameHeader& header) {
    SideInfo& si = state.side_info;
    const bool mpeg1 = header.version == kVersionMpeg1;
    const int32_t channels = header.channels;
    si.main_data_begin = bitunp_rj(reader, mpeg1 ? 9 : 8);
    if (mpeg1) {
        bitunp_skip(reader, channels == 1 ? 5 : 3);
        for (int32_t ch = 0; ch < channels; ++ch) {
            for (uint32_t& flag : si.scfsi[ch]) flag = bitunp_rj(reader, 1);
        }
    } else {
        bitunp_skip(reader, channels == 1 ? 1 : 2);
    }
    const int32_t granules = mpeg1 ? 2 : 1;
    for (int32_t gr = 0; gr < granules; ++gr) {
        for (int32_t ch = 0; ch < channels; ++ch) {
            GranuleInfo& gi = si.gr[gr][ch];
            gi.part2_3_length = bitunp_rj(reader, 12);
            gi.big_values = bitunp_rj(reader, 9);
            gi.global_gain = bitunp_rj(reader, 8);
            gi.scalefac_compress = bitunp_rj(reader, mpeg1 ? 4 : 9);
            gi.window_switching_flag = bitunp_rj(reader, 1);
            if (gi.window_switching_flag != 0) {
                gi.block_type = bitunp_rj(reader, 2);
                gi.mixed_block_flag = bitunp_rj(reader, 1);
                gi.table_select[0] = bitunp_rj(reader, 5);
                gi.table_select[1] = bitunp_rj(reader, 5);
                for (uint32_t& gain : gi.subblock_gain) gain = bitunp_rj(reader, 3);
            } else {
                gi.block_type = 0;
                for (uint32_t& select : gi.table_select) select = bitunp_rj(reader, 5);
                gi.region0_count = bitunp_rj(reader, 4);
                gi.region1_count = bitunp_rj(reader, 3);
            }
            gi.preflag = mpeg1 ? bitunp_rj(reader, 1) : 0;
            gi.scalefac_scale = bitunp_rj(reader, 1);
            gi.count1table_select = bitunp_rj(reader, 1);
        }
    }
    const int32_t row = mpeg1 ? 0 : (header.version == kVersionMpeg2 ? 1 : 2);
    // A reserved sampling frequency index (3) never reaches the decoder; it would use row 2.
    const int32_t rate = header.sample_freq >= 0 && header.sample_freq < 3 ? header.sample_freq : 2;
    state.long_bounds = kLongBandBounds[row][rate];
    state.short_bounds = kShortBandBounds[row][rate];
}

int32_t setup_main_data(Layer3State& state, BitReader& reader, const FrameHeader& header) {
    const int32_t main_data_begin = static_cast<int32_t>(state.side_info.main_data_begin);
    const int32_t needed = main_data_begin * 8;
    const int32_t frame_bytes = header.frame_length - state.frame_prefix_length;
    uint8_t* bytes = reader.cursor.buffer;
    const int32_t source = wrap(state.frame_start_index - 5);
    const int32_t destination = wrap_back(reader.cursor.byte_index);
    if (state.reservoir_bits < needed) {
        if (state.reservoir_bits > 0) {
            const int32_t last =
                move_reservoir(bytes, source, destination, state.reservoir_bits / 8 + 1);
            reader.cursor.byte_index = wrap(last);
        }
        state.reservoir_bits += frame_bytes * 8;
        return 1;
    }
    if (main_data_begin > 0) move_reservoir(bytes, source, destination, main_data_begin);
    reader.cursor.byte_index = wrap(reader.cursor.byte_index - main_data_begin);
    state.reservoir_bits = (frame_bytes + main_data_begin) * 8;
    return 0;
}

}  // namespace kavolib
