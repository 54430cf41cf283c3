// decode_granule: one granule of a Layer III frame into 576 samples per channel. Checks the
// CRC, runs side information and reservoir set-up at granule 0, then the stage chain per
// channel; a granule that cannot be decoded is concealed (repeated or silenced).
#include <cmath>
#include <cstring>
#include <memory>

#include "layer3/layer3.h"
#include "layer3/layer3_stages.h"
#include "layer3/layer3_state.h"
#include "platform/report_message.h"

namespace kavolib {

namespace {
Layer3State g_layer3_state;

void fill_zero(double* buffer) { std::memset(buffer, 0, sizeof(double) * kGranuleLines); }
}  // namespace

// x^(4/3) for the table's magnitudes, computed once per process and shared by every state.
const double* pow43_table() {
    static const auto table = [] {
        auto values = std::make_unique<double[]>(kPow43Size);
        for (size_t i = 0; i < kPow43Size; ++i) {
            values[i] = std::pow(static_cast<double>(i), 4.0 / 3.0);
        }
        return values;
    }();
    return table.get();
}

Layer3State& layer3_state() { return g_layer3_state; }

void layer3_reset(Layer3State& state) { state.first_use_done = false; }

void granule_setup(Layer3State& state, const FrameHeader& header, int32_t granule) {
    if (!state.first_use_done) {
        state.pow43 = pow43_table();
        for (PreviousBlock& previous : state.previous_block) previous = PreviousBlock{};
        state.reservoir_bits = 0;
        state.last_mode = -1;
        state.previous_pcm[0] = state.pcm[0];
        state.previous_pcm[1] = state.pcm[1];
        state.first_use_done = true;
    }
    if (header.mode != state.last_mode) {
        std::memset(state.overlap, 0, sizeof state.overlap);
        std::memset(state.synthesis, 0, sizeof state.synthesis);
        state.last_mode = header.mode;
    }
    if (granule == 0) {
        state.carried_error = 0;
        state.repeat_counter = 0;
        state.error_status = 0;
    } else {
        state.error_status = state.carried_error;
    }
}

CodecResult decode_granule(Layer3State& state, BitReader& reader, const FrameHeader& header,
                           int32_t carried_error, const GranuleJob& job) {
    state.carried_error = carried_error;
    reader.cursor.buffer = job.buffer;
    reader.cursor.bit_offset = job.bit_offset;
    reader.cursor.byte_index = job.byte_index;
    state.frame_start_index = job.byte_index;
    state.pcm[0] = job.pcm_buffers[0];
    state.pcm[1] = job.pcm_buffers[1];
    const int32_t granule = job.granule;
    state.conceal_limit = job.conceal_limit;

    const auto distance = reinterpret_cast<uintptr_t>(state.pcm[1]) -
                          reinterpret_cast<uintptr_t>(state.pcm[0]);
    if ((distance & ~uintptr_t{7}) != sizeof(double) * kGranuleLines) {
        report_message("Each PCM buffer must be in contiguous 576 locations !\n", kMessageFatal);
    }

    granule_setup(state, header, granule);
    const int32_t channels = header.channels;

    if (granule == 0) {
        state.ms_stereo = (header.mode == 1 && (header.mode_ext & 2) != 0) ? 1 : 0;
        state.is_stereo = (header.mode == 1 && (header.mode_ext & 1) != 0) ? 1 : 0;
        const bool mpeg1 = header.version == kVersionMpeg1;
        const int32_t side_length = mpeg1 ? (channels == 1 ? 17 : 32) : (channels == 1 ? 9 : 17);
        if (header.crc_protect != 0) {
            const uint32_t crc_check = bitunp_rj(reader, 16);
            crc_calc_byte(reader, reader.cursor.buffer, reader.cursor.byte_index,
                          reader.cursor.bit_offset, side_length);
            if (reader.crc != crc_check) state.error_status = 1;
        }
        state.frame_prefix_length = 4 + (header.crc_protect != 0 ? 2 : 0) + side_length;
        read_side_info(state, reader, header);
        if (setup_main_data(state, reader, header) != 0) {
            state.error_status = 2;
            fill_zero(state.pcm[0]);
            fill_zero(state.pcm[1]);
        }
    }

    if (state.error_status == 0) {
        for (int32_t ch = 0; ch < channels; ++ch) {
            read_scale_factors(state, reader, header, granule, ch);
            huffman_decode(state, reader, granule, ch);
            requantise(state, granule, ch);
            reorder(state, granule, ch, state.pcm[ch]);
        }
        stereo_process(state, header, granule, state.pcm[0], state.pcm[1]);
        for (int32_t ch = 0; ch < channels; ++ch) {
            antialias(state, granule, ch, state.pcm[ch]);
            hybrid_synthesis(state, granule, ch, state.pcm[ch]);
            synthesize_granule(state, ch, state.pcm[ch]);
        }
    } else if (state.error_status == 1 && state.repeat_counter < state.conceal_limit) {
        // memmove: the previous and current buffers may be the same storage.
        std::memmove(state.pcm[0], state.previous_pcm[0], sizeof(double) * kGranuleLines);
        std::memmove(state.pcm[1], state.previous_pcm[1], sizeof(double) * kGranuleLines);
        ++state.repeat_counter;
    } else {
        fill_zero(state.pcm[0]);
        fill_zero(state.pcm[1]);
    }

    state.previous_pcm[0] = state.pcm[0];
    state.previous_pcm[1] = state.pcm[1];
    state.returned_position = reader.cursor;
    return CodecResult{1, state.error_status, &state.returned_position};
}

}  // namespace kavolib
