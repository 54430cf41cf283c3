// The decode phase as a whole: the frame count across conversions. (Progress calls, also for
// an empty input, flag files and the refusals of the Layer I and II fixtures and of Layer II
// frames after Layer III ones are pinned by the whole-conversion golden files; the command's
// forms by the command's contract.)
#include "entry/decode_loop.h"

#include <gtest/gtest.h>

#include <string>

#include "frame/frame_sync.h"
#include "audio.h"
#include "process.h"

using namespace kavolib;
using kavotest::TempDir;

TEST(DecodePhase, SecondConversionContinuesTheFrameCountAndPrintsNoHeader) {
    const std::string mp3 = kavotest::fixture("tone_m1_44k_joint_notag.mp3");
    const size_t frames = kavotest::walk_frames(kavotest::read_file(mp3), 0).size();
    ASSERT_GT(frames, 30u);
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
