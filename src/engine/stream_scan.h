// The scan of an MP3 input's frame headers that runs before anything is decoded: the frame
// layer alone (synchronisation, header checks, free-format measurement) over the whole input,
// no granule decoded. It learns at the start what the file chain learns only at the end (the
// rate and channel count of the last frame delivered, which describe the whole decoded
// stream, and the number of frames), and finds a Layer I or II frame before any output.
#pragma once

#include <cstddef>
#include <cstdint>

#include "engine/gapless.h"
#include "frame/frame_sync.h"

namespace kavolib {

struct StreamScan {
    int32_t frame_count;       // frames the decode loop would deliver, Layer III or not
    int32_t layer3_frames;     // of them, Layer III frames decoded before any Layer I/II frame

    // The first frame delivered.
    int32_t version;           // 3 MPEG-1, 2 MPEG-2, 0 MPEG-2.5
    int32_t layer;             // 1, 2 or 3
    int32_t sample_rate;       // Hz
    int32_t mode;              // 0 stereo, 1 joint stereo, 2 dual channel, 3 single channel
    int32_t channels;          // 1 or 2
    int32_t bitrate_kbps;      // 0 for free format
    bool free_format;
    int32_t granules;          // per frame: 2 for MPEG-1 Layer III, 1 for MPEG-2/2.5
    EncoderHeader encoder;     // the encoder's header it holds, if any (encoder.found)

    // The last frame delivered (before any Layer I/II frame): its rate and channel count
    // describe the whole decoded PCM, as the decoded file's WAV header does.
    int32_t last_rate;         // Hz, 0 when no frame is delivered
    int32_t last_channels;     // 1 or 2, 0 when no frame is delivered
    int32_t last_version;      // 3 MPEG-1, 2 MPEG-2, 0 MPEG-2.5
    bool format_changed;       // a Layer III frame's rate or channels differ from the one before

    // Decoded samples per channel and their duration at last_rate.
    int64_t pcm_frames;        // 576 x granules summed over the Layer III frames
    int64_t pcm_values;        // 16-bit values as decoded: 576 x granules x channels of each frame
    double duration_seconds;   // pcm_frames / last_rate, 0 when no frame is delivered

    // The first Layer I or II frame delivered, where the decode loop would refuse the input.
    bool has_layer12;
    int32_t layer12_layer;     // 1 or 2 (0 when none)
    int64_t layer12_offset;    // byte offset of its header in the input (-1 when none)
};

// The gapless cut that the encoder's header of the first frame asks for, in the decoded values
// (frames of last_channels, as the decoded file is read): the header frame's values are not
// decoded, then skip_frames are dropped and keep_frames kept. applies is false without a header.
struct GaplessPlan {
    bool applies;
    int64_t header_values;
    int64_t skip_frames;
    int64_t keep_frames;
};
GaplessPlan plan_gapless(const StreamScan& scan);

// Scans the input from source to its end (or to the first Layer I or II frame). Never fails:
// an input without frames gives frame_count 0; a read error looks like the end of the input,
// so the source must tell its caller about it.
StreamScan scan_stream(ByteSource& source);

// The same over size bytes in memory.
StreamScan scan_stream(const uint8_t* bytes, size_t size);

}  // namespace kavolib
