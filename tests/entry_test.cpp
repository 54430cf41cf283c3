// The exported entry as a host program sees it: refusals and the result record, the symbols
// the shared library exports, and the message routine (the console text of accepted calls is
// pinned by the whole-conversion transcripts).
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "entry/entry.h"
#include "platform/report_message.h"
#include "process.h"

using kavotest::run_process;
using kavotest::TempDir;

TEST(EntryRefusals, StatusesComeInTheirOrderWithVersionAndNoTrace) {
    struct Case {
        const char* in;
        const char* out;
        const char* gain;
        int status;
    };
    // "-" is the host's spelling of an empty path.
    const Case cases[] = {
        {"-", "-", "1.0", 3},          {"-", "out.adpcm", "-1.0", 3},
        {"in.mp3", "-", "-1.0", 4},    {"in.mp3", "-", "1.0", 4},
        {"in.mp3", "out.adpcm", "-1.0", 5},
    };
    for (const Case& c : cases) {
        TempDir dir;
        const auto run = kavotest::run_host({c.in, c.out, c.gain, "7"}, dir.path());
        SCOPED_TRACE(std::string(c.in) + " " + c.out + " " + c.gain);
        EXPECT_EQ(run.exit_code, 0);
        EXPECT_EQ(run.out, "status " + std::to_string(c.status) + " version 1.2\n");
        EXPECT_EQ(run.err, "");
        EXPECT_TRUE(dir.entries().empty()) << "a refused call created a file";
    }
}

TEST(EntryRefusals, OnlyMinusOneIsARefusedGain) {
    EXPECT_EQ(kavolib::check_arguments("a", "b", -1.0f), kavolib::kStatusBadGain);
    for (float gain : {0.0f, -0.999f, -1.001f, 1.0f, 2.0f, -2.0f}) {
        EXPECT_EQ(kavolib::check_arguments("a", "b", gain), 0) << gain;
    }
}

TEST(SharedLibrary, ExportsKavoAndTheConversionApiOnly) {
    const auto run = run_process({"/usr/bin/nm", "-D", "--defined-only", KAVO_SHARED_LIB_PATH});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    std::vector<std::string> names;
    size_t start = 0;
    while (start < run.out.size()) {
        const size_t end = run.out.find('\n', start);
        const std::string line = run.out.substr(start, end - start);
        start = end == std::string::npos ? run.out.size() : end + 1;
        if (line.empty()) continue;
        names.push_back(line.substr(line.rfind(' ') + 1));
    }
    std::sort(names.begin(), names.end());
    const std::vector<std::string> expected = {"kavo", "kavo_convert_file", "kavo_convert_memory",
                                               "kavo_status_text"};
    EXPECT_EQ(names, expected) << run.out;
    for (const std::string& name : expected) {
        EXPECT_NE(run.out.find(" T " + name + "\n"), std::string::npos) << name << " must be a function";
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
