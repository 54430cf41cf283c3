// Frame synchronisation over the input file: the search slides one byte at a time over
// anything that is not a valid header; after a loss of sync a header counts only when the
// header after its frame is valid too; free-format frames are measured by finding the next
// header. The frame's bytes stay in the circular buffer for the Layer III bit reservoir.
#include "frame/frame_sync.h"

#include <algorithm>
#include <cstdio>

#include "platform/report_message.h"

namespace kavolib {

FrameState g_frame_state = {};

namespace {

// Set while the library is loaded; cleared once the first frame's header lines are printed.
bool g_header_lines_pending = true;

const char* const kVersionNames[4] = {"MPEG 2.5", "", "MPEG 2", "MPEG 1"};
const char* const kModeNames[4] = {"stereo        ", "joint_stereo  ", "dual_channel  ",
                                   "single_channel"};
const char* const kModeExtTexts[8] = {"is_stereo (off), ms_stereo (off)",
                                      "is_stereo (on),  ms_stereo (off)",
                                      "is_stereo (off), ms_stereo (on)",
                                      "is_stereo (on),  ms_stereo (on)",
                                      "is_stereo (bound 4)",
                                      "is_stereo (bound 8)",
                                      "is_stereo (bound 12)",
                                      "is_stereo (bound 16)"};
const char* const kEmphasisNames[4] = {"none", "50/15 us", "", "CCITT J.17"};

void warn_header_error(int32_t error) {
    if (verbosity == 0) return;
    switch (error) {
        case kHeaderNoSync:
            report_message("decode: Sync word not found\r", kMessageWarning);
            break;
        case kHeaderBadLayer:
            report_message("decode: Invalid layer\n", kMessageWarning);
            break;
        case kHeaderBadBitrate:
            report_message("decode: Invalid bit rate\n", kMessageWarning);
            break;
        case kHeaderBadSampleRate:
            report_message("decode: Invalid sample rate\n", kMessageWarning);
            break;
        default:
            report_message("decode: Miscellaneous header errors\n", kMessageWarning);
            break;
    }
}

// The file form's source: a short read prints how the input ended.
size_t read_from_file(void* context, uint8_t* dst, size_t n) {
    auto* input = static_cast<FILE*>(context);
    const size_t got = std::fread(dst, 1, n, input);
    if (got < n) {
        if (std::feof(input) != 0) std::fputs("\n\nAll Done !", stderr);
        if (std::ferror(input) != 0) std::fputs("\n\nFile read error !", stderr);
    }
    return got;
}

uint32_t last_byte_read(const FrameState& state) {
    const int32_t index =
        state.fill_position == 0 ? kStreamBufferSize - 1 : state.fill_position - 1;
    return state.stream.bytes[index];
}

// Free format, no length known yet: reads on until the next header of the same kind (the
// protection, padding and private bits ignored), keeps the distance as the free-format length
// and completes the frame after it. 0 on success, 1 when the input ends first.
int measure_free_format(FrameState& state, ByteSource& input, const FrameHeader& header) {
    const uint32_t want_second = header.header_word1 & 0xFEu;
    const uint32_t want_third = (header.header_word2 >> 8) & 0xFCu;
    uint32_t oldest = 0;
    uint32_t middle = 0;
    uint32_t newest = 0;
    int64_t length = 1;
    while (
        !(oldest == 0xFFu && (middle & 0xFEu) == want_second && (newest & 0xFCu) == want_third)) {
        if (read_bytes_from(state, input, 1) != 0) return 1;
        oldest = middle;
        middle = newest;
        newest = last_byte_read(state);
        ++length;
    }
    if (header.padding == 1) --length;
    // A distance beyond 2^30 bytes cannot be a frame; it is kept bounded so that the
    // arithmetic on it stays in 32 bits (the frames that follow will simply not sync).
    if (length > (int64_t{1} << 30)) length = int64_t{1} << 30;
    state.free_format_length = static_cast<int32_t>(length);
    const int next_padding = static_cast<int>((newest >> 1) & 1u);
    return read_bytes_from(state, input, state.free_format_length + next_padding - 3);
}

}  // namespace

bool& header_lines_pending() {
    return g_header_lines_pending;
}

void print_header_lines(const FrameHeader& header, int32_t pcm_rate) {
    const int32_t layer_code_high = static_cast<int32_t>((header.header_word1 >> 2) & 1u);
    const uint32_t word2 = header.header_word2;
    std::fprintf(stderr, "\n[version] %s \t\t [layer] %d\n", kVersionNames[header.version & 3],
                 header.layer);
    std::fprintf(stderr, "[crc protect] %d \t\t [bitrate] %d kbps\n", header.crc_protect,
                 bitrate_kbps(header.layer, header.id, header.bitrate_index));
    std::fprintf(stderr, "[sample freq] %d Hz \t\t [padding] %d\n", pcm_rate, header.padding);
    std::fprintf(stderr, "[mode] %s \t\t [mode_ext] %s\n", kModeNames[header.mode & 3],
                 kModeExtTexts[(header.mode_ext & 3) + 4 * layer_code_high]);
    std::fprintf(stderr, "[copyright] %d \t\t\t [original] %d\n",
                 static_cast<int>((word2 >> 3) & 1u), static_cast<int>((word2 >> 2) & 1u));
    std::fprintf(stderr, "[emphasis] %s\n\n", kEmphasisNames[word2 & 3u]);
}

// Byte by byte in effect: the bytes go to the buffer in order, wrapping at its end, and on a
// short read those that did arrive stay counted, exactly as one getc per byte would leave them.
// The reads are done a run at a time, up to the buffer's end.
int read_bytes_from(FrameState& state, ByteSource& source, int n) {
    if (n < 1) return 0;
    int remaining = n;
    while (remaining > 0) {
        const int run = std::min(remaining, kStreamBufferSize - state.fill_position);
        const size_t got = source.read(source.context, state.stream.bytes + state.fill_position,
                                       static_cast<size_t>(run));
        const auto got_count = static_cast<int32_t>(got);
        state.fill_position += got_count;
        if (state.fill_position == kStreamBufferSize) state.fill_position = 0;
        state.bytes_read += got_count;
        remaining -= got_count;
        if (got_count < run) return 1;
    }
    return 0;
}

int read_input_bytes(FrameState& state, FILE* input, int n) {
    ByteSource source{read_from_file, input};
    return read_bytes_from(state, source, n);
}

FrameRead read_frame_from(FrameState& state, BitReader& reader, FrameHeader& frame_header,
                          ByteSource& input) {
    if (read_bytes_from(state, input, 4) != 0) return FrameRead{1, false, -1};
    int result = 1;
    bool last_check_passed = false;
    int64_t header_offset = -1;
    for (;;) {
        header_offset = state.bytes_read - 4;
        int32_t start = state.fill_position - 4;
        if (start < 0) start += kStreamBufferSize;
        state.current = BitPosition{state.stream.bytes, 0, start};
        state.header_job = HeaderJob{state.current, 0, state.free_format_length};
        const CodecResult check = decode_header(reader, frame_header, state.header_job);
        if (check.error != 0) {
            last_check_passed = false;
            state.sync_state = sync_lost;
            if (read_bytes_from(state, input, 1) != 0) break;
            warn_header_error(check.error);
            continue;
        }
        last_check_passed = true;
        const FrameHeader& header = *static_cast<const FrameHeader*>(check.result);
        state.current.byte_index = state.fill_position;

        int failed = 0;
        if (header.bitrate_index != 0) {
            failed = read_bytes_from(state, input, header.frame_length - 4);
        } else if (state.free_format_length != 0) {
            failed = read_bytes_from(state, input, state.free_format_length + header.padding - 4);
        } else {
            state.sync_state = sync_lost;
            failed = measure_free_format(state, input, header);
        }
        if (failed != 0) break;

        if (state.sync_state == sync_lost) {
            // The frame just read is not delivered: its successor must confirm it first.
            state.sync_state = sync_pending;
            if (read_bytes_from(state, input, 4) != 0) break;
            continue;
        }
        state.sync_state = sync_locked;
        state.pcm_rate = sample_rate_hz(header.version, header.sample_freq);
        state.pcm_channels = header.mode == 3 ? 1 : 2;
        result = 0;
        break;
    }
    return FrameRead{result, last_check_passed, header_offset};
}

int read_frame(FrameState& state, FILE* input) {
    ByteSource source{read_from_file, input};
    const FrameRead read = read_frame_from(state, g_bit_reader, g_frame_header, source);
    if (g_header_lines_pending && read.last_check_passed) {
        print_header_lines(g_frame_header, state.pcm_rate);
        g_header_lines_pending = false;
    }
    return read.result;
}

}  // namespace kavolib
