// The coder's arithmetic, step by step in fixed point. The estimate, the reconstruction of the
// difference and the adaptation after it are written once here and shared by the encoder and
// the decoder, so that a decoder fed the encoder's codes follows the encoder's state exactly.
// Every "(16)" reduction wraps with wrap16; products are formed in 32 bits and the predictor's
// sums accumulate modulo 2^32, so no step relies on signed overflow.
#include "adpcm/adpcm_core.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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

// The quantizer scale factor: the fast and slow factors mixed by the speed control.
inline int16_t scale(const AdpcmState& s) {
    const int32_t al = s.ap >= 256 ? 64 : s.ap >> 2;
    const int16_t dif = wrap16(s.yu - (s.yl >> 6));
    return wrap16((s.yl + dif * al) >> 6);
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
    est.y = scale(s);
    return est;
}

// The quantized difference of code I at scale y. With y kept within 544..5120 the exponent
// (dql >> 7) & 15 is at most 13, so the right shift is always by 1 to 14. The sign of the
// code's half is rarely predictable, so the selections are masks rather than branches: a
// negative dql gives magnitude 0 (its shift count, taken modulo 32, is only kept in range), and
// codes 8..15 negate.
inline int16_t reconstruct(int code, int16_t y) {
    const int16_t dql = wrap16(kDqln[code] + (y >> 2));
    const int32_t shift = (14 - ((dql >> 7) & 15)) & 31;
    const int32_t dqmag = (((128 + (dql & 127)) * 128) >> shift) & ~(int32_t{dql} >> 15);
    const int32_t negate = -(code >> 3);
    return wrap16((dqmag ^ negate) - negate);
}

inline int16_t clamp16(int16_t v, int16_t lo, int16_t hi) {
    return v < lo ? lo : v > hi ? hi : v;
}

// Adapts everything but the zeros and the histories after code I with the quantized
// difference dq: the scale factors, the poles, tone detection, the speed control. Returns
// whether a transition was detected (which resets the zeros too). The order of the steps
// matters: the transition test uses the previous td, the first pole is limited by the second
// pole's new value before any reset, and the speed control input uses the y this sample was
// coded with.
inline bool adapt_scalars(AdpcmState& s, int code, const Estimate& est, int16_t dq) {
    const int16_t y = est.y;

    // Transition detection.
    const int32_t ylint = s.yl >> 15;
    const int32_t ylfrac = (s.yl >> 10) & 31;
    const int16_t thr = ylint > 9 ? int16_t{31744} : wrap16((ylfrac + 32) << ylint);
    const int16_t dqthr = wrap16((thr + (thr >> 1)) >> 1);
    const int32_t dqsign = int32_t{dq} >> 15;
    const int32_t dqabs = (dq ^ dqsign) - dqsign;
    const bool tr = (dqabs > dqthr) & (s.td == 1);

    // Fast, then slow scale factor.
    s.yu = clamp16(wrap16(y + kWi[code] - (y >> 5)), 544, 5120);
    s.yl = s.yl + s.yu - (s.yl >> 6);

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
    // With a2t within +-12288 the lower limit a2t - 15360 is below the upper 15360 - a2t, so
    // the two tests are a clamp.
    const int32_t a1u = wrap16(s.a1 - (s.a1 >> 8) + g);
    const int16_t a1t = wrap16(std::min(std::max(a1u, a2t - 15360), 15360 - int32_t{a2t}));
    s.a2 = tr ? int16_t{0} : a2t;
    s.a1 = tr ? int16_t{0} : a1t;

    s.pk2 = s.pk1;
    s.pk1 = pk0;

    // Tone detection from the second pole before the transition reset.
    const bool tdp = a2t < -11776;
    s.td = (!tr && tdp) ? 1 : 0;

    s.dms = wrap16(s.dms + ((kFi[code] * 512 - s.dms) >> 5));
    s.dml = wrap16(s.dml + ((kFi[code] * 2048 - s.dml) >> 7));

    const int32_t spread = 4 * s.dms - s.dml;
    const bool ax = (y < 1536) | (wrap16(spread < 0 ? -spread : spread) >= (s.dml >> 3)) | tdp;
    s.ap = tr ? int16_t{256} : wrap16(s.ap + (((ax ? 512 : 0) - s.ap) >> 4));
    return tr;
}

