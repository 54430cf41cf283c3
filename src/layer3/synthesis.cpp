// The polyphase synthesis filterbank: each time slot's 32 subband samples are matrixed by a
// fast 32-point cosine transform into the channel's 512-value history, and 32 output samples
// are formed from the last 16 slots with the 512-tap window (256 halved values stored).
#include <cstring>

#include "layer3/layer3_stages.h"
#include "layer3/layer3_tables.h"

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
// Stored term-major ([term][output]) so that the output loop keeps 32 independent sums.
struct WindowPlan {
    double coef[16][32];
    int index[16][32];
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
            plan.coef[2 * i][j] = sign_p * half_window(64 * i + j);
            plan.index[2 * i][j] = 32 * sp + pos_p;
            // Q_{2i+1}(j): slot 2i + 1 back
            const int sq = 2 * i + 1;
            const int pos_q = j < 16 ? 15 + j : 47 - j;
            plan.coef[2 * i + 1][j] = half_window(64 * i + 32 + j);
            plan.index[2 * i + 1][j] = 32 * sq + pos_q;
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

    // Each output sums its 16 products in the order i = 0..7, P before Q, then doubles. The
    // loops run term by term over all 32 outputs, so the sums advance side by side; each output
    // still adds its own products in the same order.
    double sum[32] = {};
    for (int t = 0; t < 16; ++t) {
        const double* coef = kPlan.coef[t];
        const int* index = kPlan.index[t];
        for (int j = 0; j < 32; ++j) sum[j] += history[index[j]] * coef[j];
    }
    for (int j = 0; j < 32; ++j) out[j] = 2.0 * sum[j];
}

void synthesize_granule(Layer3State& state, int32_t channel, double* out) {
    double* history = state.synthesis_history[channel];
    for (int32_t t = 0; t < 18; ++t) synthesize_slot(state.spectrum + 32 * t, history, out + 32 * t);
}

}  // namespace kavolib
