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

Samples square(size_t n) {  // full scale, 200 Hz
    Samples s(n);
    for (size_t i = 0; i < n; ++i) s[i] = (i / 20) % 2 == 0 ? 32767 : -32768;
    return s;
}
Samples then_silence(Samples s, size_t n) {
    s.resize(s.size() + n, 0);
    return s;
}

struct Known {
    const char* name;
    Samples signal;
    double level;     // dBov; NAN: nothing active
    double activity;  // expected within 0.02
};

TEST(SpeechLevel, MeasuresSignalsOfKnownLevel) {
    const Known cases[] = {
        {"square", square(32000), 0.0, 1.0},
        {"sine_half", kavotest::sine(32000, 1000, 8000, 16384), -9.03, 1.0},
        {"sine_20dB_lower", kavotest::sine(32000, 1000, 8000, 1638.4), -29.03, 1.0},
        // Active for the 2 s of the sine, the envelope's decay and the 0.2 s hangover.
        {"sine_then_silence", then_silence(kavotest::sine(16000, 1000, 8000, 16384), 16000), NAN, 0.57},
        {"silence", Samples(16000, 0), NAN, 0.0},
    };
    for (const Known& c : cases) {
        kavolib::SpeechLevel meter;
        // Uneven blocks: the envelope and the counts carry from one block to the next.
        for (size_t at = 0; at < c.signal.size(); at += 1000) {
            meter.add(c.signal.data() + at, std::min<size_t>(1000, c.signal.size() - at));
        }
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
};

const Target kTargets[] = {{KAVO_TARGET_LEVEL, -26.0f}, {KAVO_TARGET_LEVEL, -3.0f},
                           {KAVO_TARGET_PEAK, -1.0f},   {KAVO_TARGET_PEAK, 0.0f},
                           {KAVO_TARGET_MAX_GAIN, 0.0f}};

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
    kavolib::SpeechLevel meter;
    meter.add(pcm8k.data(), pcm8k.size());
    const kavolib::SpeechLevel::Result level = meter.result();

    auto convert = [&](const kavo_settings& settings, std::string& adpcm) {
        kavo_report report = KAVO_REPORT_INIT;
        kavo_io io{nullptr, mp3.data(), mp3.size(), nullptr, collect, nullptr, &adpcm};
        adpcm.clear();
        EXPECT_EQ(kavo_convert(&io, &settings, &report, nullptr, 0), KAVO_OK);
        return report;
    };
    int capped = 0;
    for (const Target& t : kTargets) {
        SCOPED_TRACE(testing::Message() << "target " << t.target << " at " << t.db << " dB");
        kavo_settings settings = KAVO_SETTINGS_INIT;
        settings.target = t.target;
        settings.target_db = t.db;
        std::string adpcm;
        const kavo_report r = convert(settings, adpcm);
        capped += r.gain_capped;
        EXPECT_EQ(r.speech, level.active ? 1 : 0);
        EXPECT_DOUBLE_EQ(r.level, level.active ? level.level : 0.0);
        EXPECT_DOUBLE_EQ(r.activity, level.active ? level.activity : 0.0);
        EXPECT_EQ(r.wrapped, 0);
        EXPECT_EQ(wrapped(pcm8k, r.gain), 0);

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
            std::string louder;
            kavo_settings above = KAVO_SETTINGS_INIT;
            above.gain = static_cast<float>(r.gain * 1.01);
            EXPECT_GT(convert(above, louder).wrapped, 0);
        } else {
            EXPECT_EQ(r.gain, static_cast<float>(asked));
            if (t.target == KAVO_TARGET_LEVEL) { EXPECT_NEAR(r.level_reached, t.db, 1e-5); }
            if (t.target == KAVO_TARGET_PEAK) {
                EXPECT_NEAR(std::trunc(peak * r.gain), std::pow(10.0, t.db / 20.0) * 32767.0, 1.0);
            }
        }
        if (level.active) { EXPECT_DOUBLE_EQ(r.level_reached, level.level + 20.0 * std::log10(r.gain)); }
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

TEST(Targets, RefusesWhatCannotBeReached) {
    const std::string mp3 = read_file(kavotest::fixture("tone_m25_8k_mono.mp3"));
    const Target refused[] = {{-1, 0.0f},
                              {KAVO_TARGET_MAX_GAIN + 1, 0.0f},
                              {KAVO_TARGET_PEAK, 0.5f},
                              {KAVO_TARGET_PEAK, NAN},
                              {KAVO_TARGET_LEVEL, INFINITY}};
    for (const Target& t : refused) {
        kavo_settings settings = KAVO_SETTINGS_INIT;
        settings.target = t.target;
        settings.target_db = t.db;
        std::string adpcm;
        kavo_io io{nullptr, mp3.data(), mp3.size(), nullptr, collect, nullptr, &adpcm};
        EXPECT_EQ(kavo_convert(&io, &settings, nullptr, nullptr, 0), KAVO_ERROR_ARGUMENT)
            << t.target << " " << t.db;
        EXPECT_TRUE(adpcm.empty());
    }
}

}  // namespace