// The whole adaptation after code I; returns the reconstructed sample. The zeros compare
// against the dq history before this sample joins it.
inline int16_t adapt(AdpcmState& s, int code, const Estimate& est, int16_t dq) {
    const bool tr = adapt_scalars(s, code, est, dq);
    for (int k = 0; k < 6; ++k) {
        int32_t h = 0;
        if (dq != 0) h = (s.dq[k] < 0) != (dq < 0) ? -128 : 128;
        s.b[k] = tr ? int16_t{0} : wrap16(s.b[k] - (s.b[k] >> 8) + h);
    }
    const int16_t sr = wrap16(dq + est.se);
    s.sr2 = s.sr1;
    s.sr1 = sr;
    for (int k = 5; k > 0; --k) s.dq[k] = s.dq[k - 1];
    s.dq[0] = dq;
    return sr;
}

// The adaptive quantizer: the log of the difference's magnitude against the scale, then the
// interval of the Recommendation's table it falls in, counted without branches (codes 1..7 for
// the intervals from below 80 up; 15 below -124); a negative difference mirrors the code.
inline int quantize(int16_t sl, const Estimate& est) {
    const int16_t d = wrap16(sl - est.se);
    const int16_t m = wrap16(d < 0 ? -int32_t{d} : int32_t{d});  // -32768 stays -32768
    // 14 - norm_shift(m): the top bit's position, 0 for 0, and 14 for -32768 (seen as 32768).
    const int32_t e =
        std::min(31 - std::countl_zero(static_cast<uint32_t>(static_cast<uint16_t>(m)) | 1u), 14);
    const int32_t mant = ((m * 128) >> e) & 127;
    const int16_t dln = wrap16(e * 128 + mant - (est.y >> 2));

    // The sign bit of threshold - 1 - dln is set when dln reaches the threshold; counted as
    // arithmetic so that no comparison becomes a branch.
    const auto reaches = [dln](int32_t threshold) {
        return static_cast<int>(static_cast<uint32_t>(threshold - 1 - dln) >> 31);
    };
    int code =
        1 + reaches(80) + reaches(178) + reaches(246) + reaches(300) + reaches(349) + reaches(400);
    code ^= (int32_t{d} >> 15) & 15;          // 15 - code for a negative difference
    const int32_t below = (dln + 124) >> 31;  // all ones when dln < -124: code 15
    code = (code & ~below) | (15 & below);
    return code;
}

inline int encode_one(AdpcmState& state, int16_t sl) {
    const Estimate est = estimate(state);
    const int code = quantize(sl, est);
    adapt(state, code, est, reconstruct(code, est.y));
    return code;
}

#if defined(__SSE2__)
// The block coder with the predictor in two vectors of eight 16-bit lanes: the coefficients
// [b1..b6, a1, a2] and the history [dq1..dq6, sr1, sr2]. One multiply-add gives the four pair
// sums of the estimate (a pair of -32768 x -32768 products wraps to -2^31 there, as the 32-bit
// accumulator does); the six zeros adapt in one pass of 16-bit lane arithmetic, which wraps like
// wrap16; and moving the history up one lane ages dq and sr1 at once (dq6 drops out into the
// sr1 lane, which the new sr then overwrites). The scalar fields follow the plain path.
void encode_block_vector(AdpcmState& state, const int16_t* samples, int count, uint8_t* codes) {
    AdpcmState s = state;
    __m128i coef = _mm_setr_epi16(s.b[0], s.b[1], s.b[2], s.b[3], s.b[4], s.b[5], s.a1, s.a2);
    __m128i hist =
        _mm_setr_epi16(s.dq[0], s.dq[1], s.dq[2], s.dq[3], s.dq[4], s.dq[5], s.sr1, s.sr2);
    const __m128i step = _mm_set1_epi16(128);
    const __m128i flip = _mm_set1_epi16(static_cast<int16_t>(0xFF00));
    for (int i = 0; i < count; ++i) {
        // [b1dq1 + b2dq2, b3dq3 + b4dq4, b5dq5 + b6dq6, a1sr1 + a2sr2]
        const __m128i pairs = _mm_madd_epi16(coef, hist);
        const __m128i halves = _mm_add_epi32(pairs, _mm_shuffle_epi32(pairs, 0x4E));
        const uint32_t all = static_cast<uint32_t>(
            _mm_cvtsi128_si32(_mm_add_epi32(halves, _mm_shuffle_epi32(halves, 0xB1))));
        const uint32_t poles =
            static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_shuffle_epi32(pairs, 3)));
        Estimate est{};
        est.sez = wrap16(static_cast<int32_t>(all - poles) >> 14);
        est.se = wrap16(static_cast<int32_t>(all) >> 14);
        est.y = scale(s);

        const int code = quantize(samples[i], est);
        codes[i] = static_cast<uint8_t>(code);
        const int16_t dq = reconstruct(code, est.y);
        const bool tr = adapt_scalars(s, code, est, dq);

        // h = 0 when dq is 0, else -128 where the sign of dqk differs from dq's, 128 elsewhere.
        const __m128i differs =
            _mm_xor_si128(_mm_srai_epi16(hist, 15), _mm_set1_epi16(static_cast<int16_t>(dq >> 15)));
        __m128i h = _mm_xor_si128(step, _mm_and_si128(differs, flip));
        h = _mm_andnot_si128(_mm_cmpeq_epi16(_mm_set1_epi16(dq), _mm_setzero_si128()), h);
        __m128i zeros = _mm_add_epi16(_mm_sub_epi16(coef, _mm_srai_epi16(coef, 8)), h);
        zeros = _mm_andnot_si128(_mm_set1_epi16(tr ? -1 : 0), zeros);
        coef = _mm_insert_epi16(_mm_insert_epi16(zeros, s.a1, 6), s.a2, 7);

        const int16_t sr = wrap16(dq + est.se);
        hist = _mm_insert_epi16(_mm_insert_epi16(_mm_slli_si128(hist, 2), dq, 0), sr, 6);
    }
    alignas(16) int16_t lanes[8];
    _mm_store_si128(reinterpret_cast<__m128i*>(lanes), coef);
    for (int k = 0; k < 6; ++k) s.b[k] = lanes[k];
    _mm_store_si128(reinterpret_cast<__m128i*>(lanes), hist);
    for (int k = 0; k < 6; ++k) s.dq[k] = lanes[k];
    s.sr1 = lanes[6];
    s.sr2 = lanes[7];
    state = s;
}
#endif

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
#if defined(__SSE2__)
    encode_block_vector(state, samples, count, codes);
