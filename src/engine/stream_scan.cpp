// The header scan: the frame layer's synchronisation run over the whole input with a state of
// its own, every frame it delivers counted the way the decode loop would decode it. The frame
// layer does not depend on what the granule decoder does, so this sees exactly the frames the
// decode will see.
#include "engine/stream_scan.h"

#include <algorithm>
#include <memory>

#include "engine/memory_source.h"

namespace kavolib {

namespace {

struct ScanState {
    FrameState frames;
    BitReader reader;
    FrameHeader header;
};

// The encoder's header in the frame just delivered, whose bytes lie in the circular stream
// buffer from its header on.
EncoderHeader first_frame_header(const FrameState& frames, const FrameHeader& header) {
    uint8_t bytes[kEncoderHeaderBytes];
    const auto size =
        std::min(kEncoderHeaderBytes, static_cast<size_t>(std::max(header.frame_length, 0)));
    const int32_t start = (frames.current.byte_index - 4 + kStreamBufferSize) % kStreamBufferSize;
    for (size_t i = 0; i < size; ++i)
        bytes[i] = frames.stream.bytes[(start + static_cast<int32_t>(i)) % kStreamBufferSize];
    return parse_encoder_header(bytes, size, header.id, header.channels);
}

}  // namespace

StreamScan scan_stream(ByteSource& source) {
    StreamScan scan{};
    scan.layer12_offset = -1;
    // The stream buffer is large enough not to belong on a caller's small thread stack.
    auto state = std::make_unique<ScanState>();
    FrameState& frames = state->frames;
    frames.sync_state = sync_pending;
    frames.current = BitPosition{frames.stream.bytes, 0, 0};
    for (;;) {
        const FrameRead read = read_frame_from(frames, state->reader, state->header, source);
        if (read.result != 0) break;
        const FrameHeader& header = state->header;
        const int32_t layer = 4 - static_cast<int32_t>((header.header_word1 >> 1) & 3u);
        if (scan.frame_count == 0) {
            scan.version = header.version;
            scan.layer = layer;
            scan.sample_rate = frames.pcm_rate;
            scan.mode = header.mode;
            scan.channels = frames.pcm_channels;
            scan.bitrate_kbps = bitrate_kbps(header.layer, header.id, header.bitrate_index);
            scan.free_format = header.bitrate_index == 0;
            scan.granules = header.granules;
            scan.encoder = first_frame_header(frames, header);
        }
        ++scan.frame_count;
        if (layer != 3) {
            // The decode stops here: nothing after this frame counts.
            scan.has_layer12 = true;
            scan.layer12_layer = layer;
            scan.layer12_offset = read.header_offset;
            break;
        }
        if (scan.layer3_frames > 0 &&
            (frames.pcm_rate != scan.last_rate || frames.pcm_channels != scan.last_channels)) {
            scan.format_changed = true;
        }
        ++scan.layer3_frames;
        scan.last_version = header.version;
        scan.last_rate = frames.pcm_rate;
        scan.last_channels = frames.pcm_channels;
        scan.pcm_frames += int64_t{576} * header.granules;
        scan.pcm_values += int64_t{576} * header.granules * frames.pcm_channels;
    }
    if (scan.last_rate > 0) {
        scan.duration_seconds =
            static_cast<double>(scan.pcm_frames) / static_cast<double>(scan.last_rate);
    }
    return scan;
}

GaplessPlan plan_gapless(const StreamScan& scan) {
    if (!scan.encoder.found || scan.layer3_frames == 0) return GaplessPlan{};
    const int64_t header_values = int64_t{576} * scan.granules * scan.channels;
    const int64_t decoded = (scan.pcm_values - header_values) / scan.last_channels;
    const GaplessCut cut = gapless_cut(scan.encoder, decoded, scan.layer3_frames - 1);
    return GaplessPlan{true, header_values, cut.skip, cut.keep};
}

StreamScan scan_stream(const uint8_t* bytes, size_t size) {
    MemoryInput input{bytes, size, 0};
    ByteSource source = input.source();
    return scan_stream(source);
}

}  // namespace kavolib
