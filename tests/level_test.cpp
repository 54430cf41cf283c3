// Prompt levels: the active speech level measured on signals whose level is known, and the gain
// targets end to end on fixtures against the 8000 Hz samples of the file stages (kavo decode,
// mix, resample): the level measured is theirs, a target reaches its value or stops at the
// largest gain that wraps none, and the bytes are those of the same gain given outright.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "audio.h"
#include "engine/speech_level.h"
#include "kavo/kavo.h"
#include "process.h"

namespace {

using kavotest::read_file;
using kavotest::Samples;

// The measurement as the method states it: each threshold's count and hangover kept sample by
// sample (the library counts lazily, from the run of thresholds crossed).
kavolib::SpeechLevel::Result direct(const Samples& signal) {
    const double g = std::exp(-1.0 / (8000 * 0.03));
    double p = 0, q = 0, sum = 0;
    double active[15] = {};
    int hangover[15];
    std::fill(std::begin(hangover), std::end(hangover), 1600);
    for (const int16_t v : signal) {
        const double x = v / 32768.0;
        sum += x * x;
        p = g * p + (1 - g) * std::fabs(x);
        q = g * q + (1 - g) * p;
        for (int j = 0; j < 15; ++j) {
            const bool crossed = q >= std::pow(2.0, j - 15);
            if (crossed || hangover[j] < 1600) ++active[j];
            hangover[j] = crossed ? 0 : std::min(hangover[j] + 1, 1600);
        }
    }
    auto a = [&](int j) { return active[j] == 0 ? 100.0 : 10 * std::log10(sum / active[j]); };
    auto d = [&](int j) { return a(j) - 20 * std::log10(std::pow(2.0, j - 15)); };
    for (int j = 1; j < 15; ++j) {
        if (d(j) > 15.9) continue;
        const double level = a(j - 1) + (d(j - 1) - 15.9) / (d(j - 1) - d(j)) * (a(j) - a(j - 1));
        return {true, level, sum / static_cast<double>(signal.size()) / std::pow(10.0, level / 10)};
    }
    return {};
}

struct Known {
    const char* name;
    Samples signal;
    double level, activity;  // dBov (NAN: not checked) within 0.1 dB; within 0.02
};

TEST(SpeechLevel, MeasuresSignalsOfKnownLevel) {
    Known cases[] = {
        {"square_full_scale", Samples(32000), 0.0, 1.0},
        {"sine_half", kavotest::sine(32000, 1000, 8000, 16384), -9.03, 1.0},
        {"sine_20dB_lower", kavotest::sine(32000, 1000, 8000, 1638.4), -29.03, 1.0},
        // Active for the 2 s of the sine, the envelope's decay and the 0.2 s hangover.
        {"sine_then_silence", kavotest::sine(16000, 1000, 8000, 16384), NAN, 0.57},
        {"silence", Samples(16000, 0), NAN, 0.0},
    };
    for (size_t i = 0; i < 32000; ++i) cases[0].signal[i] = (i / 20) % 2 == 0 ? 32767 : -32768;
    for (Known& c : cases) {
        if (c.activity < 0.9) c.signal.resize(32000, 0);  // 2 s of silence after
        kavolib::SpeechLevel meter;  // (the conversions below feed it 160 samples at a time)
        meter.add(c.signal.data(), c.signal.size());
        const kavolib::SpeechLevel::Result r = meter.result();
        EXPECT_EQ(r.active, c.activity > 0) << c.name;
        if (!std::isnan(c.level)) { EXPECT_NEAR(r.level, c.level, 0.1) << c.name; }
        EXPECT_NEAR(r.activity, c.activity, 0.02) << c.name;
    }
}

int collect(void* user, const void* bytes, size_t size) {
    static_cast<std::string*>(user)->append(static_cast<const char*>(bytes), size);
    return 0;
}

int64_t wrapped(const Samples& samples, double gain) {
    return std::count_if(samples.begin(), samples.end(), [gain](int16_t s) {
        const double product = std::trunc(s * gain);
        return product > 32767.0 || product < -32768.0;
    });
}

struct Target {
    int32_t target;
    float db;
    int status;
};

const Target kTargets[] = {
    {KAVO_TARGET_LEVEL, -26.0f, KAVO_OK},           {KAVO_TARGET_LEVEL, -3.0f, KAVO_OK},
    {KAVO_TARGET_PEAK, -1.0f, KAVO_OK},             {KAVO_TARGET_PEAK, 0.0f, KAVO_OK},
    {KAVO_TARGET_MAX_GAIN, 0.0f, KAVO_OK},          {-1, 0.0f, KAVO_ERROR_ARGUMENT},
    {KAVO_TARGET_MAX_GAIN + 1, 0.0f, KAVO_ERROR_ARGUMENT}, {KAVO_TARGET_PEAK, 0.5f, KAVO_ERROR_ARGUMENT},
    {KAVO_TARGET_PEAK, NAN, KAVO_ERROR_ARGUMENT},   {KAVO_TARGET_LEVEL, INFINITY, KAVO_ERROR_ARGUMENT}};

class Targets : public testing::TestWithParam<const char*> {};

TEST_P(Targets, ReachTheirValueOrTheLargestGainThatWrapsNone) {
    kavotest::TempDir dir;
    const std::string mp3 = read_file(kavotest::fixture(GetParam()));
    kavotest::write_file(dir.file("in.mp3"), mp3);
    for (const auto& stage : {std::vector<std::string>{"decode", "-q", "in.mp3", "d.wav"},
                              {"mix", "-q", "d.wav", "m.wav"},
                              {"resample", "-q", "m.wav", "r.wav"}}) {
        ASSERT_EQ(kavotest::run_kavo(stage, dir.path()).exit_code, 0) << stage[0];
    }
    Samples pcm8k = kavotest::s16(read_file(dir.file("r.wav")), 44);
    pcm8k.resize(pcm8k.size() / 160 * 160);  // the coder takes whole frames
    const auto [low, high] = std::minmax_element(pcm8k.begin(), pcm8k.end());
    const int peak = std::max<int>(*high, -*low);
    const kavolib::SpeechLevel::Result level = direct(pcm8k);

    auto convert = [&](const kavo_settings& settings, std::string& adpcm, int status = KAVO_OK) {
        kavo_report report = KAVO_REPORT_INIT;
        kavo_io io{nullptr, mp3.data(), mp3.size(), nullptr, collect, nullptr, &adpcm};
        adpcm.clear();
        EXPECT_EQ(kavo_convert(&io, &settings, &report, nullptr, 0), status);
        return report;
    };
    int capped = 0;
    for (const Target& t : kTargets) {
        SCOPED_TRACE(testing::Message() << "target " << t.target << " at " << t.db << " dB");
        kavo_settings settings = KAVO_SETTINGS_INIT;
        settings.target = t.target;
        settings.target_db = t.db;
        std::string adpcm;
        const kavo_report r = convert(settings, adpcm, t.status);
        if (t.status != KAVO_OK) {
            EXPECT_TRUE(adpcm.empty());
            continue;
        }
        capped += r.gain_capped;
        EXPECT_EQ(r.speech, level.active ? 1 : 0);
        EXPECT_NEAR(r.level, level.active ? level.level : 0.0, 1e-9);
        EXPECT_NEAR(r.activity, level.active ? level.activity : 0.0, 1e-9);
        EXPECT_EQ(wrapped(pcm8k, r.gain), r.wrapped);

        const bool nothing = t.target == KAVO_TARGET_LEVEL ? !level.active : peak == 0;
        double asked = r.max_gain;
        if (t.target == KAVO_TARGET_LEVEL) asked = std::pow(10.0, (t.db - level.level) / 20.0);
        if (t.target == KAVO_TARGET_PEAK) asked = std::pow(10.0, t.db / 20.0) * 32767.0 / peak;
        if (nothing) {
            EXPECT_EQ(r.gain, 1.0);
        } else if (r.gain_capped != 0 || t.target == KAVO_TARGET_MAX_GAIN) {
            // The edge: the next float up, and a gain 1 % above, wrap something.
            EXPECT_TRUE(r.gain_capped == 0 || static_cast<float>(asked) > r.gain);
            EXPECT_EQ(r.gain, r.max_gain);
            EXPECT_GT(wrapped(pcm8k, std::nextafter(static_cast<float>(r.gain), 1e30f)), 0);
            EXPECT_GT(wrapped(pcm8k, static_cast<float>(r.gain * 1.01)), 0);
        } else {
            EXPECT_EQ(r.gain, static_cast<float>(asked));
            if (t.target == KAVO_TARGET_LEVEL) { EXPECT_NEAR(r.level_reached, t.db, 1e-5); }
            if (t.target == KAVO_TARGET_PEAK) { EXPECT_NEAR(std::trunc(peak * r.gain), asked * peak, 1.0); }
        }
        if (level.active) { EXPECT_NEAR(r.level_reached, level.level + 20.0 * std::log10(r.gain), 1e-9); }
        // The held samples are coded as the same gain given outright codes them.
        std::string outright;
        kavo_convert_memory(mp3.data(), mp3.size(), static_cast<float>(r.gain), collect, nullptr,
                            &outright, nullptr, 0);
        EXPECT_EQ(adpcm, outright);
    }
    EXPECT_EQ(capped > 0, peak > 0) << "a level of -3 dBov is out of reach of every signal here";
}

INSTANTIATE_TEST_SUITE_P(Fixtures, Targets,
                         testing::Values("speech_mono_22k.mp3", "speech_music_m1_44k_vbr.mp3",
                                         "tone_m1_44k_stereo.mp3", "silence_m25_8k_mono.mp3"),
                         [](const testing::TestParamInfo<const char*>& param) {
                             std::string name = param.param;
                             return name.substr(0, name.find('.'));
                         });

}  // namespace