#else
    // The state is worked on in a local copy and stored back once.
    AdpcmState s = state;
    for (int i = 0; i < count; ++i) codes[i] = static_cast<uint8_t>(encode_one(s, samples[i]));
    state = s;
#endif
}

int16_t adpcm_decode_code(AdpcmState& state, int code) {
    code &= 15;
    const Estimate est = estimate(state);
    return adapt(state, code, est, reconstruct(code, est.y));
}

namespace {

// sample x gain, truncated toward zero, low 16 bits. The product of a 16-bit integer and a
// float is exact in double, so the truncation sees the true product. A product that is not a
// number or infinite gives 0; a finite one beyond 32 bits keeps the low 16 bits of its integer.
inline int16_t gained(int16_t sample, double gain) {
    const double x = static_cast<double>(sample) * gain;
    if (x > -2147483648.0 && x < 2147483648.0) return wrap16(static_cast<int32_t>(x));
    if (!std::isfinite(x)) return 0;
    return wrap16(static_cast<int32_t>(std::fmod(std::trunc(x), 65536.0)));
}

}  // namespace

float largest_gain_without_wrap(int32_t extreme) {
    if (extreme == 0) return std::numeric_limits<float>::max();
    const double bound = extreme > 0 ? 32768.0 : 32769.0;
    // The float nearest the bound's quotient, then a step or two to the exact edge.
    auto g = static_cast<float>(bound / std::fabs(static_cast<double>(extreme)));
    while (gain_wraps(extreme, g)) g = std::nextafter(g, 0.0f);
    for (float up = std::nextafter(g, std::numeric_limits<float>::max()); !gain_wraps(extreme, up);
         up = std::nextafter(g, std::numeric_limits<float>::max())) {
        g = up;
    }
    return g;
}

void apply_gain(int16_t* samples, int16_t count, float gain) {
    const double g = gain;
    for (int i = 0; i < count; ++i) samples[i] = gained(samples[i], g);
}

void adpcm_encode_frame(AdpcmState& state, int16_t samples[kAdpcmFrameSamples], float gain,
                        uint8_t packed[kAdpcmFrameBytes]) {
    apply_gain(samples, kAdpcmFrameSamples, gain);
    uint8_t codes[kAdpcmFrameSamples];
    adpcm_encode_block(state, samples, kAdpcmFrameSamples, codes);
    for (int j = 0; j < kAdpcmFrameSamples / 4; ++j) {
        packed[2 * j] = static_cast<uint8_t>(codes[4 * j] | codes[4 * j + 1] << 4);
        packed[2 * j + 1] = static_cast<uint8_t>(codes[4 * j + 2] | codes[4 * j + 3] << 4);
    }
}

}  // namespace kavolib
