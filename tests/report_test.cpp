// The conversion's report and its gain targets against the file stages (kavo decode, mix,
// resample as commands): its figures are what their files hold; the samples wrapped and the
// largest gains that wrap none follow the gain's arithmetic (trunc(x * g) outside 16 bits) over
// the 8000 Hz samples; the active speech level is the method's, measured here sample by sample;
// a target reaches its value or stops at the largest gain that wraps none, and its bytes are
// those of the same gain given outright. Each case also takes one of kavo_convert's ways in and
// out: kavo_convert_memory's bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "audio.h"
#include "engine/speech_level.h"
#include "kavo/kavo.h"
#include "process.h"

namespace {

using namespace kavotest;

bool wraps(int sample, double gain) {
    const double product = std::trunc(sample * gain);
    return product > 32767.0 || product < -32768.0;
}

int64_t wrapped(const Samples& samples, double gain) {
    return std::count_if(samples.begin(), samples.end(), [gain](int16_t s) { return wraps(s, gain); });
}

float next_up(double gain) { return std::nextafter(static_cast<float>(gain), 1e30f); }

uint32_t u32(const std::string& bytes, size_t at) {  // on a little-endian host, as the WAV
    uint32_t value = 0;
    std::memcpy(&value, bytes.data() + at, 4);
    return value;
}

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

TEST(SpeechLevel, MeasuresSignalsOfKnownLevel) {
    struct {
        const char* name;
        Samples signal;
        double level, activity;  // dBov (NAN: not checked) within 0.1 dB; within 0.02
    } cases[] = {
        {"square_full_scale", Samples(32000), 0.0, 1.0},
        {"sine_half", sine(32000, 1000, 8000, 16384), -9.03, 1.0},
        {"sine_20dB_lower", sine(32000, 1000, 8000, 1638.4), -29.03, 1.0},
        // Active for the 2 s of the sine, the envelope's decay and the 0.2 s hangover.
        {"sine_then_silence", sine(16000, 1000, 8000, 16384), NAN, 0.57},
        {"silence", Samples(16000, 0), NAN, 0.0},
    };
    for (size_t i = 0; i < 32000; ++i) cases[0].signal[i] = (i / 20) % 2 == 0 ? 32767 : -32768;
    for (auto& c : cases) {
        if (c.activity < 0.9) c.signal.resize(32000, 0);  // 2 s of silence after
        kavolib::SpeechLevel meter;  // (the conversions below feed it 160 samples at a time)
        meter.add(c.signal.data(), c.signal.size());
        const kavolib::SpeechLevel::Result r = meter.result();
        EXPECT_EQ(r.active, c.activity > 0) << c.name;
        if (!std::isnan(c.level)) { EXPECT_NEAR(r.level, c.level, 0.1) << c.name; }
        EXPECT_NEAR(r.activity, c.activity, 0.02) << c.name;
    }
}

enum class Way { file_to_write, memory_to_file, file_to_file };

struct Case {
    const char* fixture;
    int encoding;
    bool changed;  // the stream changes rate or channels
    Way way;       // how kavo_convert is called
    const char* audio = nullptr;  // the fixture without its tags
};
void PrintTo(const Case& c, std::ostream* os) { *os << (c.fixture[0] ? c.fixture : "a made WAV"); }

const Case kCases[] = {
    {"speech_mono_22k.mp3", KAVO_ENCODING_MPEG2_LAYER3, false, Way::file_to_write},
    {"speech_music_m1_44k_vbr.mp3", KAVO_ENCODING_MPEG1_LAYER3, false, Way::memory_to_file},
    {"silence_m25_8k_mono.mp3", KAVO_ENCODING_MPEG25_LAYER3, false, Way::file_to_file},
    {"corner_44k_then_48k.mp3", KAVO_ENCODING_MPEG1_LAYER3, true, Way::memory_to_file},
    {"corner_mono_then_stereo.mp3", KAVO_ENCODING_MPEG1_LAYER3, true, Way::file_to_file},
    {"corner_stereo_then_mono.mp3", KAVO_ENCODING_MPEG1_LAYER3, true, Way::file_to_write},
    {"tone_m25_8k_mono.mp3", KAVO_ENCODING_MPEG25_LAYER3, false, Way::memory_to_file},
    {"tone_m1_44k_stereo.mp3", KAVO_ENCODING_MPEG1_LAYER3, false, Way::file_to_file},
    {"tags/both_ends.mp3", KAVO_ENCODING_MPEG1_LAYER3, false, Way::memory_to_file, "tags/bare_m1_44k.mp3"},
    {"", KAVO_ENCODING_PCM_16, false, Way::file_to_write},  // a WAV made here
};

// Targets and their levels (dB), and the status each gives.
const struct {
    int32_t target;
    float db;
    int status;
} kTargets[] = {
    {KAVO_TARGET_LEVEL, -26.0f, KAVO_OK},           {KAVO_TARGET_LEVEL, -3.0f, KAVO_OK},
    {KAVO_TARGET_PEAK, -1.0f, KAVO_OK},             {KAVO_TARGET_PEAK, 0.0f, KAVO_OK},
    {KAVO_TARGET_MAX_GAIN, 0.0f, KAVO_OK},          {-1, 0.0f, KAVO_ERROR_ARGUMENT},
    {KAVO_TARGET_MAX_GAIN + 1, 0.0f, KAVO_ERROR_ARGUMENT}, {KAVO_TARGET_PEAK, 0.5f, KAVO_ERROR_ARGUMENT},
    {KAVO_TARGET_PEAK, NAN, KAVO_ERROR_ARGUMENT},   {KAVO_TARGET_LEVEL, INFINITY, KAVO_ERROR_ARGUMENT}};

class Report : public testing::TestWithParam<Case> {};

TEST_P(Report, FiguresTargetsAndGainsFollowTheFileStagesSamples) {
    const Case& c = GetParam();
    TempDir dir;
    const bool wav = c.fixture[0] == '\0';  // 1.5 s of 16 kHz stereo, which mix and resample take
    const std::string mp3 = wav ? wav_bytes(sine(24000, 440, 16000, 0.9, 2), 2, 16000) : fixture_bytes(c.fixture);
    const std::string audio = c.audio != nullptr ? fixture_bytes(c.audio) : mp3;
    write_file(dir.file("in.mp3"), mp3);
    write_file(dir.file("audio.mp3"), audio);  // the file stages take tags for audio
    write_file(dir.file("d.wav"), mp3);  // a WAV is the decoded file itself
    for (const auto& stage : {std::vector<std::string>{"decode", "-q", "audio.mp3", "d.wav"},
                              {"mix", "-q", "d.wav", "m.wav"},
                              {"resample", "-q", "m.wav", "r.wav"}}) {
        EXPECT_TRUE((stage[0] == "decode" && wav) || run_kavo(stage, dir.path()).exit_code == 0) << stage[0];
    }
    const std::string decoded = read_file(dir.file("d.wav"));
    const uint32_t rate = u32(decoded, 24);
    const int channels = static_cast<uint8_t>(decoded[22]);
    const int64_t frames = u32(decoded, 40) / (2u * static_cast<uint32_t>(channels));
    Samples pcm8k = s16(read_file(dir.file("r.wav")), 44);
    pcm8k.resize(pcm8k.size() / 160 * 160);  // the coder takes whole frames
    ASSERT_FALSE(pcm8k.empty());
    const auto [low, high] = std::minmax_element(pcm8k.begin(), pcm8k.end());
    const int peak = std::max<int>(*high, -*low);
    const kavolib::SpeechLevel::Result level = direct(pcm8k);

    auto convert = [&](const kavo_settings& settings, std::string& adpcm, Way way, int status = KAVO_OK) {
        kavo_report report = KAVO_REPORT_INIT;
        const std::string in = dir.file("in.mp3");
        const std::string out = dir.file("out.adpcm");
        kavo_io io{in.c_str(), nullptr, 0, nullptr, append_to, nullptr, &adpcm};
        if (way == Way::memory_to_file) io = {nullptr, mp3.data(), mp3.size(), out.c_str(), nullptr, nullptr, nullptr};
        if (way == Way::file_to_file) io.output_path = out.c_str();
        adpcm.clear();
        EXPECT_EQ(kavo_convert(&io, &settings, &report, nullptr, 0), status);
        if (io.output_path != nullptr && status == KAVO_OK) adpcm = read_file(out);
        return report;
    };
    auto outright = [&](double gain) {
        std::string bytes;
        kavo_convert_memory(mp3.data(), mp3.size(), static_cast<float>(gain), append_to, nullptr, &bytes, nullptr, 0);
        return bytes;
    };
    kavo_settings settings = KAVO_SETTINGS_INIT;
    std::string adpcm;
    const kavo_report r = convert(settings, adpcm, c.way);
    EXPECT_EQ(std::vector<int>({r.input_kind, r.encoding, r.sample_rate, r.channels, r.format_changed}),
              std::vector<int>({wav ? KAVO_INPUT_WAV : KAVO_INPUT_MP3, c.encoding, static_cast<int>(rate), channels, c.changed}));
    EXPECT_EQ(r.input_frames, frames);
    EXPECT_DOUBLE_EQ(r.input_seconds, static_cast<double>(frames) / rate);
    EXPECT_EQ(r.mp3_frames, wav ? 0 : static_cast<int64_t>(walk_frames(audio, 0).size()));
    EXPECT_EQ(r.skipped_bytes, static_cast<int64_t>(mp3.size() - audio.size()));
    EXPECT_EQ(frames, wav ? 24000 : frames);
    EXPECT_EQ(r.output_bytes, static_cast<int64_t>(pcm8k.size() / 2));
    EXPECT_DOUBLE_EQ(r.output_seconds, static_cast<double>(pcm8k.size()) / 8000.0);
    EXPECT_EQ(r.highest, *high);
    EXPECT_EQ(r.lowest, *low);
    EXPECT_EQ(adpcm, outright(1.0)) << "kavo_convert and kavo_convert_memory differ";

    // Each limit is the edge for its extreme; the smaller is the gain that wraps nothing.
    EXPECT_TRUE(*high == 0 || (!wraps(*high, static_cast<float>(r.max_gain_high)) && wraps(*high, next_up(r.max_gain_high))));
    EXPECT_TRUE(*low == 0 || (!wraps(*low, static_cast<float>(r.max_gain_low)) && wraps(*low, next_up(r.max_gain_low))));
    EXPECT_EQ(r.max_gain, std::min(r.max_gain_high, r.max_gain_low));
    const auto safe = static_cast<float>(r.max_gain);
    for (const float gain : {1.0f, 4.0f, -1.5f, -3.0f, safe, next_up(safe)}) {
        settings.gain = gain;
        const kavo_report g = convert(settings, adpcm, Way::file_to_write);
        EXPECT_EQ(g.wrapped, wrapped(pcm8k, gain)) << "gain " << gain;
        EXPECT_EQ(g.gain, gain);
        EXPECT_TRUE(gain != safe || g.wrapped == 0);
        EXPECT_TRUE(gain != next_up(safe) || g.wrapped > 0 || peak == 0);
    }

    int capped = 0;
    for (const auto& t : kTargets) {
        SCOPED_TRACE(testing::Message() << "target " << t.target << " at " << t.db << " dB");
        settings = KAVO_SETTINGS_INIT;
        settings.target = t.target;
        settings.target_db = t.db;
        const kavo_report g = convert(settings, adpcm, c.way, t.status);
        if (t.status != KAVO_OK) {
            EXPECT_TRUE(adpcm.empty());
            continue;
        }
        capped += g.gain_capped;
        EXPECT_EQ(g.speech, level.active ? 1 : 0);
        EXPECT_NEAR(g.level, level.active ? level.level : 0.0, 1e-9);
        EXPECT_NEAR(g.activity, level.active ? level.activity : 0.0, 1e-9);
        EXPECT_EQ(wrapped(pcm8k, g.gain), g.wrapped);
        const bool nothing = t.target == KAVO_TARGET_LEVEL ? !level.active : peak == 0;
        double asked = g.max_gain;
        if (t.target == KAVO_TARGET_LEVEL) asked = std::pow(10.0, (t.db - level.level) / 20.0);
        if (t.target == KAVO_TARGET_PEAK) asked = std::pow(10.0, t.db / 20.0) * 32767.0 / peak;
        if (nothing) {
            EXPECT_EQ(g.gain, 1.0);
        } else if (g.gain_capped != 0 || t.target == KAVO_TARGET_MAX_GAIN) {
            // The edge: the next float up, and a gain 1 % above, wrap something.
            EXPECT_TRUE(g.gain_capped == 0 || static_cast<float>(asked) > g.gain);
            EXPECT_EQ(g.gain, g.max_gain);
            EXPECT_GT(wrapped(pcm8k, next_up(g.gain)), 0);
            EXPECT_GT(wrapped(pcm8k, static_cast<float>(g.gain * 1.01)), 0);
        } else {
            EXPECT_EQ(g.gain, static_cast<float>(asked));
            if (t.target == KAVO_TARGET_LEVEL) { EXPECT_NEAR(g.level_reached, t.db, 1e-5); }
            if (t.target == KAVO_TARGET_PEAK) { EXPECT_NEAR(std::trunc(peak * g.gain), asked * peak, 1.0); }
        }
        if (level.active) { EXPECT_NEAR(g.level_reached, level.level + 20.0 * std::log10(g.gain), 1e-9); }
        EXPECT_EQ(adpcm, outright(g.gain)) << "the held samples are coded as the same gain given outright";
    }
    EXPECT_EQ(capped > 0, level.active) << "a level of -3 dBov is out of reach of every signal here";
}

INSTANTIATE_TEST_SUITE_P(Fixtures, Report, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case>& param) {
                             const std::string name = param.param.fixture[0] == '\0' ? "wav_16k_stereo" : param.param.fixture;
                             return test_name(name.substr(name.find('/') + 1, name.find('.') - name.find('/') - 1));
                         });

}  // namespace
