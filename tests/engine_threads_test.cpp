// Ten conversions at once on ten threads, each with its own input (MP3s, an MP3 with an ID3v2
// tag in a RIFF wrapper, a WAV prompt; half of them stopped by their first write), give the
// bytes, the progress and the status that each gives alone, with every callback on the
// calling thread. Run under ThreadSanitizer by the tsan preset, which
// also covers the queue between each conversion's decode thread and its caller.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "audio.h"
#include "kavo/kavo.h"
#include "process.h"

namespace {

struct Result {
    int status = 1;
    std::string bytes;
    std::vector<int> progress;
    bool other_thread = false;  // a callback ran on a thread other than the caller's
};

struct Call {
    Result* result;
    std::thread::id caller;
    bool stop;  // the first write asks to stop
};

int keep(void* user, const void* bytes, size_t size) {
    auto* call = static_cast<Call*>(user);
    call->result->other_thread |= std::this_thread::get_id() != call->caller;
    if (call->stop) return 1;
    call->result->bytes.append(static_cast<const char*>(bytes), size);
    return 0;
}

void step(void* user, int percent) {
    auto* call = static_cast<Call*>(user);
    call->result->other_thread |= std::this_thread::get_id() != call->caller;
    call->result->progress.push_back(percent);
}

Result convert(const std::string& mp3, float gain, bool stop) {
    Result result;
    Call call{&result, std::this_thread::get_id(), stop};
    result.status = kavo_convert_memory(mp3.data(), mp3.size(), gain, keep, step, &call, nullptr, 0);
    return result;
}

TEST(Threads, TenConversionsAtOnceEqualTheirSequentialResults) {
    const char* names[] = {"tone_m1_44k_stereo.mp3", "tone_m1_44k_mono.mp3",
                           "speech_mono_22k.mp3",     "tone_m25_8k_mono.mp3",
                           "tone_m2_24k_dual.mp3",    "corner_stereo_then_mono.mp3",
                           "tone_m1_44k_free.mp3",    "noise_bursts_m1_44k_32kbps.mp3",
                           "tags/riff_mp3_id3v2.wav", "sine.wav"};
    std::vector<std::string> inputs;
    std::vector<Result> alone;
    for (size_t i = 0; i < std::size(names); ++i) {
        inputs.push_back(std::string(names[i]) == "sine.wav"
                             ? kavotest::wav_bytes(kavotest::sine(30000, 440, 22050, 8000, 2), 2, 22050)
                             : kavotest::read_file(std::string(KAVO_FIXTURES_DIR) + "/" + names[i]));
        alone.push_back(convert(inputs.back(), 0.5f, i % 2 == 1));
        ASSERT_EQ(alone.back().status, i % 2 == 1 ? KAVO_ERROR_STOPPED : KAVO_OK) << names[i];
    }
    std::vector<Result> together(inputs.size());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < inputs.size(); ++i) {
        threads.emplace_back([&, i] { together[i] = convert(inputs[i], 0.5f, i % 2 == 1); });
    }
    for (std::thread& t : threads) t.join();
    for (size_t i = 0; i < inputs.size(); ++i) {
        SCOPED_TRACE(names[i]);
        EXPECT_EQ(together[i].status, alone[i].status);
        EXPECT_FALSE(together[i].other_thread);
        EXPECT_EQ(alone[i].bytes.empty(), i % 2 == 1);
        EXPECT_TRUE(together[i].bytes == alone[i].bytes);
        EXPECT_EQ(together[i].progress, alone[i].progress);
    }
}

}  // namespace
