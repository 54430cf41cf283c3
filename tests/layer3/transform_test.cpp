// The fast IMDCT (through imdct_subband) and the fast matrixing and windowing
// (synthesize_slot) against the direct formulas of the standard, computed here in long double.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "layer3/layer3_stages.h"

using namespace kavolib;

namespace {

constexpr long double kPi = 3.141592653589793238462643383279502884L;

// The standard's 36-sample window of each block type.
long double block_window(int type, int i) {
    auto long_w = [](int n) { return std::sin(kPi / 36 * (n + 0.5L)); };
    auto short_w = [](int n) { return std::sin(kPi / 12 * (n + 0.5L)); };
    switch (type) {
        case 0: return long_w(i);
        case 1:
            if (i < 18) return long_w(i);
            if (i < 24) return 1.0L;
            if (i < 30) return short_w(i - 18);
            return 0.0L;
        case 3:
            if (i < 6) return 0.0L;
            if (i < 12) return short_w(i - 6);
            if (i < 18) return 1.0L;
            return long_w(i);
        default: return 0.0L;
    }
}

// Direct IMDCT, windowing and overlap-add of one subband; overlap holds 18 windowed values.
void direct_imdct(const double* X, int type, long double* overlap, int subband, long double* y) {
    long double z[36] = {};
    if (type != 2) {
        for (int j = 0; j < 36; ++j) {
            long double sum = 0;
            for (int k = 0; k < 18; ++k) sum += X[k] * std::cos(kPi / 72 * (2 * j + 1 + 18) * (2 * k + 1));
            z[j] = sum * block_window(type, j);
        }
    } else {
        for (int w = 0; w < 3; ++w) {
            for (int j = 0; j < 12; ++j) {
                long double sum = 0;
                for (int k = 0; k < 6; ++k) sum += X[w + 3 * k] * std::cos(kPi / 24 * (2 * j + 1 + 6) * (2 * k + 1));
                z[6 + 6 * w + j] += sum * std::sin(kPi / 12 * (j + 0.5L));
            }
        }
    }
    for (int n = 0; n < 18; ++n) {
        y[n] = z[n] + overlap[n];
        if ((subband & 1) != 0 && (n & 1) != 0) y[n] = -y[n];
        overlap[n] = z[18 + n];
    }
}

class ImdctSequence : public testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(ImdctSequence, MatchesDirectCosineSumsWithWindowingAndOverlap) {
    const auto [first, second] = GetParam();
    std::mt19937 rng(static_cast<unsigned>(17 + 4 * first + second));
    std::uniform_real_distribution<double> dist(-1.0, 1.0);
    for (int subband = 0; subband < 2; ++subband) {
        double overlap[9] = {};
        long double direct_overlap[18] = {};
        int previous = 0;
        // Three granules: a lead-in of type 0, then the pair under test.
        for (int type : {0, first, second}) {
            double input[18];
            for (double& v : input) v = dist(rng);
            double output[32 * 18];
            imdct_subband(input, overlap, output + subband, static_cast<uint32_t>(type),
                          static_cast<uint32_t>(previous), subband);
            long double expected[18];
            direct_imdct(input, type, direct_overlap, subband, expected);
            for (int n = 0; n < 18; ++n) {
                EXPECT_NEAR(output[subband + 32 * n], static_cast<double>(expected[n]), 1e-12)
                    << "types " << previous << "->" << type << " subband " << subband << " n " << n;
            }
            previous = type;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(AllBlockTypePairs, ImdctSequence,
                         testing::Combine(testing::Range(0, 4), testing::Range(0, 4)));

std::vector<long double> load_window() {
    std::ifstream in(std::string(KAVO_SHARED_DIR) + "/data/synthesis_window.txt");
    std::vector<long double> d;
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        d.push_back(std::stold(line));
    }
    return d;
}

// The standard's synthesis: 1024-value V FIFO, 64 matrix outputs per slot, U, W and the sums.
struct DirectSynthesis {
    std::vector<long double> D = load_window();
    long double V[1024] = {};
    void slot(const double* S, long double* out) {
        std::memmove(V + 64, V, sizeof(long double) * 960);
        for (int i = 0; i < 64; ++i) {
            long double sum = 0;
            for (int k = 0; k < 32; ++k) sum += std::cos((16 + i) * (2 * k + 1) * kPi / 64) * S[k];
            V[i] = sum;
        }
        for (int j = 0; j < 32; ++j) {
            long double sum = 0;
            for (int i = 0; i < 8; ++i) {
                sum += V[128 * i + j] * D[static_cast<size_t>(64 * i + j)];
                sum += V[128 * i + 96 + j] * D[static_cast<size_t>(64 * i + 32 + j)];
            }
            out[j] = sum;
        }
    }
};

TEST(Synthesis, FastMatrixingAndWindowingMatchTheDirectFormula) {
    DirectSynthesis direct;
    ASSERT_EQ(direct.D.size(), 512u);
    double history[512] = {};
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> dist(-1.0, 1.0);
    for (int t = 0; t < 400; ++t) {
        double S[32];
        // Some slots sparse, some full, a few silent: the history must drain exactly.
        for (int n = 0; n < 32; ++n) S[n] = (t % 7 == 3 || (t % 5 == 1 && n % 3 != 0)) ? 0.0 : dist(rng);
        double out[32];
        long double expected[32];
        synthesize_slot(S, history, out);
        direct.slot(S, expected);
        for (int j = 0; j < 32; ++j) {
            ASSERT_NEAR(out[j], static_cast<double>(expected[j]), 1e-12) << "slot " << t << " j " << j;
        }
    }
}

}  // namespace
