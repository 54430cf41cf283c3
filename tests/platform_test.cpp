// The platform layer: the stream registry behind "close every open stream" (its limit and the
// reuse of its slots), file lengths of unflushed streams, and the process's end. (Writes and
// removals by name are pinned by the whole-conversion golden files.)
#include <gtest/gtest.h>

#include "platform/platform.h"
#include "process.h"

using kavotest::TempDir;

TEST(StreamRegistry, CloseAllClosesEveryOpenStreamAndOnlyThose) {
    TempDir dir;
    FILE* a = kavolib::open_stream(dir.file("a").c_str(), "wb");
    FILE* b = kavolib::open_stream(dir.file("b").c_str(), "wb");
    FILE* c = kavolib::open_stream(dir.file("c").c_str(), "wb");
    ASSERT_TRUE(a && b && c);
    EXPECT_EQ(kavolib::close_stream(b), 0);
    EXPECT_EQ(kavolib::open_stream_count(), 2);
    std::fputs("kept", a);  // buffered data is written when the stream is closed
    EXPECT_EQ(kavolib::close_all_streams(), 2);
    EXPECT_EQ(kavolib::open_stream_count(), 0);
    EXPECT_EQ(kavolib::close_all_streams(), 0);
    EXPECT_EQ(kavolib::open_stream(dir.file("missing").c_str(), "rb"), nullptr);
    EXPECT_EQ(kavolib::open_stream_count(), 0) << "a failed open is not registered";
    EXPECT_EQ(kavotest::read_file(dir.file("a")), "kept");
    // The standard streams are untouched.
    EXPECT_NE(std::fputs("", stderr), EOF);
}

TEST(StreamRegistry, SlotsAreReusedAndTheLimitIsReportedAsAFailedOpen) {
    TempDir dir;
    for (int round = 0; round < 3; ++round) {
        std::vector<FILE*> opened;
        for (int i = 0; i < kavolib::kMaxStreams; ++i) {
            std::string name = "f";
            name += std::to_string(i);
            FILE* f = kavolib::open_stream(dir.file(name).c_str(), "wb");
            ASSERT_NE(f, nullptr);
            opened.push_back(f);
        }
        EXPECT_EQ(kavolib::open_stream(dir.file("one-too-many").c_str(), "wb"), nullptr);
        EXPECT_FALSE(kavotest::file_exists(dir.file("one-too-many")));
        EXPECT_EQ(kavolib::close_all_streams(), kavolib::kMaxStreams);
    }
}

TEST(FileLength, CountsUnflushedBytesAndIgnoresThePosition) {
    TempDir dir;
    FILE* f = kavolib::open_stream(dir.file("x").c_str(), "w+b");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(kavolib::file_length(f), 0);
    std::fwrite("0123456789", 1, 10, f);
    std::fseek(f, 3, SEEK_SET);
    EXPECT_EQ(kavolib::file_length(f), 10);
    EXPECT_EQ(std::ftell(f), 3);
    kavolib::close_stream(f);
    EXPECT_EQ(kavolib::file_length(nullptr), -1);
}

TEST(EndProcess, FlushesAndExitsWithTheCode) {
    EXPECT_EXIT(
        {
            std::fputs("pending", stderr);
            kavolib::end_process(3);
        },
        testing::ExitedWithCode(3), "pending");
}
