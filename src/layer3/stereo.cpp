// Reordering of short blocks into line order (each channel into its PCM buffer), and the
// joint-stereo processing of a granule: middle/side and intensity stereo, with the MPEG-1
// intensity scheme or the MPEG-2 one by the header's ID bit.
#include <algorithm>
#include <cstring>

#include "layer3/layer3_stages.h"
#include "layer3/layer3_tables.h"
#include "simd/simd.h"

namespace kavolib {

namespace {
constexpr double kNotIntensity = 7.0;

void regroup_short(const double* src, double* dst, const int32_t* sb, int32_t first_band,
                   int32_t p) {
    for (int32_t b = first_band; b < 13; ++b) {
        const int32_t n = sb[b + 1] - sb[b];
        for (int32_t w = 0; w < 3; ++w) {
            for (int32_t j = 0; j < n; ++j) dst[p + 3 * j + w] = src[p + w * n + j];
        }
        p += 3 * n;
    }
    // With the 8 kHz bands a mixed block's layout ends at line 540; the rest is zero.
    if (p < kGranuleLines) std::memset(dst + p, 0, sizeof(double) * static_cast<size_t>(kGranuleLines - p));
}

void enter_intensity_positions(Layer3State& state, const GranuleInfo& gi, double* is_pos) {
    const uint32_t* long_sf = state.scale_factors.l[1];
    const int32_t* lb = state.long_bounds;
    const int32_t* sb = state.short_bounds;
    if (gi.block_type == 2) {
        const bool mixed = gi.mixed_block_flag != 0;
        const int32_t long_bound = state.intensity_bound[3];
        if (mixed && long_bound != -1) {
            int32_t b = long_bound;
            for (int32_t i = lb[b]; i < 36; ++i) {
                is_pos[i] = long_sf[b];
                if (i + 1 == lb[b + 1]) ++b;
            }
        }
        for (int32_t w = 0; w < 3; ++w) {
            int32_t s = state.intensity_bound[w];
            // Short bands 0 to 2 do not exist in a mixed block (its first 36 lines are long):
            // a window bound below 3 starts the intensity region at band 3.
            if (mixed) s = std::max(s, 3);
            for (int32_t b = s; b <= 11; ++b) {
                const int32_t t = sb[b];
                const int32_t n = sb[b + 1] - t;
                const double position = state.scale_factors.s[1][b][w];
                for (int32_t j = 0; j < n; ++j) is_pos[3 * t + w + 3 * j] = position;
            }
            if (s <= 11) {
                const int32_t t = sb[12];
                const int32_t n = sb[13] - t;
                const double position = state.scale_factors.s[1][11][w];
                for (int32_t j = 0; j < n; ++j) is_pos[3 * t + w + 3 * j] = position;
            }
        }
        return;
    }
    const int32_t s = state.intensity_bound[0];
    for (int32_t b = s; b <= 20; ++b) {
        const double position = long_sf[b];
        for (int32_t i = lb[b]; i < lb[b + 1]; ++i) is_pos[i] = position;
    }
    if (s <= 20) {
        const double position = long_sf[20];
        for (int32_t i = lb[21]; i < kGranuleLines; ++i) is_pos[i] = position;
    }
}
// Each line's middle and side become left and right. The two channels are separate buffers.
__attribute__((always_inline)) inline void middle_side_body(double* __restrict left,
                                                            double* __restrict right) {
    for (int32_t i = 0; i < kGranuleLines; ++i) {
        const double l = left[i];
        const double r = right[i];
        left[i] = (r + l) * kMsFactor;
        right[i] = (l - r) * kMsFactor;
    }
}

KAVO_AVX2 void middle_side_avx2(double* left, double* right) { middle_side_body(left, right); }

void middle_side_plain(double* left, double* right) { middle_side_body(left, right); }
}  // namespace

void reorder(Layer3State& state, int32_t granule, int32_t channel, double* dst) {
    const GranuleInfo& gi = state.side_info.gr[granule][channel];
    const double* src = state.spectrum;
    if (gi.block_type != 2) {
        std::memcpy(dst, src, sizeof(double) * kGranuleLines);
    } else if (gi.mixed_block_flag == 0) {
        regroup_short(src, dst, state.short_bounds, 0, 0);
    } else {
        std::memcpy(dst, src, sizeof(double) * 36);
        regroup_short(src, dst, state.short_bounds, 3, 36);
    }
}

void stereo_process(Layer3State& state, const FrameHeader& header, int32_t granule, double* left,
                    double* right) {
    if (state.ms_stereo == 0 && state.is_stereo == 0) return;
    const bool ms = state.ms_stereo == 1;
    if (state.is_stereo != 1) {
        // Middle/side alone: every line takes the same two sums; a loop without branches.
        if (use_avx2()) {
            middle_side_avx2(left, right);
        } else {
            middle_side_plain(left, right);
        }
        return;
    }
    double* is_pos = state.spectrum;
    for (int32_t i = 0; i < kGranuleLines; ++i) is_pos[i] = kNotIntensity;
    enter_intensity_positions(state, state.side_info.gr[granule][1], is_pos);

    const bool mpeg1 = header.id == 1;
    const double* lsf_row = LsfIntensityFactor[state.scale_factors.intensity_scale & 1u];
    for (int32_t i = 0; i < kGranuleLines; ++i) {
        const double l = left[i];
        const double r = right[i];
        const double position = is_pos[i];
        // MPEG-1 positions above 6 (up to 15 from a 4-bit scale factor) have no factor: their
        // lines are treated like the marker 7, as not intensity-coded.
        const bool intensity = mpeg1 ? position < kNotIntensity : position != kNotIntensity;
        if (!intensity) {
            if (ms) {
                left[i] = (r + l) * kMsFactor;
                right[i] = (l - r) * kMsFactor;
            }
        } else if (mpeg1) {
            const double k = IntensityLeftFactor[static_cast<int32_t>(position)];
            left[i] = l * k;
            right[i] = l - l * k;
        } else if (position == 0.0) {
            right[i] = l;
        } else {
            const auto p = static_cast<int32_t>(position);
            const double f = lsf_row[((p + 1) >> 1) - 1];
            if ((p & 1) != 0) {
                right[i] = l;
                left[i] = l * f;
            } else {
                right[i] = l * f;
            }
        }
    }
}

}  // namespace kavolib
