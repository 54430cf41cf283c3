// The Layer III decoder's state: the side information and scale factors of the frame being
// decoded, the bit reservoir count, the IMDCT overlap and the synthesis history that carry
// from granule to granule, the concealment bookkeeping, and the per-granule scratch spectrum.
#pragma once

#include <cstdint>

#include "frame/bitstream.h"

namespace kavolib {

inline constexpr int kGranuleLines = 576;
inline constexpr int kPow43Size = 8192;

struct GranuleInfo {
    uint32_t part2_3_length;
    uint32_t big_values;
    uint32_t global_gain;
    uint32_t scalefac_compress;
    uint32_t window_switching_flag;
    uint32_t block_type;
    uint32_t mixed_block_flag;
    uint32_t table_select[3];
    uint32_t subblock_gain[3];
    uint32_t region0_count;
    uint32_t region1_count;
    uint32_t preflag;
    uint32_t scalefac_scale;
    uint32_t count1table_select;
};

struct SideInfo {
    uint32_t main_data_begin;
    uint32_t scfsi[2][4];
    GranuleInfo gr[2][2];  // [granule][channel]
};

struct ScaleFactors {
    uint32_t l[2][22];     // [channel][long band]
    uint32_t s[2][13][3];  // [channel][short band][window]
    uint32_t intensity_scale;
};

struct PreviousBlock {
    uint32_t block_type;
    uint32_t window_switching_flag;
    uint32_t mixed_block_flag;
};

// The polyphase history of one channel as the windowing reads it: each slot's 32 matrix outputs
// h[0..31] are stored as 64 values, h reversed at 0..31 and h in order at 32..63, so that every
// output's terms are contiguous in the output index. The slots lie newest first, so that the 16
// slots a window reads are always consecutive: each granule's 18 go just before the 15 that
// its windows still need, and when the buffer's start is reached those 15 move to its end.
inline constexpr int32_t kSynthesisSlots = 15 + 4 * 18;
struct SynthesisRing {
    alignas(64) double slots[kSynthesisSlots][64];
    int32_t newest;  // where the last granule's newest slot lies (the zeroed state: 0)
};

struct Layer3State {
    // Per-granule scratch: quantised values, then requantised values, then subband samples.
    alignas(64) double spectrum[kGranuleLines];
    // Persistent from granule to granule: IMDCT overlap (9 values per subband, stored value by
    // value so that neighbouring subbands lie side by side: [channel][value][subband]) and the
    // polyphase history (the matrix outputs of the last 16 slots) of each channel.
    alignas(64) double overlap[2][9][32];
    SynthesisRing synthesis[2];
    PreviousBlock previous_block[2];
    int32_t reservoir_bits;

    // The frame being decoded.
    SideInfo side_info;
    const int32_t* long_bounds;   // 23 entries
    const int32_t* short_bounds;  // 14 entries
    ScaleFactors scale_factors;
    int32_t intensity_bound[4];  // windows 0..2 (long blocks: entry 0), mixed long bound
    int32_t ms_stereo;
    int32_t is_stereo;
    int32_t frame_prefix_length;
    int32_t frame_start_index;
    BitPosition part2_start;

    // Concealment bookkeeping.
    int32_t error_status;
    int32_t carried_error;
    int32_t repeat_counter;
    int32_t conceal_limit;
    double* pcm[2];           // the buffers of the current call
    double* previous_pcm[2];  // the buffers of the previous call
    int32_t last_mode;
    bool first_use_done;  // cleared by a reset; set by granule_setup
    BitPosition returned_position;

    const double* pow43;  // x^(4/3) of 0 .. kPow43Size-1: the process's one table
};

}  // namespace kavolib
