// The frame layer: peeks across the buffer's end against a plain bit walk and the warning of a
// read longer than 24 bits, the CRC table and register, header decoding (every version, layer,
// bitrate and rate against an independent frame-length rule) through the codec command, the
// command's other requests, and frame synchronisation after a corrupt header. (Reads are
// compared with the 64-bit reads by the Huffman tests; the input read, a cut final frame,
// garbage, tags, free format (its measured length and padding), the CRC's start in a protected
// header and the printed header lines are covered by the fixtures, their golden transcripts,
// the comparisons with an independent decoder and the conformance streams.)
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "entry/codec_command.h"
#include "frame/bitstream.h"
#include "frame/codec.h"
#include "frame/frame_header.h"
#include "frame/frame_sync.h"
#include "platform/report_message.h"
#include "audio.h"
#include "process.h"

using namespace kavolib;
using kavotest::TempDir;

namespace {

uint32_t reference_crc(uint32_t reg, const uint8_t* data, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        for (int bit = 7; bit >= 0; --bit) {
            const uint32_t in = (data[i] >> bit) & 1u;
            const uint32_t top = (reg >> 15) & 1u;
            reg = (reg << 1) & 0xFFFFu;
            if ((top ^ in) != 0) reg ^= 0x8005u;
        }
    }
    return reg;
}

CodecResult check_header(const std::vector<uint8_t>& bytes, int32_t free_length = 0) {
    static StreamBuffer buffer;
    std::memset(buffer.bytes, 0, sizeof buffer.bytes);
    std::memcpy(buffer.bytes, bytes.data(), bytes.size());
    static HeaderJob job;
    job = HeaderJob{BitPosition{buffer.bytes, 0, 0}, 0, free_length};
    return codec_command(CodecRequest{kCodecDecodeHeader, 0, &job});
}

}  // namespace

// Peeks of every width at every offset across the buffer's end against a plain bit walk (the
// decoder's own reads seldom need a peek's fourth byte).
TEST(BitReader, PeeksMatchAPlainBitWalkAcrossTheWrapAndLongReadsWarn) {
    StreamBuffer buffer{};
    for (size_t i = 0; i < sizeof buffer.bytes; ++i) buffer.bytes[i] = static_cast<uint8_t>(i * 7919 >> 3);
    for (int64_t start = 1914 * 8; start < 1922 * 8; ++start) {
        const auto index = static_cast<int32_t>(start / 8 % kStreamBufferSize);
        const BitReader reader{BitPosition{buffer.bytes, static_cast<int32_t>(start % 8), index}, 0};
        uint32_t expected = 0;
        for (int n = 1; n <= 24; ++n) {
            const int64_t bit = start + n - 1;
            expected = expected << 1 | (buffer.bytes[bit / 8 % kStreamBufferSize] >> (7 - bit % 8) & 1u);
            ASSERT_EQ(bitunp_peek(reader, n), expected) << start << " n=" << n;
        }
    }
    // Items of up to 24 bits are read silently; a longer one warns while warnings are shown.
    BitReader reader{BitPosition{buffer.bytes, 0, 0}, 0};
    verbosity = 1;
    for (int n : {24, 25}) {
        testing::internal::CaptureStderr();
        bitunp_rj(reader, n);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  n == 24 ? "" : "\nWARNING: upk_subs: bitunp_rj unpack items longer than 24 bits\n");
    }
    verbosity = 0;
}

TEST(Crc16, TableAndRegisterFollowTheGeneratorBitByBit) {
    for (uint32_t i = 0; i < 256; ++i) {
        const auto byte = static_cast<uint8_t>(i);
        ASSERT_EQ(kCrcTable[i], reference_crc(0, &byte, 1)) << i;
    }

    StreamBuffer buffer{};
    BitReader reader{};
    std::memcpy(buffer.bytes + 10, "abc", 3);
    reader.crc = 0xFFFF;
    crc_calc_byte(reader, buffer.bytes, 10, 0, 3);
    EXPECT_EQ(reader.crc, 0x44D8u);
    crc_calc_byte(reader, buffer.bytes, 10, 0, 0);
    EXPECT_EQ(reader.crc, 0x44D8u) << "a count of 0 changes nothing";
}

TEST(Crc16DeathTest, UnalignedStartIsFatal) {
    StreamBuffer buffer{};
    BitReader reader{};
    EXPECT_EXIT(crc_calc_byte(reader, buffer.bytes, 0, 3, 2), testing::ExitedWithCode(1),
                "FATAL ERROR: crc_calc_byte: bit offset not byte aligned");
}

// Headers the decoder refuses, with their error: no sync, the reserved version, layer code 0,
// bitrate index 15, sampling frequency 3, and Layer II bitrates its mode does not allow.
TEST(HeaderDecode, RefusedHeadersGiveTheirError) {
    const std::pair<std::vector<uint8_t>, int32_t> cases[] = {
        {{0xFF, 0x7B, 0x90, 0x00}, 1}, {{0xFF, 0xEB, 0x90, 0x00}, 1}, {{0xFF, 0xF9, 0x90, 0x00}, 2},
        {{0xFF, 0xFB, 0xF0, 0x00}, 3}, {{0xFF, 0xFB, 0x9C, 0x00}, 4}, {{0xFF, 0xFD, 0x10, 0x00}, 5},
        {{0xFF, 0xFD, 0xD0, 0xC0}, 5}};
    for (const auto& [bytes, error] : cases) {
        const CodecResult r = check_header(bytes);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.error, error) << int(bytes[1]) << " " << int(bytes[2]);
        EXPECT_NE(r.result, static_cast<void*>(&g_frame_header));
    }
}

