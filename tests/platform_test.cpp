// The platform layer: the stream registry behind "close every open stream" (its limit and the
// reuse of its slots). (File lengths, the process's end, writes and removals by name are
// pinned by the whole-conversion golden files.)
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/platform.h"
#include "process.h"

using namespace kavolib;
using kavotest::TempDir;

TEST(StreamRegistry, CloseAllClosesEveryOpenStreamUpToTheLimitAndOnlyThose) {
    TempDir dir;
    FILE* a = open_stream(dir.file("a").c_str(), "wb");
    FILE* b = open_stream(dir.file("b").c_str(), "wb");
    ASSERT_TRUE(a && b && open_stream(dir.file("c").c_str(), "wb"));
    EXPECT_EQ(close_stream(b), 0);
    EXPECT_EQ(open_stream_count(), 2);
    std::fputs("kept", a);  // buffered data is written when the stream is closed
    EXPECT_EQ(close_all_streams(), 2);
    EXPECT_EQ(open_stream_count(), 0);
    EXPECT_EQ(close_all_streams(), 0);
    EXPECT_EQ(open_stream(dir.file("missing").c_str(), "rb"), nullptr);
    EXPECT_EQ(open_stream_count(), 0) << "a failed open is not registered";
    EXPECT_EQ(kavotest::read_file(dir.file("a")), "kept");
    EXPECT_NE(std::fputs("", stderr), EOF) << "the standard streams are untouched";
    // The slots are reused, and one stream past the limit is a failed open.
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < kMaxStreams; ++i) {
            std::string name = "f";  // (not "f" + ...: GCC 12 warns wrongly of an overlap there)
            name += std::to_string(i);
            ASSERT_NE(open_stream(dir.file(name).c_str(), "wb"), nullptr);
        }
        EXPECT_EQ(open_stream(dir.file("one-too-many").c_str(), "wb"), nullptr);
        EXPECT_FALSE(std::filesystem::exists(dir.file("one-too-many")));
        EXPECT_EQ(close_all_streams(), kMaxStreams);
    }
}
