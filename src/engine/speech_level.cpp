// The active speech level (ITU-T P.56 method B) and the gain targets built on it. The gains are
// capped with the coder's own test of a wrap, so a chosen gain never wraps a sample.
#include "engine/speech_level.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

#include "adpcm/adpcm_core.h"

namespace kavolib {

namespace {

// The envelope's smoothing: a time constant of 30 ms at 8000 Hz.
const double kSmoothing = std::exp(-1.0 / (8000.0 * 0.03));
// The margin between the level and the threshold where the level is read, in dB.
constexpr double kMargin = 15.9;

// c_j = 2^(j - 15).
constexpr double threshold(int j) {
    return 1.0 / static_cast<double>(1 << (SpeechLevel::kThresholds - j));
}

}  // namespace

void SpeechLevel::add(const int16_t* samples, size_t count) {
    const double g = kSmoothing;
    double p = p_;
    double q = q_;
    double sum = sum_squares_;
    int crossed = crossed_;
    for (size_t i = 0; i < count; ++i) {
        const double x = samples[i] / 32768.0;
        sum += x * x;
        p = g * p + (1.0 - g) * std::fabs(x);
        q = g * q + (1.0 - g) * p;
        // q >= c_j = 2^(j - 15) exactly for the j below k: its binary exponent says how many.
        const auto exponent = static_cast<int>(std::bit_cast<uint64_t>(q) >> 52);
        const int k = std::clamp(exponent - 1007, 0, kThresholds);
        const int64_t n = samples_ + static_cast<int64_t>(i);
        // Gaps that end here count their samples up to the hangover; gaps that begin here
        // began after the sample before.
        for (int j = crossed; j < k; ++j) {
            if (last_crossed_[j] >= 0) {
                gap_counted_[j] += std::min<int64_t>(n - 1 - last_crossed_[j], kHangover);
            }
        }
        for (int j = k; j < crossed; ++j) last_crossed_[j] = n - 1;
        ++samples_at_[k];
        crossed = k;
    }
    p_ = p;
    q_ = q;
    sum_squares_ = sum;
    crossed_ = crossed;
    samples_ += static_cast<int64_t>(count);
}

SpeechLevel::Result SpeechLevel::result() const {
    Result r;
    double a_before = 0.0;
    double c_before = 0.0;
    int64_t at_or_above = samples_;  // samples whose run covers threshold j
    for (int j = 0; j < kThresholds; ++j) {
        at_or_above -= samples_at_[j];
        int64_t active = at_or_above + gap_counted_[j];
        if (j >= crossed_ && last_crossed_[j] >= 0) {  // the gap still open at the end
            active += std::min<int64_t>(samples_ - 1 - last_crossed_[j], kHangover);
        }
        const double a = active == 0
                             ? 100.0
                             : 10.0 * std::log10(sum_squares_ / static_cast<double>(active));
        const double c = 20.0 * std::log10(threshold(j));
        if (j >= 1 && a - c <= kMargin) {
            // Where A - C = 15.9 on the straight line from the threshold before to this one.
            const double d_before = a_before - c_before;
            const double d = a - c;
            const double t = d_before == d ? 1.0 : (d_before - kMargin) / (d_before - d);
            r.level = a_before + t * (a - a_before);
            r.activity = sum_squares_ / static_cast<double>(samples_) / std::pow(10.0, r.level / 10.0);
            r.active = true;
            return r;
        }
        a_before = a;
        c_before = c;
    }
    return r;
}

float largest_safe_gain(int32_t highest, int32_t lowest) {
    return std::min(largest_gain_without_wrap(std::max(0, highest)),
                    largest_gain_without_wrap(std::min(0, lowest)));
}

namespace {

// The gain asked for, or the largest safe one when it would wrap a sample.
GainChoice capped(double asked, int32_t highest, int32_t lowest) {
    const float safe = largest_safe_gain(highest, lowest);
    GainChoice choice;
    const auto wanted = static_cast<float>(std::min(asked, static_cast<double>(std::numeric_limits<float>::max())));
    choice.capped = !(wanted <= safe);
    choice.gain = choice.capped ? safe : wanted;
    return choice;
}

}  // namespace

GainChoice peak_gain(double db, int32_t highest, int32_t lowest) {
    const int32_t peak = std::max(highest, -lowest);
    if (peak <= 0) return GainChoice{1.0f, false, false};
    return capped(std::pow(10.0, db / 20.0) * 32767.0 / peak, highest, lowest);
}

GainChoice level_gain(double db, const SpeechLevel::Result& measured, int32_t highest,
                      int32_t lowest) {
    if (!measured.active) return GainChoice{1.0f, false, false};
    return capped(std::pow(10.0, (db - measured.level) / 20.0), highest, lowest);
}

GainChoice max_gain(int32_t highest, int32_t lowest) {
    if (highest == 0 && lowest == 0) return GainChoice{1.0f, false, false};
    return GainChoice{largest_safe_gain(highest, lowest), false, true};
}

double level_with_gain(double level, double gain) {
    return level + 20.0 * std::log10(std::fabs(gain));
}

}  // namespace kavolib
