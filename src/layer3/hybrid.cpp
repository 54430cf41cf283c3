// The inverse hybrid filterbank per channel: alias-reduction butterflies between subbands,
// then per subband a 36-point IMDCT (or three 12-point ones for short blocks) computed through
// a 9-point (3-point) complex DFT with pre- and post-rotation, windowed by block type and
// overlapped with the previous granule. The overlap keeps 9 unwindowed values per subband.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "layer3/layer3_stages.h"
#include "layer3/layer3_tables.h"
#include "simd/simd.h"
#include "platform/platform.h"

namespace kavolib {

namespace {
// The transform's kernels are written once over the value type T: double for one subband, or
// Double4 or Double8 for four or eight subbands at once (one per lane). Each lane then performs
// exactly the scalar operations in the same order, so every form gives the same bits. Each is
// inlined where it is used, so that the vector forms are built for the vector unit their caller
// was built for, and their short loops are unrolled, so that the values can stay in registers.

// a * e^{i theta} given cos and sin of theta, in place.
template <class T>
__attribute__((always_inline)) inline void rotate(T& re, T& im, double c, double s) {
    const T r = re;
    const T i = im;
    re = r * c - i * s;
    im = r * s + i * c;
}

// The 3-point transform of (re[a], im[a]), (re[b], im[b]), (re[c], im[c]), in place.
template <class T>
__attribute__((always_inline)) inline void butterfly3(T* re, T* im, int a, int b, int c) {
    const double c3 = DftConstants[0];
    const double s3 = DftConstants[4];
    const T u0r = re[a];
    const T u0i = im[a];
    const T tr = re[b] + re[c];
    const T ti = im[b] + im[c];
    const T dr = re[b] - re[c];
    const T di = im[b] - im[c];
    const T mr = u0r + c3 * tr;
    const T mi = u0i + c3 * ti;
    re[a] = u0r + re[b] + re[c];
    im[a] = u0i + im[b] + im[c];
    // i * sin(2pi/3) * d: real part -s*d.im, imaginary part s*d.re
    re[b] = mr - s3 * di;
    im[b] = mi + s3 * dr;
    re[c] = mr + s3 * di;
    im[c] = mi - s3 * dr;
}

template <class T>
__attribute__((always_inline)) inline void swap_points(T* re, T* im, int a, int b) {
    const T r = re[a];
    const T i = im[a];
    re[a] = re[b];
    im[a] = im[b];
    re[b] = r;
    im[b] = i;
}

template <class T>
__attribute__((always_inline)) inline void pre_twiddle_of(const T* input, const double* cosines,
                                                          const double* sines, T* re, T* im,
                                                          int32_t m) {
    const int32_t last = 2 * m - 1;
#pragma GCC unroll 18
    for (int32_t k = 0; k < m; ++k) {
        const T a = input[2 * k];
        const T b = input[last - 2 * k];
        re[k] = -b * cosines[k] - a * sines[k];
        im[k] = a * cosines[k] - b * sines[k];
    }
}

template <class T>
__attribute__((always_inline)) inline void dft9_of(T* re, T* im) {
#pragma GCC unroll 18
    for (int k = 0; k < 3; ++k) butterfly3(re, im, k, k + 3, k + 6);
    // After the first pass, position k + 3j holds output j of column k; these four need the
    // twiddle e^{+2 pi i kj / 9}.
    const double c1 = DftConstants[1];
    const double c2 = DftConstants[2];
    const double c4 = DftConstants[3];
    const double s1 = DftConstants[5];
    const double s2 = DftConstants[6];
    const double s4 = DftConstants[7];
    rotate(re[4], im[4], c1, s1);
    rotate(re[5], im[5], c2, s2);
    rotate(re[7], im[7], c2, s2);
    rotate(re[8], im[8], c4, s4);
#pragma GCC unroll 18
    for (int j = 0; j < 3; ++j) butterfly3(re, im, 3 * j, 3 * j + 1, 3 * j + 2);
    swap_points(re, im, 1, 3);
    swap_points(re, im, 2, 6);
    swap_points(re, im, 5, 7);
}

template <class T>
__attribute__((always_inline)) inline void post_twiddle_of(T* re, T* im, const double* cosines,
                                                           const double* sines, int32_t m) {
#pragma GCC unroll 18
    for (int32_t k = 0; k < m; ++k) rotate(re[k], im[k], cosines[k], sines[k]);
}

// The 36-point IMDCT's halves: A[m] = x[2m], B[m] = x[18 + 2m].
template <class T>
__attribute__((always_inline)) inline void long_transform(const T* input, T* a_half, T* b_half) {
    T re[9];
    T im[9];
    pre_twiddle_of(input, LongPreCos, LongPreSin, re, im, 9);
    dft9_of(re, im);
    post_twiddle_of(re, im, LongPostCos, LongPostSin, 9);
#pragma GCC unroll 18
    for (int m = 0; m < 9; ++m) {
        a_half[m] = im[m];
        b_half[m] = re[m];
    }
}

// One window of the 12-point IMDCT: A[m] = x_w[2m], B[m] = x_w[6 + 2m].
template <class T>
__attribute__((always_inline)) inline void short_transform(const T* input, int w, T* a_half,
                                                           T* b_half) {
    T x[6];
#pragma GCC unroll 18
    for (int k = 0; k < 6; ++k) x[k] = input[w + 3 * k];
    T re[3];
    T im[3];
    pre_twiddle_of(x, ShortPreCos, ShortPreSin, re, im, 3);
    butterfly3(re, im, 0, 1, 2);
    post_twiddle_of(re, im, ShortPostCos, ShortPostSin, 3);
#pragma GCC unroll 18
    for (int m = 0; m < 3; ++m) {
        a_half[m] = im[m];
        b_half[m] = re[m];
    }
}

// The transform of one subband's 18 values (or four subbands', lane by lane), windowed by the
// block type and added to the previous granule's second half, windowed by its own block type,
// into y[0..17]; o (the 9 unwindowed values kept per subband) is read, then replaced.
template <class T>
__attribute__((always_inline)) inline void imdct_window_overlap(const T* input, T* o, T* y,
                                                                uint32_t block_type,
                                                                uint32_t previous_block_type) {
    // The previous granule's second half, windowed by its own block type.
    if (previous_block_type != 2) {
        T p[18];
#pragma GCC unroll 18
        for (int m = 0; m < 9; ++m) {
            p[2 * m] = o[m];
            p[2 * m + 1] = o[8 - m];
        }
        if (previous_block_type == 1) {
#pragma GCC unroll 18
            for (int n = 0; n < 6; ++n) y[n] = p[n];
#pragma GCC unroll 18
            for (int n = 6; n < 12; ++n) y[n] = ShortWindow[11 - n] * p[n];
#pragma GCC unroll 18
            for (int n = 12; n < 18; ++n) y[n] = T{};
        } else {
#pragma GCC unroll 18
            for (int n = 0; n < 18; ++n) y[n] = LongWindow[17 - n] * p[n];
        }
    } else {
        T q1[12];  // window 1's tail at 6..11
        T q2[12];  // window 2, whole
#pragma GCC unroll 18
        for (int m = 0; m < 3; ++m) {
            q1[6 + 2 * m] = o[m];
            q1[6 + 2 * m + 1] = o[2 - m];
            q2[2 * m] = o[3 + m];
            q2[2 * m + 1] = -o[5 - m];
            q2[6 + 2 * m] = o[6 + m];
            q2[6 + 2 * m + 1] = o[8 - m];
        }
#pragma GCC unroll 18
        for (int n = 0; n < 6; ++n) y[n] = ShortWindow[5 - n] * q1[6 + n] + ShortWindow[n] * q2[n];
#pragma GCC unroll 18
        for (int n = 6; n < 12; ++n) y[n] = ShortWindow[11 - n] * q2[n];
#pragma GCC unroll 18
        for (int n = 12; n < 18; ++n) y[n] = T{};
    }

    if (block_type != 2) {
        T a_half[9];
        T b_half[9];
        long_transform(input, a_half, b_half);
        T x[18];  // first half of the transform
#pragma GCC unroll 18
        for (int m = 0; m < 9; ++m) {
            x[2 * m] = a_half[m];
            x[2 * m + 1] = -a_half[8 - m];
        }
        if (block_type == 3) {
#pragma GCC unroll 18
            for (int n = 6; n < 12; ++n) y[n] = y[n] + ShortWindow[n - 6] * x[n];
#pragma GCC unroll 18
            for (int n = 12; n < 18; ++n) y[n] = y[n] + x[n];
        } else {
#pragma GCC unroll 18
            for (int n = 0; n < 18; ++n) y[n] = y[n] + LongWindow[n] * x[n];
        }
#pragma GCC unroll 18
        for (int m = 0; m < 9; ++m) o[m] = b_half[m];
    } else {
        T a_half[3][3];
        T b_half[3][3];
#pragma GCC unroll 18
        for (int w = 0; w < 3; ++w) short_transform(input, w, a_half[w], b_half[w]);
        T x0[6];
        T x1[6];
        T x0_tail[6];  // window 0's second half, x_0[6..11], from its B half
#pragma GCC unroll 18
        for (int m = 0; m < 3; ++m) {
            x0[2 * m] = a_half[0][m];
            x0[2 * m + 1] = -a_half[0][2 - m];
            x1[2 * m] = a_half[1][m];
            x1[2 * m + 1] = -a_half[1][2 - m];
            x0_tail[2 * m] = b_half[0][m];
            x0_tail[2 * m + 1] = b_half[0][2 - m];
        }
#pragma GCC unroll 18
        for (int n = 6; n < 12; ++n) y[n] = y[n] + ShortWindow[n - 6] * x0[n - 6];
#pragma GCC unroll 18
        for (int n = 12; n < 18; ++n) {
            y[n] =
                y[n] + (ShortWindow[17 - n] * x0_tail[n - 12] + ShortWindow[n - 12] * x1[n - 12]);
        }
#pragma GCC unroll 18
        for (int m = 0; m < 3; ++m) {
            o[m] = b_half[1][m];
            o[3 + m] = a_half[2][m];
            o[6 + m] = b_half[2][m];
        }
    }
}

[[noreturn]] void unknown_block_type(const char* text) {
    std::fputs(text, stdout);
    end_process(1);
}
}  // namespace

namespace {
// The butterflies of one boundary between subbands, four pairs at a time: lanes h..h + 3 take
// the lower values in reverse (lower[-h] first), so each lane computes the scalar expressions
// of its pair.
__attribute__((always_inline)) inline void antialias_body(double* x, int32_t boundaries) {
    for (int32_t s = 0; s < boundaries; ++s) {
        double* lower = x + 18 * s + 17;
        double* upper = x + 18 * s + 18;
#pragma GCC unroll 2
        for (int32_t h = 0; h < 8; h += 4) {
            Double4 a;
            Double4 b;
            Double4 c;
            Double4 d;
            std::memcpy(&a, lower - h - 3, sizeof a);
            a = __builtin_shufflevector(a, a, 3, 2, 1, 0);
            std::memcpy(&b, upper + h, sizeof b);
            std::memcpy(&c, cs + h, sizeof c);
            std::memcpy(&d, ca + h, sizeof d);
            const Double4 product = a * c - b * d;
            const Double4 new_lower = __builtin_shufflevector(product, product, 3, 2, 1, 0);
            const Double4 new_upper = b * c + a * d;
            std::memcpy(lower - h - 3, &new_lower, sizeof new_lower);
            std::memcpy(upper + h, &new_upper, sizeof new_upper);
        }
    }
}
KAVO_AVX2 void antialias_avx2(double* x, int32_t boundaries) { antialias_body(x, boundaries); }

void antialias_plain(double* x, int32_t boundaries) { antialias_body(x, boundaries); }
}  // namespace

void antialias(const Layer3State& state, int32_t granule, int32_t channel, double* x) {
    const GranuleInfo& gi = state.side_info.gr[granule][channel];
    int32_t boundaries = 31;
    if (gi.block_type == 2) boundaries = gi.mixed_block_flag != 0 ? 1 : 0;
    if (use_avx2()) {
        antialias_avx2(x, boundaries);
    } else {
        antialias_plain(x, boundaries);
    }
}

void imdct_subband(const double* input, double* overlap, double* output, uint32_t block_type,
                   uint32_t previous_block_type, int32_t subband) {
    if (previous_block_type > 3) unknown_block_type("Unknown block_type_prev");
    if (block_type > 3) unknown_block_type("Unknown block_type");
    double y[18];
    imdct_window_overlap(input, overlap, y, block_type, previous_block_type);

    // Frequency inversion of odd subbands: every odd sample negated.
    const bool invert = (subband & 1) != 0;
    for (int n = 0; n < 18; ++n) {
        output[32 * n] = (invert && (n & 1) != 0) ? -y[n] : y[n];
    }
}

namespace {
__attribute__((always_inline)) inline void transpose_rows(Double4* rows) {
    transpose4(rows[0], rows[1], rows[2], rows[3]);
}
__attribute__((always_inline)) inline void transpose_rows(Double8* rows) { transpose8(rows); }

// imdct_subband for the W subbands s0 to s0 + W - 1 at once (one subband per lane of V, a
// vector of W doubles), all of the same block type and previous block type.
template <typename V, typename Bits>
__attribute__((always_inline)) inline void imdct_subbands(const double* input, double (*overlap)[32],
                                            double* output, int s0, uint32_t block_type,
                                            uint32_t previous_block_type) {
    constexpr int W = static_cast<int>(sizeof(V) / sizeof(double));
    V o[9];
#pragma GCC unroll 18
    for (int m = 0; m < 9; ++m) std::memcpy(&o[m], overlap[m] + s0, sizeof o[m]);
    // The subbands' 18 values, lane by lane: blocks of W values of each subband transposed,
    // the last block overlapping the one before it (ending at 17).
    V in[18];
#pragma GCC unroll 5
    for (int block = 0; block <= 18 / W; ++block) {
        const int k = block < 18 / W ? W * block : 18 - W;
#pragma GCC unroll 8
        for (int l = 0; l < W; ++l) std::memcpy(&in[k + l], input + 18 * l + k, sizeof in[0]);
        transpose_rows(in + k);
    }
    V y[18];
    imdct_window_overlap(in, o, y, block_type, previous_block_type);
#pragma GCC unroll 18
    for (int m = 0; m < 9; ++m) std::memcpy(overlap[m] + s0, &o[m], sizeof o[m]);

    // Frequency inversion: the odd lanes are the odd subbands; their odd samples change sign
    // (the sign bit flipped, as a negation does).
    Bits odd_lanes{};
#pragma GCC unroll 8
    for (int l = 1; l < W; l += 2) odd_lanes[l] = INT64_MIN;
#pragma GCC unroll 18
    for (int n = 0; n < 18; ++n) {
        V v = y[n];
        if ((n & 1) != 0) v = reinterpret_cast<V>(reinterpret_cast<Bits>(v) ^ odd_lanes);
        std::memcpy(output + 32 * n + s0, &v, sizeof v);
    }
}

KAVO_AVX512 void imdct_eight_subbands_avx512(const double* input, double (*overlap)[32],
                                             double* output, int s0, uint32_t block_type,
                                             uint32_t previous_block_type) {
    imdct_subbands<Double8, Long8>(input, overlap, output, s0, block_type, previous_block_type);
}

KAVO_AVX2 void imdct_four_subbands_avx2(const double* input, double (*overlap)[32], double* output,
                                        int s0, uint32_t block_type, uint32_t previous_block_type) {
    imdct_subbands<Double4, Long4>(input, overlap, output, s0, block_type, previous_block_type);
}

void imdct_four_subbands_plain(const double* input, double (*overlap)[32], double* output, int s0,
                               uint32_t block_type, uint32_t previous_block_type) {
    imdct_subbands<Double4, Long4>(input, overlap, output, s0, block_type, previous_block_type);
}
}  // namespace

void hybrid_synthesis(Layer3State& state, int32_t granule, int32_t channel, const double* x) {
    const GranuleInfo& gi = state.side_info.gr[granule][channel];
    PreviousBlock& previous = state.previous_block[channel];
    const bool mixed = gi.window_switching_flag != 0 && gi.mixed_block_flag != 0;
    const bool previous_mixed =
        previous.window_switching_flag != 0 && previous.mixed_block_flag != 0;
    double(*overlap)[32] = state.overlap[channel];
    // Groups of eight subbands on the AVX-512 path, of four otherwise.
    for (int32_t s0 = 0; s0 < 32;) {
        // Only the long part of a mixed block (subbands 0 and 1) can differ from its group.
        if (s0 == 0 && (mixed || previous_mixed)) {
            for (int32_t s = 0; s < 4; ++s) {
                const uint32_t type = (mixed && s < 2) ? 0u : gi.block_type;
                const uint32_t previous_type = (previous_mixed && s < 2) ? 0u : previous.block_type;
                double o[9];
                for (int m = 0; m < 9; ++m) o[m] = overlap[m][s];
                imdct_subband(x + 18 * s, o, state.spectrum + s, type, previous_type, s);
                for (int m = 0; m < 9; ++m) overlap[m][s] = o[m];
            }
            s0 = 4;
            continue;
        }
        if (previous.block_type > 3) unknown_block_type("Unknown block_type_prev");
        if (gi.block_type > 3) unknown_block_type("Unknown block_type");
        if (use_avx512() && s0 % 8 == 0) {
            imdct_eight_subbands_avx512(x + 18 * s0, overlap, state.spectrum, s0, gi.block_type,
                                        previous.block_type);
            s0 += 8;
            continue;
        }
        if (use_avx2()) {
            imdct_four_subbands_avx2(x + 18 * s0, overlap, state.spectrum, s0, gi.block_type,
                                     previous.block_type);
        } else {
            imdct_four_subbands_plain(x + 18 * s0, overlap, state.spectrum, s0, gi.block_type,
                                      previous.block_type);
        }
        s0 += 4;
    }
    previous.block_type = gi.block_type;
    previous.window_switching_flag = gi.window_switching_flag;
    previous.mixed_block_flag = gi.mixed_block_flag;
}

}  // namespace kavolib
