// The exported entry as a host program sees it: refusals and the result record; and the decode
// phase as a whole: the frame count across conversions. (The console text of accepted calls,
// the message routine's fatal errors and silent warnings, progress calls, flag files and the
// refusals of the Layer I and II fixtures are pinned by the whole-conversion transcripts; the
// command's forms by the command's contract; the symbols the library exports are checked on
// the installed library.)
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "audio.h"
#include "entry/decode_loop.h"
#include "frame/frame_sync.h"
#include "process.h"

using kavotest::TempDir;

// Refusals, each with the version and without a trace: empty paths (3), an empty output (4),
// the gain -1 (5), an input or output naming one of the conversion's temporary files (6; the
// file is left as it was). The same name in another directory is no collision.
TEST(EntryRefusals, StatusesComeInTheirOrderWithVersionAndNoTrace) {
    // Input, output ("-" is the host's spelling of an empty path), gain, status.
    const std::tuple<const char*, const char*, const char*, int> cases[] = {
        {"-", "-", "1.0", 3}, {"-", "out.adpcm", "-1.0", 3}, {"in.mp3", "-", "-1.0", 4},
        {"in.mp3", "-", "1.0", 4}, {"in.mp3", "out.adpcm", "-1.0", 5}, {"temp.wav", "out.adpcm", "1.0", 6},
        {"in.mp3", "temp.wav", "1.0", 6}, {"in.mp3", "./ZUVRTEMP.TM2", "1.0", 6},
        {"in.mp3", "resample_tmp.wav", "1.0", 6}, {"in.mp3", "temp.txt", "1.0", 6},
        {"in.mp3", "chkmode.txt", "1.0", 6}, {"in.mp3", "ZUTMP.TM1", "1.0", 6}};
    TempDir dir;
    kavotest::write_file(dir.file("in.mp3"), kavotest::read_file(kavotest::fixture("tone_m1_44k_mono.mp3")));
    kavotest::write_file(dir.file("temp.wav"), "precious");
    for (const auto& [in, out, gain, status] : cases) {
        const auto run = kavotest::run_host({in, out, gain, "7"}, dir.path());
        SCOPED_TRACE(std::string(in) + " " + out + " " + gain);
        EXPECT_EQ(run.exit_code, 0);
        EXPECT_EQ(run.out, "status " + std::to_string(status) + " version 1.2\n");
        EXPECT_EQ(run.err, "");
        EXPECT_EQ(dir.entries(), (std::vector<std::string>{"in.mp3", "temp.wav"}));
    }
    EXPECT_EQ(kavotest::read_file(dir.file("temp.wav")), "precious");
    std::filesystem::create_directory(dir.file("sub"));
    const auto elsewhere = kavotest::run_host({"in.mp3", "sub/temp.wav", "1.0"}, dir.path());
    EXPECT_EQ(elsewhere.out.substr(elsewhere.out.rfind("status")), "status 1 version 1.2\n");
    EXPECT_GT(kavotest::read_file(dir.file("sub/temp.wav")).size(), 0u);
}

TEST(DecodePhase, SecondConversionContinuesTheFrameCountAndPrintsNoHeader) {
    const std::string mp3 = kavotest::fixture("tone_m1_44k_joint_notag.mp3");
    const size_t frames = kavotest::walk_frames(kavotest::read_file(mp3), 0).size();
    ASSERT_GT(frames, 30u);
    TempDir work;
    kavotest::InDir here(work.path());
    kavolib::header_lines_pending() = true;
    const int64_t before = kavolib::frame_counter;
    testing::internal::CaptureStderr();
    kavolib::decode_phase(mp3.c_str(), "one.wav", nullptr, 0);
    const std::string first = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    kavolib::decode_phase(mp3.c_str(), "two.pcm", nullptr, 0);
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