// Every version, layer, bitrate index (0: free format, not yet measured), sampling frequency,
// padding and mode: the header words and channels are the bytes', the frame length is the
// standard formula's over an independent copy of the bitrate table, and the granules per frame
// follow the layer and version. Layer II refuses the bitrates its mode does not allow.
TEST(HeaderDecode, EveryBitrateAndRateGivesTheFrameLengthOfTheStandardFormula) {
    int checked = 0;
    for (int version : {0, 2, 3}) {
        for (int layer = 1; layer <= 3; ++layer) {
            for (int index = 0; index < 15; ++index) {
                for (int freq = 0; freq < 3; ++freq) {
                    for (int mode : {0, 3}) {
                        const std::vector<uint8_t> h = {
                            0xFF, static_cast<uint8_t>(0xE1 | version << 3 | (4 - layer) << 1),
                            static_cast<uint8_t>(index << 4 | freq << 2 | (index & 1) << 1),
                            static_cast<uint8_t>(mode << 6)};
                        const CodecResult r = check_header(h);
                        if (r.error == 5) {
                            EXPECT_EQ(layer, 2);
                            continue;
                        }
                        ASSERT_EQ(r.error, 0) << version << " " << layer << " " << index;
                        ASSERT_EQ(r.status, 1);
                        ASSERT_EQ(r.result, static_cast<void*>(&g_frame_header));
                        EXPECT_EQ(g_frame_header.frame_length, kavotest::frame_bytes(h.data()))
                            << "version " << version << " layer " << layer << " index " << index
                            << " freq " << freq;
                        EXPECT_EQ(g_frame_header.granules, layer != 3 ? 12 : version == 3 ? 2 : 1);
                        EXPECT_EQ(g_frame_header.header_word1, uint32_t{h[0]} << 8 | h[1]);
                        EXPECT_EQ(g_frame_header.header_word2, uint32_t{h[2]} << 8 | h[3]);
                        EXPECT_EQ(g_frame_header.channels, mode == 3 ? 1 : 2);
                        ++checked;
                    }
                }
            }
        }
    }
    EXPECT_GT(checked, 400);
}

// The broken frame is lost; sync must be confirmed again, so its successor is lost too (and
// more when a stray sync pattern in the audio data is tried first).
TEST(FrameSync, ACorruptHeaderMidStreamCostsAtLeastTwoFrames) {
    const std::string mp3 = kavotest::read_file(kavotest::fixture("tone_m1_44k_joint_notag.mp3"));
    const std::vector<size_t> starts = kavotest::walk_frames(mp3, 0);
    ASSERT_GT(starts.size(), 5u);
    std::string broken = mp3;
    broken[starts[3] + 2] = static_cast<char>(0xF0);  // bitrate index 15
    TempDir dir;
    kavotest::write_file(dir.file("in.mp3"), broken);
    auto state = std::make_unique<FrameState>();
    std::memset(state.get(), 0, sizeof(FrameState));
    state->sync_state = sync_pending;
    FILE* input = std::fopen(dir.file("in.mp3").c_str(), "rb");
    std::vector<int64_t> frames;  // the file offset after each frame delivered
    while (read_frame(*state, input) == 0) frames.push_back(state->bytes_read);
    std::fclose(input);
    ASSERT_LE(frames.size(), starts.size() - 2);
    ASSERT_GE(frames.size(), 5u);
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(frames[i], static_cast<int64_t>(starts[i + 1]));
    const size_t first = starts.size() - (frames.size() - 3);
    EXPECT_GE(first, 5u);
    for (size_t i = 3; i < frames.size(); ++i) {
        const size_t k = first + i - 3;
        const size_t end = k + 1 < starts.size() ? starts[k + 1] : mp3.size();
        EXPECT_EQ(frames[i], static_cast<int64_t>(end)) << i;
    }
}

TEST(CodecCommand, ResetEchoUnknownAndHeaderFailure) {
    int anything = 0;
    StreamBuffer buffer{};
    HeaderJob job{BitPosition{buffer.bytes, 0, 0}, 0, 0};
    const auto outcome = [](const CodecResult& r) { return std::make_tuple(r.status, r.error, r.result); };
    EXPECT_EQ(outcome(codec_command({0, 0, nullptr})), std::make_tuple(1, 0, nullptr));
    EXPECT_EQ(outcome(codec_command({7, 5, &anything})), std::make_tuple(7, 5, static_cast<void*>(&anything)));
    EXPECT_EQ(outcome(codec_command({1, 0, &job})), std::make_tuple(1, 1, static_cast<void*>(&job)));
    for (int32_t command : {8, -1, 1000, INT32_MIN}) {
        EXPECT_EQ(outcome(codec_command({command, 3, &anything})), std::make_tuple(-1, -1, nullptr));
    }
}

TEST(CodecCommandDeathTest, ReservedCommandsEndTheProcessWithTheirMessage) {
    const std::pair<int32_t, const char*> reserved[] = {
        {2, "Layer 1 decode under construction!!!"},
        {3, "Layer 2 decode under construction!!!"},
        {5, "Layer 1 encode under construction!!!"},
        {6, "Layer 2 encode under construction!!!"}};
    for (const auto& [command, message] : reserved) {
        // The message goes to standard output; the death test watches standard error.
        EXPECT_EXIT(
            {
                dup2(2, 1);
                codec_command(CodecRequest{command, 0, nullptr});
            },
            testing::ExitedWithCode(1), message);
    }
}
