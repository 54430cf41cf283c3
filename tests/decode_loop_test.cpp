// The decode phase as a whole: its progress share, a refusal after Layer III frames (the PCM
// written so far is kept), and the frame count across conversions. (Progress calls, flag files
// and the refusals of the Layer I and II fixtures are pinned by the whole-conversion golden
// files; the command's forms by the command's contract.)
#include "entry/decode_loop.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "frame/frame_sync.h"
#include "audio.h"
#include "process.h"

using namespace kavolib;
using kavotest::TempDir;

namespace {

class DecodePhase : public testing::Test {
  protected:
    void SetUp() override {
        frames = kavotest::walk_frames(kavotest::read_file(mp3), 0).size();
        ASSERT_GT(frames, 30u);
    }
    const std::string mp3 = kavotest::fixture("tone_m1_44k_joint_notag.mp3");
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

TEST_F(DecodePhase, LayerTwoAfterLayerThreeKeepsThePcmWrittenSoFar) {
    const std::string mp2 = kavotest::fixture("layer2_m1_44k_stereo.mp2");
    TempDir work;
    kavotest::write_file(work.file("in.mp3"), kavotest::read_file(mp3) + kavotest::read_file(mp2));
    const auto run = kavotest::run_host({"in.mp3", "out.adpcm", "1.0", "7"}, work.path());
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_EQ(run.err.substr(run.err.size() - 24), "Layer 2 no  support !!!\n") << run.err;
    EXPECT_EQ(kavotest::read_file(work.file("chkmode.txt")), std::string("1\x01\0\0\0", 5));
    size_t calls = 0;
    for (size_t at = run.out.find("progress"); at != std::string::npos; at = run.out.find("progress", at + 1)) ++calls;
    EXPECT_EQ(calls, frames + 1) << "one call per frame and the final read";
    // The decoded file keeps the PCM written so far, without its final header.
    const std::string decoded = kavotest::read_file(work.file("ZUVRTEMP.TM2"));
    EXPECT_EQ(decoded.size(), 44 + frames * 1152 * 2 * 2);
    EXPECT_EQ(decoded.substr(0, 44), std::string(44, '\0'));
}

TEST_F(DecodePhase, SecondConversionContinuesTheFrameCountAndPrintsNoHeader) {
    TempDir work;
    kavotest::InDir here(work.path());
    header_lines_pending() = true;
    const int64_t before = frame_counter;
    testing::internal::CaptureStderr();
    decode_phase(mp3.c_str(), "one.wav", nullptr, 0);
    const std::string first = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    decode_phase(mp3.c_str(), "two.pcm", nullptr, 0);
    const std::string second = testing::internal::GetCapturedStderr();

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
