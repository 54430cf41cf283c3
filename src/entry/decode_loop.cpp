// The frame-by-frame decode loop: each frame delivered by the frame layer is handed to the
// Layer III decoder granule by granule through codec command 4, and each granule's samples go
// to the decoded-PCM file. "chkmode.txt" records how the run is going (0 while Layer III
// frames are decoded, 1 after a refusal of Layer I or II).
#include "entry/decode_loop.h"

#include <cstdio>
#include <cstring>

#include "entry/codec_command.h"
#include "frame/frame_header.h"
#include "frame/frame_sync.h"
#include "pcmout/pcm_output.h"
#include "platform/platform.h"
#include "platform/report_message.h"

namespace kavolib {

int64_t frame_counter = 0;

namespace {

// The first frame decoded and the frame limit (-1: none); fixed, so every frame is decoded.
constexpr int64_t kFirstFrame = 0;
constexpr int64_t kFrameLimit = -1;

PcmBuffers g_pcm = {};
double* g_pcm_pointers[2] = {g_pcm.samples[0], g_pcm.samples[1]};
int32_t g_channel_flags[2] = {1, 1};
int32_t g_buffer_lengths[2] = {576, 576};
GranuleJob g_granule_job = {};

// The flag file is not checked: a run that cannot create it goes on without it.
void write_chkmode(int32_t value, bool with_text_digit) {
    FILE* flag = open_stream("chkmode.txt", "wb");
    if (flag == nullptr) return;
    if (with_text_digit) std::fprintf(flag, "%d", value);
    put_word32(value, flag);
    close_stream(flag);
}

// The per-frame flag: "chkmode.txt" holding exactly the 32-bit 0. When it already has its
// 4 bytes they are overwritten in place: the file ends up the same as after truncating and
// rewriting it, but without the truncation, which some file systems (ext4) turn into a
// flush to disk for every frame.
void write_chkmode_zero() {
    FILE* flag = open_stream("chkmode.txt", "r+b");
    if (flag != nullptr && file_length(flag) != 4) {
        close_stream(flag);
        flag = nullptr;
    }
    if (flag == nullptr) flag = open_stream("chkmode.txt", "wb");
    if (flag == nullptr) return;
    put_word32(0, flag);
    close_stream(flag);
}

[[noreturn]] void refuse_layer(int32_t layer) {
    if (layer == 1) {
        std::fputs("Layer 1 no support !!!\n", stderr);
        write_chkmode(1, false);
    } else {
        std::fputs("Layer 2 no  support !!!\n", stderr);
        write_chkmode(1, true);
    }
    end_conversion_failed();
}

}  // namespace

void end_conversion_failed() {
    close_all_streams();
    end_process(1);
}

int32_t decode_progress(int64_t bytes_read, int64_t input_length) {
    if (input_length <= 0) return 0;
    return static_cast<int32_t>(static_cast<double>(bytes_read) /
                                static_cast<double>(input_length) * 100.0 * 0.4);
}

void decoder_init() {
    std::memset(&g_pcm, 0, sizeof g_pcm);
    FrameState& frames = g_frame_state;
    frames.sync_state = sync_pending;
    g_channel_flags[0] = g_channel_flags[1] = 1;
    g_buffer_lengths[0] = g_buffer_lengths[1] = 576;
    frames.free_format_length = 0;
    frames.fill_position = 0;
    frames.current = BitPosition{frames.stream.bytes, 0, 0};
    codec_command(CodecRequest{kCodecReset, 0, nullptr});
}

void decode_phase(const char* input, const char* decoded_name, ProgressCallback callback,
                  int32_t user) {
    DecodeFiles& files = g_decode_files;
    FrameState& frames = g_frame_state;
    files.input_name = input;
    files.output_name = decoded_name;
    open_decode_files(files, frames);
    decoder_init();

    for (;;) {
        if (callback != nullptr) {
            callback(user, 0, 100, decode_progress(frames.bytes_read, files.input_length), 1);
        }
        if (read_frame(frames, files.input) != 0) break;

        const bool in_range =
            frame_counter >= kFirstFrame && (kFrameLimit == -1 || frame_counter < kFrameLimit);
        if (in_range) {
            if (verbosity != 0) {
                const int64_t length = files.input_length > 0 ? files.input_length : 1;
                std::fprintf(stderr, "Decoding frame %lld     (%d%% done)\r",
                             static_cast<long long>(frame_counter),
                             static_cast<int>(static_cast<double>(frames.bytes_read) * 100.0 /
                                                  static_cast<double>(length) +
                                              0.5));
                std::fflush(stderr);
            }
            const FrameHeader& header = g_frame_header;
            const int32_t layer = 4 - static_cast<int32_t>((header.header_word1 >> 1) & 3u);
            const int32_t granules = header.granules;
            if (layer != 3) refuse_layer(layer);

            write_chkmode_zero();
            int32_t carried_error = 0;
            for (int32_t g = 0; g < granules; ++g) {
                GranuleJob& job = g_granule_job;
                job.buffer = frames.stream.bytes;
                job.bit_offset = frames.current.bit_offset;
                job.byte_index = frames.current.byte_index;
                job.reserved1 = 0;
                job.pcm_buffers = g_pcm_pointers;
                job.channel_flags = g_channel_flags;
                job.buffer_lengths = g_buffer_lengths;
                job.reserved2 = 0;
                job.granule = g;
                job.conceal_limit = 0;
                const CodecResult result =
                    codec_command(CodecRequest{kCodecDecodeGranule, carried_error, &job});
                carried_error = result.error;
                if (result.error == 0) {
                    const auto* next = static_cast<const BitPosition*>(result.result);
                    frames.current.bit_offset = next->bit_offset;
                    frames.current.byte_index = next->byte_index;
                } else if (g == 0 && verbosity == 1) {
                    if (result.error == 1) report_message("decode: CRC error\n", kMessageWarning);
                    if (result.error == 2) {
                        report_message("decode: Not enough main data ! discard this frame\n",
                                       kMessageWarning);
                    }
                }
                write_granule_pcm(files, g_pcm.samples[0], frames.pcm_channels);
            }
        }
        ++frame_counter;
    }
    close_decode_files(files, frames, g_frame_header.granules, frame_counter);
}

}  // namespace kavolib
