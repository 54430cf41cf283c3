// The whole conversion through the shared library, called from a C host in a scratch
// directory: the result, the files left behind, the progress a host sees over the four phases,
// the output's length, and how the output sounds next to an independent tool chain.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "process.h"

using kavotest::read_file;
using kavotest::run_process;
using kavotest::TempDir;

namespace {

std::string fixture(const std::string& name) {
    return std::string(KAVO_FIXTURES_DIR) + "/" + name;
}

struct HostRun {
    kavotest::ProcessResult process;
    std::vector<int> progress;
    std::string result;  // the host's last line: "status S version V"
};

// Copies the fixture to dir/in.mp3 and converts it to dir/out.adpcm through the C host.
HostRun convert_in(const TempDir& dir, const std::string& name, const std::string& gain = "1.0") {
    kavotest::write_file(dir.file("in.mp3"), read_file(fixture(name)));
    HostRun run;
    run.process = run_process({KAVO_C_HOST_PATH, "in.mp3", "out.adpcm", gain, "7"}, dir.path());
    std::istringstream lines(run.process.out);
    std::string line;
    while (std::getline(lines, line)) {
        int user = 0, low = 0, high = 0, percent = 0, one = 0;
        if (std::sscanf(line.c_str(), "progress %d %d %d %d %d", &user, &low, &high, &percent,
                        &one) == 5) {
            EXPECT_EQ(user, 7);
            EXPECT_EQ(low, 0);
            EXPECT_EQ(high, 100);
            EXPECT_EQ(one, 1);
            run.progress.push_back(percent);
        } else {
            run.result = line;
        }
    }
    return run;
}

// The frame count from the decode statistics ("  N frames processed").
long frames_processed(const std::string& err) {
    const size_t at = err.find(" frames processed\n");
    if (at == std::string::npos) return -1;
    const size_t start = err.rfind(' ', at - 1);
    return std::stol(err.substr(start + 1, at - start - 1));
}

struct Phases {
    std::vector<int> decode, mix, resample, encode;
};

// Splits the progress sequence by the number of calls each phase makes: one per frame plus the
// final read, one per sample frame, then the resampler's blocks (60..80) and the encoder's calls.
Phases split_phases(const std::vector<int>& values, size_t frames, size_t sample_frames) {
    Phases p;
    size_t i = 0;
    for (; i < values.size() && i < frames + 1; ++i) p.decode.push_back(values[i]);
    for (size_t n = 0; i < values.size() && n < sample_frames; ++i, ++n) p.mix.push_back(values[i]);
    for (; i < values.size() && values[i] <= 80 && p.encode.empty(); ++i) {
        // The resampler's last block reports 80, and so may the encoder's first call: a value of
        // 80 that follows an 80 belongs to the encoder.
        if (values[i] == 80 && !p.resample.empty() && p.resample.back() == 80) break;
        p.resample.push_back(values[i]);
    }
    for (; i < values.size(); ++i) p.encode.push_back(values[i]);
    return p;
}

void expect_rising_within(const std::vector<int>& values, int low, int high, const char* what) {
    ASSERT_FALSE(values.empty()) << what;
    for (size_t i = 0; i < values.size(); ++i) {
        EXPECT_GE(values[i], low) << what << " call " << i;
        EXPECT_LE(values[i], high) << what << " call " << i;
        if (i > 0) {
            EXPECT_GE(values[i], values[i - 1]) << what << " call " << i;
        }
    }
}

}  // namespace

// Speech at 22.05 kHz, MPEG-2 mono: 147 frames of one granule.
TEST(WholeConversion, ResultFilesProgressAndLength) {
    TempDir dir;
    // A copy of the ADPCM stage's data file left by an interrupted run is cleared.
    kavotest::write_file(dir.file("ZUTMP.TM1"), "stale");
    const HostRun run = convert_in(dir, "speech_mono_22k.mp3");
    ASSERT_EQ(run.process.exit_code, 0) << run.process.err;
    EXPECT_EQ(run.result, "status 1 version 1.2");
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"in.mp3", "out.adpcm", "temp.txt"}));

    const long frames = frames_processed(run.process.err);
    ASSERT_GT(frames, 100);
    const long sample_frames = frames * 576;  // one granule per MPEG-2 frame
    const long m = static_cast<long>(static_cast<double>(sample_frames) * (8000.0 / 22050.0) + 0.5);
    const long out_frames = m / 160;
    EXPECT_EQ(static_cast<long>(read_file(dir.file("out.adpcm")).size()), 80 * out_frames);

    const Phases p =
        split_phases(run.progress, static_cast<size_t>(frames), static_cast<size_t>(sample_frames));
    EXPECT_EQ(p.decode.front(), 0);
    EXPECT_EQ(p.decode.back(), 40);
    expect_rising_within(p.decode, 0, 40, "decode");
    ASSERT_EQ(p.mix.size(), static_cast<size_t>(sample_frames));
    expect_rising_within(p.mix, 40, 59, "mix");
    EXPECT_EQ(p.mix.front(), 40);
    expect_rising_within(p.resample, 60, 80, "resample");
    EXPECT_EQ(p.resample.back(), 80);
    // The encoder reports after frames 1, 4, 7, ...; the input has a header, so it stays
    // below 100 and no separate final 100 follows.
    ASSERT_EQ(p.encode.size(), static_cast<size_t>((out_frames + 2) / 3));
    expect_rising_within(p.encode, 80, 99, "encode");
}

