// The conversion engine through its C API: byte for byte the output of kavo() (run in a host
// process) for every fixture, every conformance bitstream and three gains, with kavo()'s fatal
// inputs refused before any byte is written; and the error statuses from real causes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "container/input_layout.h"
#include "engine/memory_source.h"
#include "kavo/kavo.h"
#include "process.h"

using namespace kavotest;
using Message = std::string;

namespace {

namespace fs = std::filesystem;

struct Collected {
    std::string bytes;
    int writes = 0;
    int stop_after = -1;  // writes before the write function asks to stop (-1: never)
    std::vector<int> progress;
    size_t most_threads = 0;  // the process's threads, at most, seen by the progress calls
};

size_t thread_count() {
    return static_cast<size_t>(std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator{}));
}

int collect(void* user, const void* bytes, size_t size) {
    auto* c = static_cast<Collected*>(user);
    if (c->writes++ == c->stop_after) return 1;
    c->bytes.append(static_cast<const char*>(bytes), size);
    return 0;
}

void note_progress(void* user, int percent) {
    auto* c = static_cast<Collected*>(user);
    c->progress.push_back(percent);
    c->most_threads = std::max(c->most_threads, thread_count());
}

int convert_memory(const std::string& mp3, float gain, Collected& out, std::string* message = nullptr) {
    char text[256] = "unset";
    const int status = kavo_convert_memory(mp3.data(), mp3.size(), gain, collect, note_progress,
                                           &out, text, sizeof text);
    if (message != nullptr) *message = text;
    return status;
}

// Every fixture (Layer I, II and III, the tagged and wrapped ones) and every conformance
// bitstream.
std::vector<std::string> all_inputs() {
    std::vector<std::string> inputs;
    if (kavotest::have_conformance()) {
        for (const auto& entry : fs::recursive_directory_iterator(kavotest::conformance_dir())) {
            if (entry.path().extension() == ".bit") inputs.push_back(entry.path());
        }
    }
    for (const auto& entry : fs::directory_iterator(KAVO_FIXTURES_DIR)) {
        if (entry.path().extension().string().starts_with(".mp")) inputs.push_back(entry.path());
    }
    for (const auto& entry : fs::directory_iterator(KAVO_FIXTURES_DIR "/tags")) {
        if (entry.path().extension() != ".tsv") inputs.push_back(entry.path());
    }
    std::sort(inputs.begin(), inputs.end());
    return inputs;
}

int file_call(const std::string& in, const std::string& out, float gain, std::string& message) {
    char text[256] = "unset";
    const int status = kavo_convert_file(in.empty() ? nullptr : in.c_str(), out.c_str(), gain,
                                         nullptr, nullptr, text, sizeof text);
    message = text;
    return status;
}

class SameAsKavo : public testing::TestWithParam<std::string> {};

// kavo() searches the bytes of tags like any others; the engine skips them. Where the input
// has tags, kavo() is given the stream between them (the tag fixtures prove that range right).
TEST_P(SameAsKavo, EngineGivesKavosBytesOrRefusesWhatKavoDiesOn) {
    const std::string mp3 = read_file(GetParam());
    kavolib::MemoryInput whole{reinterpret_cast<const uint8_t*>(mp3.data()), mp3.size(), 0};
    const kavolib::InputLayout layout = kavolib::find_layout(whole.reader());
    TempDir dir;
    write_file(dir.file("in.mp3"), mp3.substr(layout.begin, layout.end - layout.begin));
    for (const char* gain : {"1.0", "0.5", "2.0"}) {
        SCOPED_TRACE(gain);
        fs::remove(dir.file("out.adpcm"));
        const auto host = run_process({KAVO_C_HOST_PATH, "in.mp3", "out.adpcm", gain}, dir.path());
        Collected engine;
        std::string message;
        const int status = convert_memory(mp3, std::stof(gain), engine, &message);
        // Everything on the caller's thread, with no thread started, gives the same status,
        // calls and bytes.
        const size_t threads = thread_count();
        setenv("KAVO_ENGINE_THREADS", "1", 1);
        Collected alone;
        std::string alone_message;
        EXPECT_EQ(convert_memory(mp3, std::stof(gain), alone, &alone_message), status);
        unsetenv("KAVO_ENGINE_THREADS");
        if (!alone.progress.empty()) {
            EXPECT_EQ(alone.most_threads, threads);
        }
        EXPECT_EQ(alone_message, message);
        EXPECT_EQ(alone.writes, engine.writes);
        EXPECT_EQ(alone.progress, engine.progress);
        EXPECT_TRUE(alone.bytes == engine.bytes);
        if (host.exit_code != 0) {
            // kavo() ends the process on these inputs; the engine refuses them before writing.
            EXPECT_EQ(host.exit_code, 1);
            EXPECT_EQ(status, KAVO_ERROR_FORMAT) << message;
            EXPECT_EQ(engine.writes, 0);
            continue;
        }
        ASSERT_NE(host.out.find("status 1 "), std::string::npos) << host.out;
        ASSERT_EQ(status, KAVO_OK) << message;
        EXPECT_EQ(message, "");
        EXPECT_TRUE(engine.bytes == read_file(dir.file("out.adpcm")));
        EXPECT_EQ(engine.bytes.size() % 80, 0u);
        // Progress: from 0, rising, ending with 100.
        ASSERT_FALSE(engine.progress.empty());
        EXPECT_EQ(engine.progress.front(), 0);
        EXPECT_EQ(engine.progress.back(), 100);
        EXPECT_TRUE(std::is_sorted(engine.progress.begin(), engine.progress.end()));
    }
}

