// The stages of the granule decoder, in the order decode_granule runs them. Each works on the
// decoder state it is handed; tests drive them one by one.
#pragma once

#include <cstdint>

#include "frame/bitstream.h"
#include "frame/frame_header.h"
#include "layer3/layer3_state.h"

namespace kavolib {

// Opens every granule: tables and state after a reset, clears on a mode change, error status.
void granule_setup(Layer3State& state, const FrameHeader& header, int32_t granule);

// Side information of the frame; the cursor ends at the first main-data byte.
void read_side_info(Layer3State& state, BitReader& reader, const FrameHeader& header);
// Makes the reservoir and the frame's main data contiguous; 0 when enough bytes, 1 otherwise.
int32_t setup_main_data(Layer3State& state, BitReader& reader, const FrameHeader& header);

void read_scale_factors(Layer3State& state, BitReader& reader, const FrameHeader& header,
                        int32_t granule, int32_t channel);

// The entry whose code word begins the 19-bit string w, found through h_cue and the search of
// the sorted code list (with its warnings).
uint32_t huffman_entry_search(int32_t slot, uint32_t w);
// count pairs of the slot written to out as 2 * count values, and one quadruple (v, w, x, y
// to values; returns the bits consumed, code word and sign bits), with the bits read 64 at a
// time: code word, escape bits and sign bits in the standard's order.
void huffman_pairs(BitReader& reader, int32_t slot, double* out, int32_t count);
int32_t huffman_quad_fast(BitReader& reader, int32_t slot, int32_t values[4]);
void huffman_decode(Layer3State& state, BitReader& reader, int32_t granule, int32_t channel);

// The process's table of x^(4/3), built on first use; each state points at it.
const double* pow43_table();
double signed_pow43(const Layer3State& state, double value);
double long_band_gain(uint32_t global_gain, uint32_t scalefac_scale, uint32_t scale_factor,
                      int32_t band, uint32_t preflag);
double short_band_gain(uint32_t global_gain, uint32_t subblock_gain, uint32_t scalefac_scale,
                       uint32_t scale_factor);
void requantise(Layer3State& state, int32_t granule, int32_t channel);

void reorder(Layer3State& state, int32_t granule, int32_t channel, double* dst);
void stereo_process(Layer3State& state, const FrameHeader& header, int32_t granule,
                    double* left, double* right);

void antialias(const Layer3State& state, int32_t granule, int32_t channel, double* x);
void hybrid_synthesis(Layer3State& state, int32_t granule, int32_t channel, const double* x);
void imdct_subband(const double* input, double* overlap, double* output, uint32_t block_type,
                   uint32_t previous_block_type, int32_t subband);

void synthesize_granule(Layer3State& state, int32_t channel, double* out);
void synthesize_slot(const double* slot, double* history, double* out);

}  // namespace kavolib