TEST(WholeConversion, TwoConversionsInOneProcessAndEveryModeAndRate) {
    // Each fixture through the library; all succeed and leave only the output and "temp.txt".
    for (const char* name :
         {"tone_m1_44k_joint.mp3", "tone_m1_48k_mono.mp3", "tone_m25_8k_mono.mp3",
          "tone_m25_12k_stereo_crc.mp3", "tone_m2_24k_dual.mp3", "tone_m1_44k_free.mp3",
          "garbage_m1_44k_mono.mp3"}) {
        TempDir dir;
        const HostRun run = convert_in(dir, name);
        EXPECT_EQ(run.process.exit_code, 0) << name << run.process.err;
        EXPECT_EQ(run.result, "status 1 version 1.2") << name;
        EXPECT_EQ(dir.entries(), (std::vector<std::string>{"in.mp3", "out.adpcm", "temp.txt"}))
            << name;
        EXPECT_GT(read_file(dir.file("out.adpcm")).size(), 0u) << name;
    }
}

TEST(WholeConversion, PathsNamingTemporaryFilesAreRefusedUntouched) {
    TempDir dir;
    kavotest::write_file(dir.file("in.mp3"), read_file(fixture("tone_m1_44k_mono.mp3")));
    kavotest::write_file(dir.file("temp.wav"), "precious");
    for (const char* out : {"temp.wav", "./ZUVRTEMP.TM2", "resample_tmp.wav", "temp.txt",
                            "chkmode.txt", "ZUTMP.TM1"}) {
        const auto run = run_process({KAVO_C_HOST_PATH, "in.mp3", out, "1.0"}, dir.path());
        EXPECT_EQ(run.out, "status 6 version 1.2\n") << out;
        EXPECT_EQ(run.err, "") << out;
    }
    const auto input = run_process({KAVO_C_HOST_PATH, "temp.wav", "out.adpcm", "1.0"}, dir.path());
    EXPECT_EQ(input.out, "status 6 version 1.2\n");
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"in.mp3", "temp.wav"}));
    EXPECT_EQ(read_file(dir.file("temp.wav")), "precious");

    // The same name in another directory is no collision.
    std::filesystem::create_directory(dir.file("sub"));
    const auto elsewhere =
        run_process({KAVO_C_HOST_PATH, "in.mp3", "sub/temp.wav", "1.0"}, dir.path());
    EXPECT_EQ(elsewhere.out.substr(elsewhere.out.rfind("status")), "status 1 version 1.2\n");
    EXPECT_GT(read_file(dir.file("sub/temp.wav")).size(), 0u);
}

TEST(WholeConversion, LayerTwoInputEndsTheProcessWithItsFlagFile) {
    TempDir dir;
    kavotest::write_file(dir.file("in.mp3"), read_file(fixture("layer2_m1_44k_stereo.mp2")));
    const auto run = run_process({KAVO_C_HOST_PATH, "in.mp3", "out.adpcm", "1.0", "7"}, dir.path());
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_NE(run.err.find("Layer 2 no  support !!!\n"), std::string::npos);
    EXPECT_EQ(read_file(dir.file("chkmode.txt")), std::string("1\x01\0\0\0", 5));
    EXPECT_EQ(run.out.find("status"), std::string::npos) << "kavo must not return";
    EXPECT_FALSE(kavotest::file_exists(dir.file("out.adpcm")));
}

