// The exported entry as a host program sees it: refusals and the result record, and the
// message routine. (The console text of accepted calls is pinned by the whole-conversion
// transcripts; the symbols the library exports are checked on the installed library.)
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "platform/report_message.h"
#include "process.h"

using kavotest::TempDir;

TEST(EntryRefusals, StatusesComeInTheirOrderWithVersionAndNoTrace) {
    // Input, output ("-" is the host's spelling of an empty path), gain, status.
    const std::tuple<const char*, const char*, const char*, int> cases[] = {
        {"-", "-", "1.0", 3},       {"-", "out.adpcm", "-1.0", 3},        {"in.mp3", "-", "-1.0", 4},
        {"in.mp3", "-", "1.0", 4},  {"in.mp3", "out.adpcm", "-1.0", 5}};
    for (const auto& [in, out, gain, status] : cases) {
        TempDir dir;
        const auto run = kavotest::run_host({in, out, gain, "7"}, dir.path());
        SCOPED_TRACE(std::string(in) + " " + out + " " + gain);
        EXPECT_EQ(run.exit_code, 0);
        EXPECT_EQ(run.out, "status " + std::to_string(status) + " version 1.2\n");
        EXPECT_EQ(run.err, "");
        EXPECT_TRUE(dir.entries().empty()) << "a refused call created a file";
    }
}

TEST(ReportMessage, FatalKindPrintsAndExitsWithOne) {
    EXPECT_EXIT(kavolib::report_message("decode: test failure\n", kavolib::kMessageFatal),
                testing::ExitedWithCode(1), "\nFATAL ERROR: decode: test failure\n");
}

TEST(ReportMessage, WarningsAreSilentUntilVerbosityIsRaised) {
    testing::internal::CaptureStderr();
    kavolib::report_message("decode: quiet\n", kavolib::kMessageWarning);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    kavolib::verbosity = 1;
    testing::internal::CaptureStderr();
    kavolib::report_message("decode: heard\r", 2);
    kavolib::verbosity = 0;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "\nWARNING: decode: heard\r");
}
