// The decode phase as a whole: progress values, "chkmode.txt", the refusals of Layer I and
// II, the frame count across conversions, and kavo decode with its three output forms.
#include "entry/decode_loop.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "frame/frame_sync.h"
#include "mp3_files.h"
#include "process.h"

using namespace kavolib;
using kavotest::run_process;
using kavotest::TempDir;

namespace {

std::vector<int> progress_values(const std::string& out) {
    std::vector<int> values;
    std::istringstream lines(out);
    std::string word;
    int user = 0, low = 0, high = 0, percent = 0, one = 0;
    while (lines >> word) {
        if (word != "progress") continue;
        lines >> user >> low >> high >> percent >> one;
        EXPECT_EQ(user, 7);
        EXPECT_EQ(low, 0);
        EXPECT_EQ(high, 100);
        EXPECT_EQ(one, 1);
        values.push_back(percent);
    }
    return values;
}

// A Layer I frame (MPEG-1, 32 kbit/s, 44.1 kHz, mono): 32 bytes.
std::string layer1_frame() {
    std::string frame("\xFF\xFF\x10\xC0", 4);
    frame.append(28, '\0');
    return frame;
}

class DecodePhase : public testing::Test {
  protected:
    void SetUp() override {
        wav = kavotest::make_tone_wav(dir.path(), "t.wav", 44100, 2, 1.0);
        mp3 = kavotest::lame_encode(dir.path(), wav, "t.mp3", 128, {"-t"});
        frames = kavotest::walk_frames(kavotest::read_file(mp3), 0).size();
        ASSERT_GT(frames, 30u);
    }
    TempDir dir;
    std::string wav;
    std::string mp3;
    size_t frames = 0;
};

}  // namespace

TEST(DecodeProgress, ShareOfTheInputUpToForty) {
    EXPECT_EQ(decode_progress(0, 1000), 0);
    EXPECT_EQ(decode_progress(24, 1000), 0);
    EXPECT_EQ(decode_progress(25, 1000), 1);
    EXPECT_EQ(decode_progress(999, 1000), 39);
    EXPECT_EQ(decode_progress(1000, 1000), 40);
    EXPECT_EQ(decode_progress(int64_t{3} << 40, int64_t{4} << 40), 30);
    // An empty input has nothing to read: progress stays at 0 instead of dividing by zero.
    EXPECT_EQ(decode_progress(0, 0), 0);
}

TEST_F(DecodePhase, HostSeesOneCallPerFrameThenTheFinalReadAtForty) {
    TempDir work;
    // A flag file left by an earlier refusal is replaced, and removed with the other
    // temporary files once the decode has succeeded.
    kavotest::write_file(work.file("chkmode.txt"), std::string("1\x01\0\0\0", 5));
    const auto run = run_process({KAVO_C_HOST_PATH, mp3, "out.adpcm", "1.0", "7"}, work.path());
    ASSERT_EQ(run.exit_code, 0) << run.err;
    const std::vector<int> values = progress_values(run.out);
    ASSERT_GT(values.size(), frames + 1);
    EXPECT_EQ(values.front(), 0);
    for (size_t i = 1; i <= frames; ++i) {
        EXPECT_GE(values[i], values[i - 1]);
        EXPECT_LE(values[i], 40);
    }
    EXPECT_EQ(values[frames], 40) << "the final read sees the whole input";
    EXPECT_NE(run.err.find("  " + std::to_string(frames) + " frames processed\n"),
              std::string::npos)
        << run.err;
    EXPECT_FALSE(kavotest::file_exists(work.file("chkmode.txt")));
}

TEST_F(DecodePhase, EmptyInputReportsZeroAndNoFrames) {
    TempDir work;
    kavotest::write_file(work.file("empty.mp3"), "");
    const auto run =
        run_process({KAVO_C_HOST_PATH, "empty.mp3", "out.adpcm", "1.0", "7"}, work.path());
    EXPECT_EQ(progress_values(run.out), std::vector<int>{0});
    EXPECT_NE(run.err.find("\n\nAll Done !"), std::string::npos);
    EXPECT_EQ(kavotest::read_file(work.file("ZUVRTEMP.TM2")).size(), 44u);
    EXPECT_FALSE(kavotest::file_exists(work.file("chkmode.txt")));
}

