// The 32 kbit/s adaptive differential coder: one 16-bit sample in, one 4-bit code out, with
// the adaptive quantizer (fast and slow scale factors, speed control) and the two-pole,
// six-zero adaptive predictor with tone and transition detection. The decoder direction runs
// the very same adaptation from a received code, so both ends keep identical states.
#pragma once

#include <cstdint>

namespace kavolib {

// The coder's adaptive state. Every field but yl holds a signed 16-bit value; the names are
// those of G.726. b[k - 1] and dq[k - 1] are the Recommendation's bk and dqk (k = 1..6).
struct AdpcmState {
    int32_t yl;        // slow (locked) scale factor, 64 times the scale of yu
    int16_t yu;        // fast (unlocked) scale factor, 544..5120
    int16_t ap;        // speed control, 0..512
    int16_t dms;       // short-term average of F(I)
    int16_t dml;       // long-term average of F(I)
    int16_t a1, a2;    // pole coefficients, 16384 = 1.0
    int16_t b[6];      // zero coefficients, 16384 = 1.0
    int16_t dq[6];     // the last six quantized differences, dq[0] the most recent
    int16_t sr1, sr2;  // the last two reconstructed samples, sr1 the most recent
    int16_t pk1, pk2;  // sign (1 = negative) of the last two values of dq + sez
    int16_t td;        // tone detect flag
};

// The one state of the process, used by the output stage.
extern AdpcmState adpcm_state;

// Puts every field to its starting value.
void adpcm_init(AdpcmState& state);

// Encodes one sample; returns the code 1..15 (0 is never produced) and adapts the state.
int adpcm_encode_sample(AdpcmState& state, int16_t sl);

// Encodes count samples into count codes (one per byte), exactly as count calls of
// adpcm_encode_sample would.
void adpcm_encode_block(AdpcmState& state, const int16_t* samples, int count, uint8_t* codes);

// Decodes one code (its low four bits are used); returns the reconstructed sample, which is
// the sample the encoder reconstructed for the same code, and adapts the state.
int16_t adpcm_decode_code(AdpcmState& state, int code);

// 14 for 0, 0 for a negative x, else the number of left shifts bringing x to 16384 or above.
int norm_shift(int16_t x);

inline constexpr int kAdpcmFrameSamples = 160;
inline constexpr int kAdpcmFrameBytes = kAdpcmFrameSamples / 2;

// Multiplies count samples by gain in place: each product is truncated toward zero and its
// low 16 bits kept (no saturation). Nothing happens unless count is positive.
void apply_gain(int16_t* samples, int16_t count, float gain);

// Whether apply_gain wraps sample: trunc(sample x gain) is above 32767 or below -32768.
inline bool gain_wraps(int32_t sample, double gain) {
    const double x = static_cast<double>(sample) * gain;  // exact, as in apply_gain
    return !(x > -32769.0 && x < 32768.0);
}

// The largest float gain g > 0 for which gain_wraps(extreme, g) is false: just below
// 32768 / extreme for a positive extreme, 32769 / -extreme for a negative one; the largest
// float for 0. (A gain -g wraps a sample s exactly when g wraps -s.)
float largest_gain_without_wrap(int32_t extreme);

// One 160-sample frame: the gain applied (the samples are changed in place), every sample
// coded, four codes to a 16-bit little-endian word, c0 | c1 << 4 | c2 << 8 | c3 << 12 with
// c0 the earliest sample: 80 bytes.
void adpcm_encode_frame(AdpcmState& state, int16_t samples[kAdpcmFrameSamples], float gain,
                        uint8_t packed[kAdpcmFrameBytes]);

// The low 16 bits of v as a signed value: the "(16)" reductions of the coder.
constexpr int16_t wrap16(int32_t v) {
    return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(v) & 0xFFFFu));
}

}  // namespace kavolib
