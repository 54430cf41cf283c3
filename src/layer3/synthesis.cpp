// The polyphase synthesis filterbank: each time slot's 32 subband samples are matrixed by a
// fast 32-point cosine transform into the channel's history of the last 16 slots, and 32 output
// samples are formed from that history with the 512-tap window (256 halved values stored).
// synthesize_slot is the plain form over a 512-value history that moves by one slot each time;
// synthesize_granule computes the same values in the same order over a ring of slots, four
// or eight outputs at a time.
#include <array>
#include <cstring>

#include "layer3/layer3_stages.h"
#include "layer3/layer3_tables.h"
#include "simd/simd.h"

namespace kavolib {

namespace {
constexpr int reverse_bits(int value, int bits) {
    int result = 0;
    for (int b = 0; b < bits; ++b) result |= ((value >> b) & 1) << (bits - 1 - b);
    return result;
}

// The window as the output loop walks it: for output j, the 16 coefficients D[64i + j] and
// D[64i + 32 + j] (i = 0..7) as stored halves, with the window's sign rule and the sign of the
// history value folded in (a sign change is exact, so the products are unchanged), and the
// history positions they multiply.
struct WindowPlan {
    double coef[32][16];
    int index[32][16];
};

double half_window(int i) {  // D[i] / 2 from the stored half
    if (i == 0) return 0.0;
    if (i <= 256) return SynthesisWindow[i - 1];
    const int k = 512 - i;
    return (k % 64 == 0) ? SynthesisWindow[k - 1] : -SynthesisWindow[k - 1];
}

WindowPlan make_plan() {
    WindowPlan plan{};
    for (int j = 0; j < 32; ++j) {
        for (int i = 0; i < 8; ++i) {
            // P_{2i}(j): slot 2i back
            const int sp = 2 * i;
            double sign_p = 1.0;
            int pos_p = 0;
            if (j < 16) {
                sign_p = -1.0;
                pos_p = 15 - j;
            } else if (j == 16) {
                sign_p = 0.0;
            } else {
                pos_p = j - 17;
            }
            plan.coef[j][2 * i] = sign_p * half_window(64 * i + j);
            plan.index[j][2 * i] = 32 * sp + pos_p;
            // Q_{2i+1}(j): slot 2i + 1 back
            const int sq = 2 * i + 1;
            const int pos_q = j < 16 ? 15 + j : 47 - j;
            plan.coef[j][2 * i + 1] = half_window(64 * i + 32 + j);
            plan.index[j][2 * i + 1] = 32 * sq + pos_q;
        }
    }
    return plan;
}

const WindowPlan kPlan = make_plan();
}  // namespace

void synthesize_slot(const double* slot, double* history, double* out) {
    std::memmove(history + 32, history, sizeof(double) * 480);

    double r[32];
    for (int i = 0; i < 16; ++i) {
        const double a = slot[2 * i];
        const double b = slot[31 - 2 * i];
        r[i] = -(a + b);
        r[16 + i] = (b - a) * DctCos[i];
    }
    // Butterfly stages with half 8, 4, 2 and their cosines.
    const double* cosines = DctCos + 16;
    for (int half = 8; half >= 2; half /= 2) {
        for (int base = 0; base < 32; base += 2 * half) {
            for (int k = 0; k < half; ++k) {
                const double a = r[base + k];
                const double b = r[base + half + k];
                r[base + k] = a + b;
                r[base + half + k] = (a - b) * cosines[k];
            }
        }
        cosines += half;
    }
    for (int m = 0; m < 16; ++m) {
        const double a = r[2 * m];
        const double b = r[2 * m + 1];
        r[2 * m] = a + b;
        r[2 * m + 1] = (a - b) * DctCos[30];
    }
    // Recombination: in each group, the upper half walked in bit-reversed order, each value
    // after the first becoming twice itself minus the previous one of the walk.
    for (int size = 4, bits = 1; size <= 32; size *= 2, ++bits) {
        const int half = size / 2;
        for (int base = 0; base < 32; base += size) {
            int previous = base + half;
            for (int o = 1; o < half; ++o) {
                const int index = base + half + reverse_bits(o, bits);
                r[index] = 2.0 * r[index] - r[previous];
                previous = index;
            }
        }
    }
    for (int k = 0; k < 32; ++k) history[31 - k] = r[reverse_bits(k, 5)];

    // Each output sums its 16 products in the order i = 0..7, P before Q, then doubles.
    for (int j = 0; j < 32; ++j) {
        const double* coef = kPlan.coef[j];
        const int* index = kPlan.index[j];
        double sum = 0.0;
        for (int t = 0; t < 16; ++t) sum += history[index[t]] * coef[t];
        out[j] = 2.0 * sum;
    }
}

namespace {
// One step of the recombination: r[index] = 2 r[index] - r[previous].
struct RecombineStep {
    int8_t index;
    int8_t previous;
};

constexpr std::array<RecombineStep, 49> make_recombine_steps() {
    std::array<RecombineStep, 49> steps{};
    int n = 0;
    for (int size = 4, bits = 1; size <= 32; size *= 2, ++bits) {
        const int half = size / 2;
        for (int base = 0; base < 32; base += size) {
            int previous = base + half;
            for (int o = 1; o < half; ++o) {
                const int index = base + half + reverse_bits(o, bits);
                steps[static_cast<size_t>(n++)] = {static_cast<int8_t>(index),
                                                   static_cast<int8_t>(previous)};
                previous = index;
            }
        }
    }
    return steps;
}

constexpr std::array<RecombineStep, 49> kRecombine = make_recombine_steps();

// Where the extended slot takes its values from R: e[k] = h[31 - k] = R[rev5(k)] and
// e[32 + m] = h[m] = R[rev5(31 - m)].
constexpr std::array<int8_t, 64> make_extended_order() {
    std::array<int8_t, 64> order{};
    for (int k = 0; k < 32; ++k) {
        order[static_cast<size_t>(k)] = static_cast<int8_t>(reverse_bits(k, 5));
        order[static_cast<size_t>(32 + k)] = static_cast<int8_t>(reverse_bits(31 - k, 5));
    }
    return order;
}

constexpr std::array<int8_t, 64> kExtendedOrder = make_extended_order();

// The matrixing of synthesize_slot, operation for operation, with the index arithmetic done at
// compile time, written for any element type; T is Double4 or Double8 here: four or eight
// slots at once, one per lane.
template <typename T>
__attribute__((always_inline)) inline void matrix_core(const T* slot, T* r) {
    for (int i = 0; i < 16; ++i) {
        const T a = slot[2 * i];
        const T b = slot[31 - 2 * i];
        r[i] = -(a + b);
        r[16 + i] = (b - a) * DctCos[i];
    }
    const double* cosines = DctCos + 16;
    for (int base = 0; base < 32; base += 16) {
        for (int k = 0; k < 8; ++k) {
            const T a = r[base + k];
            const T b = r[base + 8 + k];
            r[base + k] = a + b;
            r[base + 8 + k] = (a - b) * cosines[k];
        }
    }
    cosines += 8;
    for (int base = 0; base < 32; base += 8) {
        for (int k = 0; k < 4; ++k) {
            const T a = r[base + k];
            const T b = r[base + 4 + k];
            r[base + k] = a + b;
            r[base + 4 + k] = (a - b) * cosines[k];
        }
    }
    cosines += 4;
    for (int base = 0; base < 32; base += 4) {
        for (int k = 0; k < 2; ++k) {
            const T a = r[base + k];
            const T b = r[base + 2 + k];
            r[base + k] = a + b;
            r[base + 2 + k] = (a - b) * cosines[k];
        }
    }
    for (int m = 0; m < 16; ++m) {
        const T a = r[2 * m];
        const T b = r[2 * m + 1];
        r[2 * m] = a + b;
        r[2 * m + 1] = (a - b) * DctCos[30];
    }
#pragma GCC unroll 49
    for (const RecombineStep& step : kRecombine) {
        r[step.index] = 2.0 * r[step.index] - r[step.previous];
    }
}

// The rows of a block of values become its columns, for either vector width.
__attribute__((always_inline)) inline void transpose_rows(Double4* rows) {
    transpose4(rows[0], rows[1], rows[2], rows[3]);
}
__attribute__((always_inline)) inline void transpose_rows(Double8* rows) { transpose8(rows); }

// Up to W consecutive slots (32 values apart in slots) matrixed at once, one per lane of the
// vector type V of W doubles; slot l's extended form goes to to - 64 l (the history lies newest
// first). The loops are unrolled so that the order table is read at compile time. With fewer
// than W slots the missing lanes are silent and not stored.
template <typename V, int kLanes>
__attribute__((always_inline)) inline void matrix_slots(const double* slots, double* to) {
    constexpr int W = static_cast<int>(sizeof(V) / sizeof(double));
    V in[32];
#pragma GCC unroll 8
    for (int n = 0; n < 32; n += W) {
#pragma GCC unroll 8
        for (int l = 0; l < W; ++l) {
            if (l < kLanes) {
                std::memcpy(&in[n + l], slots + 32 * l + n, sizeof in[0]);
            } else {
                in[n + l] = V{};
            }
        }
        transpose_rows(in + n);
    }
    V r[32];
    matrix_core(in, r);
#pragma GCC unroll 16
    for (int k = 0; k < 64; k += W) {
        V v[W];
#pragma GCC unroll 8
        for (int i = 0; i < W; ++i) v[i] = r[kExtendedOrder[static_cast<size_t>(k + i)]];
        transpose_rows(v);
#pragma GCC unroll 8
        for (int l = 0; l < kLanes; ++l) std::memcpy(to - 64 * l + k, &v[l], sizeof v[l]);
    }
}

// The window of kPlan arranged by term: coefficient of term t (slot t back) for output j at
// [t][j]. In the extended slot, term t of output j reads e[16 + j] (even t, j < 16),
// e[15 + j] (even t, j >= 16; for j = 16 this is h[0] with a zero coefficient, as in kPlan),
// e[47 + j] (odd t, j < 16) or e[j - 16] (odd t, j >= 16): the history values of kPlan.index.
struct TermWindow {
    alignas(64) double coef[16][32];
};

TermWindow make_term_window() {
    TermWindow window{};
    for (int t = 0; t < 16; ++t) {
        for (int j = 0; j < 32; ++j) window.coef[t][j] = kPlan.coef[j][t];
    }
    return window;
}

const TermWindow kTermWindow = make_term_window();

// W outputs (block b, W the doubles of V) of kSlots consecutive slots, the newest history of the
// first at newest, the others each one slot further on: each output's 16 products summed in
// term order from 0.0, then doubled, exactly as in synthesize_slot. The window's coefficients
// for eight terms stay in registers while all the slots use them.
template <typename V, int kSlots, bool kLow>
__attribute__((always_inline)) inline void window_block(const double* newest, double* out, int b) {
    constexpr int W = static_cast<int>(sizeof(V) / sizeof(double));
    V acc[kSlots];
#pragma GCC unroll 8
    for (int s = 0; s < kSlots; ++s) acc[s] = V{};
#pragma GCC unroll 2
    for (int half = 0; half < 16; half += 8) {
        V w[8];
#pragma GCC unroll 8
        for (int k = 0; k < 8; ++k) std::memcpy(&w[k], kTermWindow.coef[half + k] + W * b, sizeof w[k]);
#pragma GCC unroll 8
        for (int k = 0; k < 8; ++k) {
            const int t = half + k;
            const int offset = 64 * t + ((t & 1) == 0 ? (kLow ? 16 : 15) : (kLow ? 47 : -16));
#pragma GCC unroll 8
            for (int s = 0; s < kSlots; ++s) {
                V h;
                std::memcpy(&h, newest - 64 * s + offset + W * b, sizeof h);
                acc[s] += h * w[k];
            }
        }
    }
#pragma GCC unroll 8
    for (int s = 0; s < kSlots; ++s) {
        const V doubled = acc[s] * 2.0;
        std::memcpy(out + 32 * s + W * b, &doubled, sizeof doubled);
    }
}

// Outputs 0 to 15 read the history through the low offsets, 16 to 31 through the high ones.
template <typename V, int kSlots>
__attribute__((always_inline)) inline void window_slots(const double* newest, double* out) {
    constexpr int W = static_cast<int>(sizeof(V) / sizeof(double));
    for (int b = 0; b < 16 / W; ++b) window_block<V, kSlots, true>(newest, out, b);
    for (int b = 16 / W; b < 32 / W; ++b) window_block<V, kSlots, false>(newest, out, b);
}

// The 18 slots of a granule, W at a time (the doubles of V; the last two as a pair, four
// lanes wide): matrixed into their places in the history, then windowed.
template <typename V>
__attribute__((always_inline)) inline void synthesize_granule_body(SynthesisRing& ring,
                                                                   const double* slots,
                                                                   double* out) {
    int32_t newest = ring.newest;
    if (newest < 18) {
        // The 15 slots still needed move to the end, 32 bytes at a time.
        constexpr int32_t kLive = 15 * 64;
        const double* from = ring.slots[newest];
        double* to = ring.slots[kSynthesisSlots - 15];
        for (int32_t k = 0; k < kLive; k += 4) {
            Double4 v;
            std::memcpy(&v, from + k, sizeof v);
            std::memcpy(to + k, &v, sizeof v);
        }
        newest = kSynthesisSlots - 15;
    }
    newest -= 18;
    ring.newest = newest;
    double* history = ring.slots[newest];  // slot t of the granule at history + 64 (17 - t)
    constexpr int W = static_cast<int>(sizeof(V) / sizeof(double));
    for (int32_t t = 0; t < 16; t += W) {
        double* slot = history + 64 * (17 - t);
        matrix_slots<V, W>(slots + 32 * t, slot);
        window_slots<V, W>(slot, out + 32 * t);
    }
    matrix_slots<Double4, 2>(slots + 32 * 16, history + 64);
    window_slots<Double4, 2>(history + 64, out + 32 * 16);
}

KAVO_AVX512 void synthesize_granule_avx512(SynthesisRing& ring, const double* slots, double* out) {
    synthesize_granule_body<Double8>(ring, slots, out);
}

KAVO_AVX2 void synthesize_granule_avx2(SynthesisRing& ring, const double* slots, double* out) {
    synthesize_granule_body<Double4>(ring, slots, out);
}

void synthesize_granule_plain(SynthesisRing& ring, const double* slots, double* out) {
    synthesize_granule_body<Double4>(ring, slots, out);
}
}  // namespace

void synthesize_granule(Layer3State& state, int32_t channel, double* out) {
    SynthesisRing& ring = state.synthesis[channel];
    if (use_avx512()) {
        synthesize_granule_avx512(ring, state.spectrum, out);
    } else if (use_avx2()) {
        synthesize_granule_avx2(ring, state.spectrum, out);
    } else {
        synthesize_granule_plain(ring, state.spectrum, out);
    }
}

}  // namespace kavolib