INSTANTIATE_TEST_SUITE_P(AllInputs, SameAsKavo, testing::ValuesIn(all_inputs()),
                         [](const testing::TestParamInfo<std::string>& input) {
                             return test_name(fs::path(input.param).filename().string());
                         });

// ---------------------------------------------------------------- errors from real causes

struct ErrorCase {
    const char* name;
    int status;
    const char* message_part;  // a piece of the one-line message
    // Sets up the case in dir and runs it; returns the status.
    int (*run)(const TempDir& dir, std::string& message);
};
// Named by its case in test listings instead of by its bytes.
void PrintTo(const ErrorCase& c, std::ostream* os) { *os << c.name; }

// dir/in.mp3 holding the fixture.
std::string input(const TempDir& dir, const char* name) {
    write_file(dir.file("in.mp3"), fixture_bytes(name));
    return dir.file("in.mp3");
}

// The memory form on the fixture (or mp3 itself), stopped by the write after stop_after writes.
int memory_call(const std::string& mp3, std::string& message, int stop_after = -1,
                float gain = 1.0f) {
    Collected out;
    out.stop_after = stop_after;
    const int status = convert_memory(mp3, gain, out, &message);
    // A refusal writes nothing; a stop writes nothing after the refused write.
    if (status != KAVO_OK && status != KAVO_ERROR_STOPPED && out.writes != 0) return 99;
    if (status == KAVO_ERROR_STOPPED && out.writes != stop_after + 1) return 98;
    return status;
}

const ErrorCase kErrorCases[] = {
    {"NullInputPath", KAVO_ERROR_ARGUMENT, "input path",
     [](const TempDir& d, Message& m) { return file_call("", d.file("out.adpcm"), 1.0f, m); }},
    {"NotANumberGain", KAVO_ERROR_ARGUMENT, "gain",
     [](const TempDir& d, Message& m) {
         return file_call(input(d, "tone_m1_44k_mono.mp3"), d.file("out.adpcm"), std::nanf(""), m);
     }},
    {"InfiniteGain", KAVO_ERROR_ARGUMENT, "gain",
     [](const TempDir&, Message& m) { return memory_call("", m, -1, std::numeric_limits<float>::infinity()); }},
    {"NullWriteFunction", KAVO_ERROR_ARGUMENT, "write function",
     [](const TempDir&, Message& m) {
         char text[256];
         const int s = kavo_convert_memory("x", 1, 1.0f, nullptr, nullptr, nullptr, text, sizeof text);
         m = text;
         return s;
     }},
    {"MissingInput", KAVO_ERROR_READ, "missing.mp3",
     [](const TempDir& d, Message& m) { return file_call(d.file("missing.mp3"), d.file("out.adpcm"), 1.0f, m); }},
    {"InputIsADirectory", KAVO_ERROR_READ, "read",
     [](const TempDir& d, Message& m) { return file_call(d.path(), d.file("out.adpcm"), 1.0f, m); }},
    {"OutputFolderMissing", KAVO_ERROR_WRITE, "cannot create",
     [](const TempDir& d, Message& m) {
         return file_call(input(d, "tone_m1_44k_mono.mp3"), d.file("no/out.adpcm"), 1.0f, m);
     }},
    {"EmptyInput", KAVO_ERROR_FORMAT, "no MPEG audio Layer III frame",
     [](const TempDir&, Message& m) { return memory_call(fixture_bytes("empty.mp3"), m); }},
    {"LayerOne", KAVO_ERROR_FORMAT, "Layer I frame at byte 0",
     [](const TempDir&, Message& m) { return memory_call(fixture_bytes("layer1_m1_48k_mono.mp1"), m); }},
    {"LayerTwoAfterLayerThree", KAVO_ERROR_FORMAT, "Layer II frame at byte 1672",
     [](const TempDir& d, Message& m) {
         return file_call(input(d, "corner_layer2_after_layer3.mp3"), d.file("out.adpcm"), 1.0f, m);
     }},
    {"WriteAsksToStop", KAVO_ERROR_STOPPED, "stop",
     [](const TempDir&, Message& m) { return memory_call(fixture_bytes("speech_mono_22k.mp3"), m, 0); }},
    {"WriteAsksToStopAtTheLastWrite", KAVO_ERROR_STOPPED, "stop",
     [](const TempDir&, Message& m) { return memory_call(fixture_bytes("speech_mono_22k.mp3"), m, 1); }},
};

class Errors : public testing::TestWithParam<ErrorCase> {};

TEST_P(Errors, StatusAndMessageFromARealCauseAndNothingLeftBehind) {
    const ErrorCase& c = GetParam();
    TempDir dir;
    write_file(dir.file("out.adpcm.keep"), "existing");
    std::string message;
    const int status = c.run(dir, message);
    EXPECT_EQ(status, c.status) << message;
    {  // the same with everything on the caller's thread
        TempDir alone;
        setenv("KAVO_ENGINE_THREADS", "1", 1);
        std::string alone_message;
        EXPECT_EQ(c.run(alone, alone_message), status);
        unsetenv("KAVO_ENGINE_THREADS");
        EXPECT_NE(alone_message.find(c.message_part), std::string::npos) << alone_message;
    }
    EXPECT_NE(message.find(c.message_part), std::string::npos) << message;
    EXPECT_EQ(message.find('\n'), std::string::npos);
    EXPECT_STRNE(kavo_status_text(status), kavo_status_text(KAVO_OK));
    // No partial output anywhere in the folder.
    for (const std::string& name : dir.entries()) EXPECT_FALSE(name.ends_with(".part")) << name;
}

INSTANTIATE_TEST_SUITE_P(Causes, Errors, testing::ValuesIn(kErrorCases),
                         [](const testing::TestParamInfo<ErrorCase>& c) { return std::string(c.param.name); });

}  // namespace
