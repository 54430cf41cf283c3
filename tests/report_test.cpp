// The conversion's report against the file stages (kavo decode, mix, resample as commands):
// its figures are what their files hold, and the samples wrapped and the largest gains that wrap
// none follow the gain's arithmetic (trunc(x * g) outside 16 bits) over the 8000 Hz samples.
// Each case also takes one of kavo_convert's ways in and out: kavo_convert_memory's bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "audio.h"
#include "kavo/kavo.h"
#include "process.h"

namespace {

using kavotest::read_file;
using kavotest::TempDir;

int collect(void* user, const void* bytes, size_t size) {
    static_cast<std::string*>(user)->append(static_cast<const char*>(bytes), size);
    return 0;
}

bool wraps(int sample, float gain) {
    const double product = std::trunc(static_cast<double>(sample) * static_cast<double>(gain));
    return product > 32767.0 || product < -32768.0;
}

float next_up(double gain) { return std::nextafter(static_cast<float>(gain), 1e30f); }

uint32_t u32(const std::string& bytes, size_t at) {  // on a little-endian host, as the WAV
    uint32_t value = 0;
    std::memcpy(&value, bytes.data() + at, 4);
    return value;
}

enum class Way { file_to_write, memory_to_file, file_to_file };

struct Case {
    const char* fixture;
    int encoding;
    bool changed;  // the stream changes rate or channels
    Way way;       // how kavo_convert is called
    const char* audio = nullptr;  // the fixture without its tags
};

const Case kCases[] = {
    {"speech_mono_22k.mp3", KAVO_ENCODING_MPEG2_LAYER3, false, Way::file_to_write},
    {"corner_44k_then_48k.mp3", KAVO_ENCODING_MPEG1_LAYER3, true, Way::memory_to_file},
    {"corner_mono_then_stereo.mp3", KAVO_ENCODING_MPEG1_LAYER3, true, Way::file_to_file},
    {"corner_stereo_then_mono.mp3", KAVO_ENCODING_MPEG1_LAYER3, true, Way::file_to_write},
    {"tone_m25_8k_mono.mp3", KAVO_ENCODING_MPEG25_LAYER3, false, Way::memory_to_file},
    {"tone_m1_44k_stereo.mp3", KAVO_ENCODING_MPEG1_LAYER3, false, Way::file_to_file},
    {"tags/both_ends.mp3", KAVO_ENCODING_MPEG1_LAYER3, false, Way::memory_to_file, "tags/bare_m1_44k.mp3"},
    {"", KAVO_ENCODING_PCM_16, false, Way::file_to_write},  // a WAV made here
};

class Report : public testing::TestWithParam<Case> {};

TEST_P(Report, FiguresAreWhatTheFileStagesMakeAndTheGainsArithmetic) {
    const Case& c = GetParam();
    TempDir dir;
    const bool wav = c.fixture[0] == '\0';  // 1.5 s of 16 kHz stereo, which mix and resample take
    const std::string mp3 = wav ? kavotest::wav_bytes(kavotest::sine(24000, 440, 16000, 0.9, 2), 2, 16000)
                                : read_file(kavotest::fixture(c.fixture));
    const std::string audio = c.audio != nullptr ? read_file(kavotest::fixture(c.audio)) : mp3;
    kavotest::write_file(dir.file("in.mp3"), mp3);
    kavotest::write_file(dir.file("audio.mp3"), audio);  // the file stages take tags for audio
    kavotest::write_file(dir.file("d.wav"), mp3);  // a WAV is the decoded file itself
    for (const auto& stage : {std::vector<std::string>{"decode", "-q", "audio.mp3", "d.wav"},
                              {"mix", "-q", "d.wav", "m.wav"},
                              {"resample", "-q", "m.wav", "r.wav"}}) {
        EXPECT_TRUE((stage[0] == "decode" && wav) || kavotest::run_kavo(stage, dir.path()).exit_code == 0) << stage[0];
    }
    const std::string decoded = read_file(dir.file("d.wav"));
    const uint32_t rate = u32(decoded, 24);
    const int channels = static_cast<uint8_t>(decoded[22]);
    const int64_t frames = u32(decoded, 40) / (2u * static_cast<uint32_t>(channels));
    kavotest::Samples pcm8k = kavotest::s16(read_file(dir.file("r.wav")), 44);
    pcm8k.resize(pcm8k.size() / 160 * 160);  // the coder takes whole frames
    ASSERT_FALSE(pcm8k.empty());
    const auto [low, high] = std::minmax_element(pcm8k.begin(), pcm8k.end());

    auto convert = [&](float gain, std::string& adpcm, Way way) {
        kavo_settings settings = KAVO_SETTINGS_INIT;
        settings.gain = gain;
        kavo_report report = KAVO_REPORT_INIT;
        const std::string in = dir.file("in.mp3");
        const std::string out = dir.file("out.adpcm");
        kavo_io io{in.c_str(), nullptr, 0, nullptr, collect, nullptr, &adpcm};
        if (way == Way::memory_to_file) io = {nullptr, mp3.data(), mp3.size(), out.c_str(), nullptr, nullptr, nullptr};
        if (way == Way::file_to_file) io.output_path = out.c_str();
        adpcm.clear();
        EXPECT_EQ(kavo_convert(&io, &settings, &report, nullptr, 0), KAVO_OK);
        if (io.output_path != nullptr) adpcm = read_file(out);
        return report;
    };
    std::string adpcm;
    const kavo_report r = convert(1.0f, adpcm, c.way);
    EXPECT_EQ(std::vector<int>({r.input_kind, r.encoding, r.sample_rate, r.channels, r.format_changed}),
              std::vector<int>({wav ? KAVO_INPUT_WAV : KAVO_INPUT_MP3, c.encoding, static_cast<int>(rate), channels, c.changed}));
    EXPECT_EQ(r.input_frames, frames);
    EXPECT_DOUBLE_EQ(r.input_seconds, static_cast<double>(frames) / rate);
    EXPECT_EQ(r.mp3_frames, wav ? 0 : static_cast<int64_t>(kavotest::walk_frames(audio, 0).size()));
    EXPECT_EQ(r.skipped_bytes, static_cast<int64_t>(mp3.size() - audio.size()));
    EXPECT_EQ(frames, wav ? 24000 : frames);
    EXPECT_EQ(r.output_bytes, static_cast<int64_t>(pcm8k.size() / 2));
    EXPECT_DOUBLE_EQ(r.output_seconds, static_cast<double>(pcm8k.size()) / 8000.0);
    EXPECT_EQ(r.highest, *high);
    EXPECT_EQ(r.lowest, *low);
    std::string expected;
    kavo_convert_memory(mp3.data(), mp3.size(), 1.0f, collect, nullptr, &expected, nullptr, 0);
    EXPECT_EQ(adpcm, expected) << "kavo_convert and kavo_convert_memory differ";

    // Each limit is the edge for its extreme; the smaller is the gain that wraps nothing.
    EXPECT_TRUE(!wraps(*high, static_cast<float>(r.max_gain_high)) && wraps(*high, next_up(r.max_gain_high)));
    EXPECT_TRUE(!wraps(*low, static_cast<float>(r.max_gain_low)) && wraps(*low, next_up(r.max_gain_low)));
    EXPECT_EQ(r.max_gain, std::min(r.max_gain_high, r.max_gain_low));
    const auto safe = static_cast<float>(r.max_gain);
    for (const float gain : {1.0f, 4.0f, -1.5f, -3.0f, safe, next_up(safe)}) {
        const auto counted = std::count_if(pcm8k.begin(), pcm8k.end(),
                                           [gain](int16_t s) { return wraps(s, gain); });
        const kavo_report g = convert(gain, adpcm, Way::file_to_write);
        EXPECT_EQ(g.wrapped, counted) << "gain " << gain;
        EXPECT_EQ(g.gain, gain);
        EXPECT_TRUE(gain != safe || counted == 0);
        EXPECT_TRUE(gain != next_up(safe) || counted > 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Fixtures, Report, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case>& param) {
                             std::string name = param.param.fixture;
                             name = name.empty() ? "wav_16k_stereo." : name.substr(name.find('/') + 1);
                             return name.substr(0, name.find('.'));
                         });

}  // namespace
