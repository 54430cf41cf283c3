// The coder's arithmetic, step by step in fixed point. The estimate, the reconstruction of the
// difference and the adaptation after it are written once here and shared by the encoder and
// the decoder, so that a decoder fed the encoder's codes follows the encoder's state exactly.
// Every "(16)" reduction wraps with wrap16; products are formed in 32 bits and the predictor's
// sums accumulate modulo 2^32, so no step relies on signed overflow.
#include "adpcm/adpcm_core.h"

#include <bit>

namespace kavolib {

AdpcmState adpcm_state;

namespace {

// Indexed by the code I: log of the reconstructed magnitude, scale factor multiplier, and
// the F(I) feeding the speed control averages.
constexpr int16_t kDqln[16] = {-2048, 4,   135, 213, 273, 323, 373, 425,
                               425,   373, 323, 273, 213, 135, 4,   -2048};
constexpr int16_t kWi[16] = {-12,  18,  41,  64,  112, 198, 355, 1122,
                             1122, 355, 198, 112, 64,  41,  18,  -12};
constexpr int16_t kFi[16] = {0, 0, 0, 1, 1, 1, 3, 7, 7, 3, 1, 1, 1, 0, 0, 0};

// What both directions know before the sample is coded.
struct Estimate {
    int16_t sez;  // the zeros' part of the signal estimate
    int16_t se;   // the whole signal estimate
    int16_t y;    // the quantizer scale factor
};

inline int32_t product(int16_t a, int16_t b) {
    return int32_t{a} * int32_t{b};
}

inline Estimate estimate(const AdpcmState& s) {
    // The sum of the eight products wraps in 32 bits, like the accumulator it models.
    uint32_t acc = 0;
    for (int k = 0; k < 6; ++k) acc += static_cast<uint32_t>(product(s.b[k], s.dq[k]));
    Estimate est{};
    est.sez = wrap16(static_cast<int32_t>(acc) >> 14);
    acc += static_cast<uint32_t>(product(s.a1, s.sr1));
    acc += static_cast<uint32_t>(product(s.a2, s.sr2));
    est.se = wrap16(static_cast<int32_t>(acc) >> 14);

    const int32_t al = s.ap >= 256 ? 64 : s.ap >> 2;
    const int16_t dif = wrap16(s.yu - (s.yl >> 6));
    est.y = wrap16((s.yl + dif * al) >> 6);
    return est;
}

// The quantized difference of code I at scale y. With y kept within 544..5120 the exponent
// (dql >> 7) & 15 is at most 13, so the right shift is always by 1 to 14.
inline int16_t reconstruct(int code, int16_t y) {
    const int16_t dql = wrap16(kDqln[code] + (y >> 2));
    int32_t dqmag = 0;
    if (dql >= 0) dqmag = ((128 + (dql & 127)) * 128) >> (14 - ((dql >> 7) & 15));
    return wrap16(code >= 8 ? -dqmag : dqmag);
}

inline int16_t clamp16(int16_t v, int16_t lo, int16_t hi) {
    return v < lo ? lo : v > hi ? hi : v;
}

// Adapts the scale factors, the predictor and the speed control after code I with the
// quantized difference dq; returns the reconstructed sample. The order of the steps matters:
// the transition test uses the previous td, the first pole is limited by the second pole's
// new value before any reset, the zeros compare against the previous dq history, and the speed
// control input uses the y this sample was coded with.
inline int16_t adapt(AdpcmState& s, int code, const Estimate& est, int16_t dq) {
    const int16_t y = est.y;

    // Transition detection.
    const int32_t ylint = s.yl >> 15;
    const int32_t ylfrac = (s.yl >> 10) & 31;
    const int16_t thr = ylint > 9 ? int16_t{31744} : wrap16((ylfrac + 32) << ylint);
    const int16_t dqthr = wrap16((thr + (thr >> 1)) >> 1);
    const int32_t dqabs = dq < 0 ? -int32_t{dq} : int32_t{dq};
    const bool tr = dqabs > dqthr && s.td == 1;

    // Fast, then slow scale factor.
    s.yu = clamp16(wrap16(y + kWi[code] - (y >> 5)), 544, 5120);
    s.yl = s.yl + s.yu - (s.yl >> 6);

    const int16_t sr = wrap16(dq + est.se);
    const int16_t p = wrap16(dq + est.sez);
    const int16_t pk0 = p < 0 ? 1 : 0;
    const bool p0 = p == 0;

    // Second pole.
    const int32_t fa1 = clamp16(s.a1, -8191, 8191);
    const int32_t fa = pk0 != s.pk1 ? fa1 : -fa1;
    const int32_t u = p0 ? 0 : ((pk0 == s.pk2 ? 4096 : -4096) + fa) >> 5;
    const int16_t a2t = clamp16(wrap16(s.a2 - (s.a2 >> 7) + u), -12288, 12288);

    // First pole, limited by the new second pole.
    const int32_t g = p0 ? 0 : pk0 != s.pk1 ? -192 : 192;
    int16_t a1t = wrap16(s.a1 - (s.a1 >> 8) + g);
    if (a1t < a2t - 15360) {
        a1t = wrap16(a2t - 15360);
    } else if (a1t >= 15360 - a2t) {
        a1t = wrap16(15360 - a2t);
    }

    // Zeros, against the history before this sample joins it.
    for (int k = 0; k < 6; ++k) {
        int32_t h = 0;
        if (dq != 0) h = (s.dq[k] < 0) != (dq < 0) ? -128 : 128;
        s.b[k] = tr ? int16_t{0} : wrap16(s.b[k] - (s.b[k] >> 8) + h);
    }
    s.a2 = tr ? int16_t{0} : a2t;
    s.a1 = tr ? int16_t{0} : a1t;

    s.pk2 = s.pk1;
    s.pk1 = pk0;
    s.sr2 = s.sr1;
    s.sr1 = sr;
    for (int k = 5; k > 0; --k) s.dq[k] = s.dq[k - 1];
    s.dq[0] = dq;

    // Tone detection from the second pole before the transition reset.
    const bool tdp = a2t < -11776;
    s.td = (!tr && tdp) ? 1 : 0;

    s.dms = wrap16(s.dms + ((kFi[code] * 512 - s.dms) >> 5));
    s.dml = wrap16(s.dml + ((kFi[code] * 2048 - s.dml) >> 7));

    const int32_t spread = 4 * s.dms - s.dml;
    const bool ax = y < 1536 || wrap16(spread < 0 ? -spread : spread) >= (s.dml >> 3) || tdp;
    s.ap = tr ? int16_t{256} : wrap16(s.ap + (((ax ? 512 : 0) - s.ap) >> 4));
    return sr;
}

// The adaptive quantizer: the log of the difference's magnitude against the scale, then the
// interval of the Recommendation's table it falls in, counted without branches (codes 1..7 for
// the intervals from below 80 up; 15 below -124); a negative difference mirrors the code.
inline int encode_one(AdpcmState& state, int16_t sl) {
    const Estimate est = estimate(state);

    const int16_t d = wrap16(sl - est.se);
    const int16_t m = wrap16(d < 0 ? -int32_t{d} : int32_t{d});  // -32768 stays -32768
    const int32_t e = 14 - norm_shift(m);
    const int32_t mant = ((m * 128) >> e) & 127;
    const int16_t dln = wrap16(e * 128 + mant - (est.y >> 2));

    int code = 1 + (dln >= 80) + (dln >= 178) + (dln >= 246) + (dln >= 300) + (dln >= 349) +
               (dln >= 400);
    if (d < 0) code = 15 - code;
    if (dln < -124) code = 15;

    adapt(state, code, est, reconstruct(code, est.y));
    return code;
}

}  // namespace

void adpcm_init(AdpcmState& state) {
    state = AdpcmState{};
    state.yl = 34816;
    state.yu = 544;
}

int norm_shift(int16_t x) {
    if (x == 0) return 14;
    if (x < 0) return 0;
    // x in 1..32767 has 15 - floor(log2 x) leading zeros in 16 bits.
    return std::countl_zero(static_cast<uint16_t>(x)) - 1;
}

int adpcm_encode_sample(AdpcmState& state, int16_t sl) {
    return encode_one(state, sl);
}

void adpcm_encode_block(AdpcmState& state, const int16_t* samples, int count, uint8_t* codes) {
    // The state is worked on in a local copy, which the compiler keeps in registers across
    // samples, and stored back once.
    AdpcmState s = state;
    for (int i = 0; i < count; ++i) codes[i] = static_cast<uint8_t>(encode_one(s, samples[i]));
    state = s;
}

int16_t adpcm_decode_code(AdpcmState& state, int code) {
    code &= 15;
    const Estimate est = estimate(state);
    return adapt(state, code, est, reconstruct(code, est.y));
}

}  // namespace kavolib
