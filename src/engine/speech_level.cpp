// The active speech level (ITU-T P.56 method B) and the gain targets built on it. The gains are
// capped with the coder's own test of a wrap, so a chosen gain never wraps a sample.
#include "engine/speech_level.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "adpcm/adpcm_core.h"

namespace kavolib {

namespace {

// The envelope's smoothing: a time constant of 30 ms at 8000 Hz.
const double kSmoothing = std::exp(-1.0 / (8000.0 * 0.03));
// The margin between the level and the threshold where the level is read, in dB.
constexpr double kMargin = 15.9;

// c_j = 2^(j - 15): exact in double.
constexpr double threshold(int j) {
    return 1.0 / static_cast<double>(1 << (SpeechLevel::kThresholds - j));
}

}  // namespace

void SpeechLevel::add(const int16_t* samples, size_t count) {
    static constexpr auto kThreshold = [] {
        std::array<double, kThresholds> c{};
        for (int j = 0; j < kThresholds; ++j) c[static_cast<size_t>(j)] = threshold(j);
        return c;
    }();
    const double g = kSmoothing;
    double p = p_;
    double q = q_;
    double sum = sum_squares_;
    for (size_t i = 0; i < count; ++i) {
        const double x = samples[i] / 32768.0;
        sum += x * x;
        p = g * p + (1.0 - g) * std::fabs(x);
        q = g * q + (1.0 - g) * p;
        // Thresholds below the envelope are crossed: counted, hangover restarted. The others
        // count while their hangover lasts, so the pauses inside speech count as speech.
        for (int j = 0; j < kThresholds; ++j) {
            if (q >= kThreshold[static_cast<size_t>(j)]) {
                ++active_[j];
                hangover_[j] = 0;
            } else if (hangover_[j] < kHangover) {
                ++active_[j];
                ++hangover_[j];
            }
        }
    }
    p_ = p;
    q_ = q;
    sum_squares_ = sum;
    samples_ += static_cast<int64_t>(count);
}

SpeechLevel::Result SpeechLevel::result() const {
    Result r;
    double a_before = 0.0;
    double c_before = 0.0;
    for (int j = 0; j < kThresholds; ++j) {
        const double a = active_[j] == 0
                             ? 100.0
                             : 10.0 * std::log10(sum_squares_ / static_cast<double>(active_[j]));
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
