// mix_to_mono and resample_to_8k. The header is read as one 44-byte record without checking
// its tags; the fields used are channels (22), frames per second (24), block align (32) and
// data size (40). Sizes written back wrap in 32 bits as the fields do.
#include "resample/resample_stages.h"

#include <cmath>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/platform.h"
#include "resample/mix_core.h"
#include "resample/resample_engine.h"

namespace kavolib {

namespace {

uint32_t get32(const WavHeader& h, int at) { return wav_get32(h.bytes, at); }
int16_t get16(const WavHeader& h, int at) { return wav_get16(h.bytes, at); }
void put32(WavHeader& h, int at, uint32_t v) { wav_put32(h.bytes, at, v); }
void put16(WavHeader& h, int at, int v) { wav_put16(h.bytes, at, static_cast<uint32_t>(v)); }

[[noreturn]] void failStage() {
    close_all_streams();
    end_process(1);
}

// A file shorter than the header reads as zeros past its end.
WavHeader readHeader() {
    WavHeader h{};
    const size_t got = std::fread(h.bytes, 1, kWavHeaderSize, stageInput);
    std::memset(h.bytes + got, 0, kWavHeaderSize - got);
    return h;
}

// N = data size / block align. A block align of 0 or less gives no frame size to divide by:
// the stage fails.
int framesIn(const WavHeader& h) {
    const int16_t blockAlign = get16(h, 32);
    if (blockAlign <= 0) {
        resampleError("the WAV header gives no frame size (block align)");
        failStage();
    }
    return static_cast<int32_t>(get32(h, 40)) / blockAlign;
}

// The diagnostic block of "temp.txt": 400 bytes describing the input stream as opened, padded
// with blanks; nothing reads it.
void writeDiagnostic(FILE* text, const char* inPath) {
    const int fd = fileno(stageInput);
    const long length = file_length(stageInput);
    char block[401];
    const int used = std::snprintf(
        block, sizeof block,
        "stageInput\nname %.200s\ndescriptor %d\nposition %ld\nlength %ld\neof %d\nerror %d\n",
        inPath, fd, std::ftell(stageInput), length, std::feof(stageInput),
        std::ferror(stageInput));
    const size_t filled = used < 0 ? 0 : std::min<size_t>(static_cast<size_t>(used), 399);
    std::memset(block + filled, ' ', 399 - filled);
    block[399] = '\n';
    std::fwrite(block, 1, 400, text);
}

}  // namespace

void mix_to_mono(const char* inPath, const char* outPath, ProgressCallback callback,
                 int32_t user) {
    stageInput = open_stream(inPath, "rb");
    stageOutput = open_stream(outPath, "wb");
    if (stageInput == nullptr || stageOutput == nullptr) failStage();

    WavHeader h = readHeader();
    const int n = framesIn(h);
    const bool mono = get16(h, 22) == 1;
    const uint32_t dataSize = 2u * static_cast<uint32_t>(n);
    put16(h, 22, 1);
    put16(h, 32, 2);
    put32(h, 28, 2u * get32(h, 24));
    put32(h, 40, dataSize);
    put32(h, 4, dataSize + 36u);
    std::fwrite(h.bytes, 1, kWavHeaderSize, stageOutput);

    // Frames the header promises but the file does not hold are written as silence, so the
    // data always matches the header's N frames.
    constexpr int kChunk = 4096;
    int16_t in[2 * kChunk];
    int16_t out[kChunk];
    const size_t perFrame = mono ? 1 : 2;
    for (int done = 0; done < n;) {
        const int count = std::min(kChunk, n - done);
        const size_t wanted = perFrame * static_cast<size_t>(count);
        const size_t got = std::fread(in, sizeof(int16_t), wanted, stageInput);
        std::memset(in + got, 0, (wanted - got) * sizeof(int16_t));
        for (int f = 0; f < count; ++f) {
            out[f] = mono ? in[f] : mix_pair(in[2 * f], in[2 * f + 1]);
            if (callback != nullptr) {
                const double share = static_cast<double>(done + f) / static_cast<double>(n);
                callback(user, 0, 100, 40 - static_cast<int>(std::trunc(share * (-20.0))), 1);
            }
        }
        std::fwrite(out, sizeof(int16_t), static_cast<size_t>(count), stageOutput);
        done += count;
    }
    close_all_streams();
}

void resample_to_8k(const char* inPath, const char* outPath, int16_t useLargeFilter,
                    ProgressCallback callback, int32_t user) {
    char filterFileName[512] = "";
    stageInput = open_stream(inPath, "rb");
    stageOutput = open_stream(outPath, "wb");
    FILE* text = open_stream("temp.txt", "w+");
    if (stageInput == nullptr || stageOutput == nullptr) failStage();
    // Nothing reads the diagnostic block, so a "temp.txt" that cannot be created is skipped.
    if (text != nullptr) writeDiagnostic(text, inPath);

    WavHeader h = readHeader();
    const uint32_t rate = get32(h, 24);
    const double factor = 8000.0 / rate;
    const int n = framesIn(h);
    // A rate of 0, or an output count beyond an int, cannot be converted.
    const double m = std::trunc(n * factor + 0.5);
    if (rate == 0 || !(m >= INT_MIN && m <= INT_MAX)) {
        resampleError("the WAV header gives no usable frame rate");
        failStage();
    }
    const int outCount = static_cast<int>(m);
    const int16_t blockAlign = get16(h, 32);
    const auto dataSize = static_cast<uint32_t>(blockAlign) * static_cast<uint32_t>(outCount);
    put32(h, 24, 8000);
    put32(h, 28, static_cast<uint32_t>(std::trunc(blockAlign * 8000.0)));
    put32(h, 40, dataSize);
    put32(h, 4, dataSize + 36u);
    std::fwrite(h.bytes, 1, kWavHeaderSize, stageOutput);

    const int written = resample(factor, n, outCount, get16(h, 22), 1, 0,
                                 useLargeFilter != 0 ? 1 : 0, filterFileName, callback, user);
    if (written < 1) failStage();
    close_all_streams();
}

}  // namespace kavolib