namespace {

std::vector<double> s16_samples(const std::string& bytes, size_t offset) {
    std::vector<double> samples;
    for (size_t i = offset; i + 1 < bytes.size(); i += 2) {
        const auto lo = static_cast<uint8_t>(bytes[i]);
        const auto hi = static_cast<uint8_t>(bytes[i + 1]);
        samples.push_back(static_cast<int16_t>(static_cast<uint16_t>(lo | (hi << 8))));
    }
    return samples;
}

// SNR in dB of out against ref after the best alignment (out delayed by up to max_lag samples
// either way) and the best gain, so that a delay or a level difference between two tool chains
// is not counted as noise.
double aligned_snr(const std::vector<double>& ref, const std::vector<double>& out, int max_lag) {
    double best_score = -1.0;
    int best_lag = 0;
    const auto n_ref = static_cast<long>(ref.size());
    const auto n_out = static_cast<long>(out.size());
    for (int lag = -max_lag; lag <= max_lag; ++lag) {
        double rr = 0, oo = 0, ro = 0;
        for (long i = std::max(0L, -static_cast<long>(lag)); i < n_ref && i + lag < n_out; ++i) {
            const double r = ref[static_cast<size_t>(i)];
            const double o = out[static_cast<size_t>(i + lag)];
            rr += r * r;
            oo += o * o;
            ro += r * o;
        }
        if (rr <= 0 || oo <= 0) continue;
        const double score = ro / std::sqrt(rr * oo);
        if (score > best_score) {
            best_score = score;
            best_lag = lag;
        }
    }
    double rr = 0, ro = 0;
    for (long i = std::max(0L, -static_cast<long>(best_lag)); i < n_ref && i + best_lag < n_out;
         ++i) {
        rr += ref[static_cast<size_t>(i)] * ref[static_cast<size_t>(i)];
        ro += ref[static_cast<size_t>(i)] * out[static_cast<size_t>(i + best_lag)];
    }
    const double gain = ro / rr;
    double signal = 0, noise = 0;
    for (long i = std::max(0L, -static_cast<long>(best_lag)); i < n_ref && i + best_lag < n_out;
         ++i) {
        const double s = gain * ref[static_cast<size_t>(i)];
        const double e = out[static_cast<size_t>(i + best_lag)] - s;
        signal += s * s;
        noise += e * e;
    }
    return 10.0 * std::log10(signal / noise);
}

struct SoundFigures {
    double ours_expand, ours_ffmpeg, ours_quarter_ffmpeg, ffmpeg_chain;
};

SoundFigures measure_sound(const std::string& name) {
    TempDir dir;
    kavotest::write_file(dir.file("in.mp3"), read_file(fixture(name)));
    const auto sh = [&](const std::string& cmd) {
        const auto run = run_process({"/bin/sh", "-c", cmd}, dir.path());
        EXPECT_EQ(run.exit_code, 0) << cmd << "\n" << run.err;
    };
    const std::string kavo = KAVO_CLI_PATH;
    const std::string g726_decode = "ffmpeg -v error -y -f g726le -code_size 4 -ar 8000 -i ";
    // The independent reference: decoded by mpg123, mixed to mono and brought to 8000 Hz by sox.
    sh("mpg123 --no-gapless -q -w ref.wav in.mp3");
    sh("sox ref.wav -t raw -e signed-integer -b 16 -c 1 -r 8000 ref.raw channels 1 rate -v 8000");
    sh(kavo + " convert in.mp3 out.adpcm 2>/dev/null");
    sh(kavo + " convert --gain 0.25 in.mp3 quarter.adpcm 2>/dev/null");
    sh(kavo + " expand out.adpcm ours.wav");
    sh(g726_decode + "out.adpcm -f s16le ours_ff.raw");
    sh(g726_decode + "quarter.adpcm -f s16le quarter_ff.raw");
    sh("ffmpeg -v error -y -i in.mp3 -ac 1 -ar 8000 -c:a g726le -f g726le ff.g726");
    sh(g726_decode + "ff.g726 -f s16le ff_ff.raw");
    const auto ref = s16_samples(read_file(dir.file("ref.raw")), 0);
    const int lag = 800;  // 0.1 s covers the decoders' and resamplers' different delays
    SoundFigures f{};
    f.ours_expand = aligned_snr(ref, s16_samples(read_file(dir.file("ours.wav")), 44), lag);
    f.ours_ffmpeg = aligned_snr(ref, s16_samples(read_file(dir.file("ours_ff.raw")), 0), lag);
    f.ours_quarter_ffmpeg =
        aligned_snr(ref, s16_samples(read_file(dir.file("quarter_ff.raw")), 0), lag);
    f.ffmpeg_chain = aligned_snr(ref, s16_samples(read_file(dir.file("ff_ff.raw")), 0), lag);
    std::printf(
        "%-28s kavo+expand %6.2f dB  kavo+ffmpeg %6.2f dB  kavo(gain 0.25)+ffmpeg %6.2f dB"
        "  ffmpeg chain %6.2f dB\n",
        name.c_str(), f.ours_expand, f.ours_ffmpeg, f.ours_quarter_ffmpeg, f.ffmpeg_chain);
    return f;
}

}  // namespace

// Measured here: kavo decoded by its own expansion 18.8 to 20.7 dB; kavo at gain 0.25 decoded
// by ffmpeg 10.0 to 14.7 dB (at gain 1.0 ffmpeg's decoder, which works on 14-bit samples,
// plays the codes 4 times too loud and clips them); ffmpeg's own chain 7.6 to 21.9 dB. The
// floors sit a few dB under kavo's figures; a fault in any stage (a wrong filter, a lost
// channel, swapped nibbles) falls far below them.
TEST(WholeConversionSound, NextToAnIndependentToolChain) {
    for (const char* name :
         {"speech_mono_22k.mp3", "speech_music_m1_44k_vbr.mp3", "tone_m1_44k_stereo.mp3"}) {
        const SoundFigures f = measure_sound(name);
        EXPECT_GT(f.ours_expand, 16.0) << name;
        EXPECT_GT(f.ours_quarter_ffmpeg, 7.0) << name;
        EXPECT_GT(f.ffmpeg_chain, 5.0) << name << ": the reference chain itself misbehaves";
    }
}
