// Requantisation: each quantised value v becomes sign(v) |v|^(4/3) 2^(e/4), with the exponent e
// of its scale-factor band (and window, for short blocks). |v|^(4/3) comes from the table
// built at reset; the power of two from a shift and one of four stored quarter powers.
#include <algorithm>
#include <cmath>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "layer3/layer3_stages.h"
#include "layer3/layer3_tables.h"
#include "simd/simd.h"

namespace kavolib {

namespace {
double gain_from_exponent(int32_t e) {
    if (e < -127) return 0.0;
    if (e >= 0) return static_cast<double>(uint64_t{1} << (e >> 2)) * QuarterPowerUp[e & 3];
    const int32_t m = -e;
    return QuarterPowerDown[m & 3] / static_cast<double>(uint64_t{1} << (m >> 2));
}

// Magnitudes up to 8206 are possible (15 plus a 13-bit escape); those beyond the table are
// computed directly with the same power.
inline double pow43_of(const double* table, int32_t magnitude) {
    return magnitude < kPow43Size ? table[magnitude]
                                  : std::pow(static_cast<double>(magnitude), 4.0 / 3.0);
}

inline double signed_pow43_of(const double* table, double value) {
    const auto n = static_cast<int32_t>(value);
    return n >= 0 ? pow43_of(table, n) : -pow43_of(table, -n);
}

// The lines of one band: the power of the magnitude times the gain, and the sign put back
// afterwards by flipping the sign bit. Negating before or after the product gives the same
// bits (the rounding is symmetric), and this way the loop has no branch on the sign, which
// real spectra make unpredictable. A magnitude beyond the table is rare and takes the slow path.
void scale_run_plain(const double* table, double* values, int32_t count, double gain) {
    for (int32_t i = 0; i < count; ++i) {
        const auto n = static_cast<int32_t>(values[i]);
        const int32_t magnitude = n < 0 ? -n : n;
        if (magnitude >= kPow43Size) {
            values[i] = signed_pow43_of(table, values[i]) * gain;
            continue;
        }
        uint64_t bits = 0;
        const double scaled = table[magnitude] * gain;
        std::memcpy(&bits, &scaled, sizeof bits);
        bits ^= static_cast<uint64_t>(n < 0) << 63;
        std::memcpy(&values[i], &bits, sizeof bits);
    }
}

#if defined(__x86_64__)
// The same, four lines at a time: the magnitudes truncated to integers as the plain form does,
// their powers fetched by one gather, the product with the gain, and the sign bit flipped for
// negative values. Four lines with a magnitude beyond the table (or a value too large for an
// integer) take the plain form, as does the tail.
KAVO_AVX2 void scale_run_avx2(const double* table, double* values,
                                                    int32_t count, double gain) {
    const __m256d g = _mm256_set1_pd(gain);
    const __m128i last = _mm_set1_epi32(kPow43Size - 1);
    const __m128i zero = _mm_setzero_si128();
    const __m256d all = _mm256_castsi256_pd(_mm256_set1_epi64x(-1));
    int32_t i = 0;
    for (; i + 4 <= count; i += 4) {
        const __m128i n = _mm256_cvttpd_epi32(_mm256_loadu_pd(values + i));
        const __m128i magnitude = _mm_abs_epi32(n);
        const __m128i outside =
            _mm_or_si128(_mm_cmpgt_epi32(magnitude, last), _mm_cmplt_epi32(magnitude, zero));
        if (_mm_movemask_epi8(outside) != 0) {
            scale_run_plain(table, values + i, 4, gain);
            continue;
        }
        const __m256d powers =
            _mm256_mask_i32gather_pd(_mm256_setzero_pd(), table, magnitude, all, 8);
        const __m256d scaled = _mm256_mul_pd(powers, g);
        const __m256i sign = _mm256_slli_epi64(_mm256_cvtepi32_epi64(_mm_srli_epi32(n, 31)), 63);
        _mm256_storeu_pd(values + i, _mm256_xor_pd(scaled, _mm256_castsi256_pd(sign)));
    }
    scale_run_plain(table, values + i, count - i, gain);
}

// The same, eight lines at a time, the test for the table's range made in the opmask registers.
KAVO_AVX512 void scale_run_avx512(const double* table, double* values, int32_t count,
                                  double gain) {
    const __m512d g = _mm512_set1_pd(gain);
    const __m256i last = _mm256_set1_epi32(kPow43Size - 1);
    const __m512i sign_bit = _mm512_set1_epi64(INT64_MIN);
    int32_t i = 0;
    for (; i + 8 <= count; i += 8) {
        // The masked forms with every lane set: GCC's unmasked ones start from an undefined
        // register, which its uninitialised-value warning flags.
        const __m256i n = _mm512_mask_cvttpd_epi32(_mm256_setzero_si256(), 0xFF,
                                                   _mm512_loadu_pd(values + i));
        const __m256i magnitude = _mm256_abs_epi32(n);
        // Unsigned, so that the magnitude of the integer conversion's overflow value (2^31)
        // counts as beyond the table.
        if (_mm256_cmpgt_epu32_mask(magnitude, last) != 0) {
            scale_run_plain(table, values + i, 8, gain);
            continue;
        }
        const __m512d powers =
            _mm512_mask_i32gather_pd(_mm512_setzero_pd(), 0xFF, magnitude, table, 8);
        const __m512d scaled = _mm512_mul_pd(powers, g);
        const __mmask8 negative = _mm256_movepi32_mask(n);
        _mm512_storeu_pd(values + i,
                         _mm512_castsi512_pd(_mm512_mask_xor_epi64(
                             _mm512_castpd_si512(scaled), negative, _mm512_castpd_si512(scaled),
                             sign_bit)));
    }
    scale_run_plain(table, values + i, count - i, gain);
}

#endif

void scale_run(const double* table, double* values, int32_t count, double gain) {
#if defined(__x86_64__)
    if (use_avx512()) {
        scale_run_avx512(table, values, count, gain);
        return;
    }
    if (use_avx2()) {
        scale_run_avx2(table, values, count, gain);
        return;
    }
#endif
    scale_run_plain(table, values, count, gain);
}

// One past the last line whose value is not +0.0 (bit for bit). Those lines would become
// 0.0 times a gain that is never negative, that is +0.0 again, so the long-block path leaves
// them as they are.
int32_t end_of_nonzero(const double* values) {
    int32_t end = kGranuleLines;
    while (end > 0) {
        uint64_t bits = 0;
        std::memcpy(&bits, values + end - 1, sizeof bits);
        if (bits != 0) break;
        --end;
    }
    return end;
}
}  // namespace

double signed_pow43(const Layer3State& state, double value) {
    return signed_pow43_of(state.pow43, value);
}

double long_band_gain(uint32_t global_gain, uint32_t scalefac_scale, uint32_t scale_factor,
                      int32_t band, uint32_t preflag) {
    const uint32_t shift = scalefac_scale + 1;
    const int32_t e = static_cast<int32_t>(global_gain) - 210 -
                      static_cast<int32_t>(scale_factor << shift) -
                      (preflag == 1 ? static_cast<int32_t>(pretab[band] << shift) : 0);
    return gain_from_exponent(e);
}

double short_band_gain(uint32_t global_gain, uint32_t subblock_gain, uint32_t scalefac_scale,
                       uint32_t scale_factor) {
    const int32_t e = static_cast<int32_t>(global_gain) - 210 -
                      8 * static_cast<int32_t>(subblock_gain) -
                      static_cast<int32_t>(scale_factor << (scalefac_scale + 1));
    return gain_from_exponent(e);
}

void requantise(Layer3State& state, int32_t granule, int32_t channel) {
    const GranuleInfo& gi = state.side_info.gr[granule][channel];
    const ScaleFactors& sf = state.scale_factors;
    const int32_t* lb = state.long_bounds;
    const int32_t* sb = state.short_bounds;
    const double* table = state.pow43;
    double* values = state.spectrum;

    if (gi.block_type != 2) {
        const int32_t end = end_of_nonzero(values);
        for (int32_t b = 0; b < 22 && lb[b] < end; ++b) {
            const double gain =
                long_band_gain(gi.global_gain, gi.scalefac_scale, sf.l[channel][b], b, gi.preflag);
            scale_run(table, values + lb[b], std::min(lb[b + 1], end) - lb[b], gain);
        }
        return;
    }
    int32_t p = 0;
    int32_t first_band = 0;
    if (gi.mixed_block_flag != 0) {
        int32_t b = 0;
        double gain =
            long_band_gain(gi.global_gain, gi.scalefac_scale, sf.l[channel][0], 0, gi.preflag);
        for (int32_t i = 0; i < 36; ++i) {
            values[i] = signed_pow43_of(table, values[i]) * gain;
            if (i + 1 == lb[b + 1]) {
                ++b;
                gain = long_band_gain(gi.global_gain, gi.scalefac_scale, sf.l[channel][b], b,
                                      gi.preflag);
            }
        }
        p = 36;
        first_band = 3;
    }
    for (int32_t b = first_band; b < 13; ++b) {
        const int32_t n = sb[b + 1] - sb[b];
        for (int32_t w = 0; w < 3; ++w) {
            const double gain = short_band_gain(gi.global_gain, gi.subblock_gain[w],
                                                gi.scalefac_scale, sf.s[channel][b][w]);
            scale_run(table, values + p, n, gain);
            p += n;
        }
    }
    // With the 8 kHz bands a mixed block's layout ends at line 540; the lines beyond it carry
    // no band and are set to zero.
    if (p < kGranuleLines)
        std::memset(values + p, 0, sizeof(double) * static_cast<size_t>(kGranuleLines - p));
}

}  // namespace kavolib
