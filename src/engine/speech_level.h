// The active speech level of 8000 Hz samples by ITU-T P.56 method B (in dBov: 0 dBov is the
// power of a full-scale square wave), and the gains that bring a signal to a peak or a speech
// level without wrapping a sample in the coder's 16-bit multiply.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kavolib {

// Fed the samples in order, one block after another; measures as it goes, in constant memory.
class SpeechLevel {
public:
    static constexpr int kThresholds = 15;  // c_j = 2^(j - 15), j = 0..14
    static constexpr int kHangover = 1600;  // 0.2 s at 8000 Hz

    struct Result {
        bool active = false;    // false for silence, or when no threshold qualifies
        double level = 0.0;     // active speech level, dBov
        double activity = 0.0;  // share of the samples counted active, 0..1
    };

    void add(const int16_t* samples, size_t count);
    Result result() const;

private:
    double p_ = 0.0;  // the two envelope stages
    double q_ = 0.0;
    double sum_squares_ = 0.0;
    int64_t samples_ = 0;
    // The thresholds the envelope is at or above form a run from j = 0, so a sample's counts
    // follow from the run's length k: samples_at_[k] counts the samples of each length. A
    // threshold's hangover only matters in a gap between two of its crossings; gap_counted_[j]
    // holds what the gaps that have ended counted, last_crossed_[j] the sample that began the
    // current gap (-1 before the first crossing).
    int64_t samples_at_[kThresholds + 1] = {};
    int64_t gap_counted_[kThresholds] = {};
    int64_t last_crossed_[kThresholds];
    int crossed_ = 0;  // k of the last sample

public:
    SpeechLevel() {
        for (int64_t& t : last_crossed_) t = -1;
    }
};

// What a level or peak target chose.
struct GainChoice {
    float gain = 1.0f;
    bool capped = false;  // the gain asked for would wrap a sample; the largest safe one is used
    bool found = true;    // false when there was nothing to measure (silence): the gain stays 1.0
};

// The largest float gain g > 0 that wraps none of the samples between lowest and highest
// (FLT_MAX when both are 0).
float largest_safe_gain(int32_t highest, int32_t lowest);

// The gain that brings the largest magnitude of the samples to db dB below full scale
// (10^(db/20) x 32767 / peak), capped at the largest safe gain.
GainChoice peak_gain(double db, int32_t highest, int32_t lowest);

// The gain that brings the measured active speech level to db dBov, capped likewise.
GainChoice level_gain(double db, const SpeechLevel::Result& measured, int32_t highest,
                      int32_t lowest);

// The largest safe gain itself; 1.0 for silence.
GainChoice max_gain(int32_t highest, int32_t lowest);

// The level reached with a gain: level + 20 log10 |gain|.
double level_with_gain(double level, double gain);

}  // namespace kavolib