TEST_F(DecodePhase, LayerOneAndTwoAreRefusedWithTheFlagFile) {
    const std::string mp2 = kavotest::twolame_encode(dir.path(), wav, "t.mp2", 192, "s");
    const std::string lame = kavotest::read_file(mp3);
    struct Case {
        const char* what;
        std::string bytes;
        const char* message;
        std::string flag;
        size_t pcm_frames;  // Layer III frames decoded before the refusal
    };
    const Case cases[] = {
        {"layer1", layer1_frame() + layer1_frame(), "Layer 1 no support !!!\n",
         std::string("\x01\0\0\0", 4), 0},
        {"layer2", kavotest::read_file(mp2), "Layer 2 no  support !!!\n",
         std::string("1\x01\0\0\0", 5), 0},
        {"layer3_then_2", lame + kavotest::read_file(mp2), "Layer 2 no  support !!!\n",
         std::string("1\x01\0\0\0", 5), frames},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TempDir work;
        kavotest::write_file(work.file("in.mp3"), c.bytes);
        const auto run =
            run_process({KAVO_C_HOST_PATH, "in.mp3", "out.adpcm", "1.0", "7"}, work.path());
        EXPECT_EQ(run.exit_code, 1);
        EXPECT_EQ(run.err.substr(run.err.size() - std::string(c.message).size()), c.message)
            << run.err;
        EXPECT_EQ(kavotest::read_file(work.file("chkmode.txt")), c.flag);
        const std::vector<int> values = progress_values(run.out);
        EXPECT_EQ(values.size(), c.pcm_frames + 1);
        if (c.pcm_frames == 0) {
            EXPECT_EQ(values, std::vector<int>{0});
        }
        // The decoded file keeps the PCM written so far, without its final header.
        const std::string decoded = kavotest::read_file(work.file("ZUVRTEMP.TM2"));
        EXPECT_EQ(decoded.size(), 44 + c.pcm_frames * 1152 * 2 * 2);
        EXPECT_EQ(decoded.substr(0, 44), std::string(44, '\0'));
    }
}

TEST_F(DecodePhase, SecondConversionContinuesTheFrameCountAndPrintsNoHeader) {
    TempDir work;
    char here[4096];
    ASSERT_NE(getcwd(here, sizeof here), nullptr);
    ASSERT_EQ(chdir(work.path().c_str()), 0);
    header_lines_pending() = true;
    const int64_t before = frame_counter;
    testing::internal::CaptureStderr();
    decode_phase(mp3.c_str(), "one.wav", nullptr, 0);
    const std::string first = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    decode_phase(mp3.c_str(), "two.pcm", nullptr, 0);
    const std::string second = testing::internal::GetCapturedStderr();
    ASSERT_EQ(chdir(here), 0);

    EXPECT_NE(first.find("[version] MPEG 1"), std::string::npos);
    EXPECT_EQ(second.find("[version]"), std::string::npos);
    const std::string count1 =
        "  " + std::to_string(before + static_cast<int64_t>(frames)) + " frames processed\n";
    const std::string count2 =
        "  " + std::to_string(before + 2 * static_cast<int64_t>(frames)) + " frames processed\n";
    EXPECT_NE(first.find(count1), std::string::npos) << first;
    EXPECT_NE(second.find(count2), std::string::npos) << second;
    EXPECT_EQ(kavotest::read_file(work.file("one.wav")).substr(44),
              kavotest::read_file(work.file("two.pcm")));
}

TEST_F(DecodePhase, CommandWritesEachFormAndOnlyTheOutput) {
    TempDir user;
    for (const char* name : {"o.wav", "o.pcm", "o.txt", "o.TM2"}) {
        const auto run = run_process({KAVO_CLI_PATH, "decode", mp3, name}, user.path());
        EXPECT_EQ(run.exit_code, 0) << name << run.err;
    }
    EXPECT_EQ(user.entries(), (std::vector<std::string>{"o.TM2", "o.pcm", "o.txt", "o.wav"}));
    const std::string wav_file = kavotest::read_file(user.file("o.wav"));
    const std::string pcm = kavotest::read_file(user.file("o.pcm"));
    EXPECT_EQ(pcm.size(), frames * 1152 * 2 * 2);
    EXPECT_EQ(wav_file.substr(44), pcm);
    EXPECT_EQ(kavotest::read_file(user.file("o.TM2")), wav_file);
    EXPECT_EQ(kavotest::read_file(user.file("o.txt")).size(), frames * 1152 * 2 * 7);
}

TEST_F(DecodePhase, CommandFailuresLeaveTheOutputAlone) {
    TempDir user;
    kavotest::write_file(user.file("keep.wav"), "mine");
    kavotest::write_file(user.file("layer2.mp3"), layer1_frame());

    const auto bad_name = run_process({KAVO_CLI_PATH, "decode", mp3, "out.WAV"}, user.path());
    EXPECT_EQ(bad_name.exit_code, 2);
    EXPECT_NE(bad_name.err.find("selects no output form"), std::string::npos) << bad_name.err;

    const auto missing =
        run_process({KAVO_CLI_PATH, "decode", "none.mp3", "keep.wav"}, user.path());
    EXPECT_EQ(missing.exit_code, 1);
    EXPECT_NE(missing.err.find("cannot read 'none.mp3'"), std::string::npos) << missing.err;

    const auto refused =
        run_process({KAVO_CLI_PATH, "decode", "layer2.mp3", "keep.wav"}, user.path());
    EXPECT_EQ(refused.exit_code, 1);
    EXPECT_NE(refused.err.find("Layer 1 no support !!!\n"), std::string::npos) << refused.err;
    EXPECT_NE(refused.err.find("'keep.wav' was not written"), std::string::npos) << refused.err;

    EXPECT_EQ(kavotest::read_file(user.file("keep.wav")), "mine");
    EXPECT_EQ(user.entries(), (std::vector<std::string>{"keep.wav", "layer2.mp3"}));
}
