// The encoder's header in the first frame of a stream (an Xing or Info header, with or without
// the encoder's extension, or a VBRI header) and the trimming it asks of a decode that wants
// back exactly the samples that were encoded: the encoder's delay at the front, its padding at
// the end, and the decoder's own delay of 529 samples. Pure functions over bytes and counts.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kavolib {

// The decoder's own delay in samples: the synthesis filterbank's 528 plus the one sample the
// encoders count on top (every encoder's delay field assumes it).
inline constexpr int32_t kDecoderDelay = 529;

// Bytes of a frame that the longest header reaches into (Xing with every field and the
// extension after 32 bytes of side information ends at byte 192).
inline constexpr size_t kEncoderHeaderBytes = 256;

struct EncoderHeader {
    bool found;          // an Xing, Info or VBRI header: the frame carries no audio
    bool vbri;           // the header is a VBRI header
    bool has_frames;     // the header gives the stream's frame count
    uint32_t frames;     // audio frames after the header frame
    bool has_extension;  // delay and padding come from the encoder (VBRI: its delay)
    int32_t delay;       // samples per channel the encoder put in front, 0 without
    int32_t padding;     // samples per channel the encoder appended, 0 without
};

// Looks for the header in the first size bytes of a frame (header bytes included; size is the
// frame's length, or kEncoderHeaderBytes when the frame is longer). id is the header's ID bit
// (1 MPEG-1), channels 1 or 2: they decide the side information's size, behind which the Xing
// header lies; a VBRI header lies 32 bytes after the 4 header bytes whatever the mode.
EncoderHeader parse_encoder_header(const uint8_t* frame, size_t size, int32_t id, int32_t channels);

// Which decoded samples (per channel) a gapless decode keeps: skip, then keep.
struct GaplessCut {
    int64_t skip;
    int64_t keep;
};

// The cut for a decode of decoded samples per channel from stream_frames audio frames (the
// header frame not counted): from delay + 529 on, less padding - 529 at the end when the stream
// holds as many frames as the header says (a truncated or extended stream keeps its end);
// negative amounts count 0, and a cut past the end keeps nothing.
GaplessCut gapless_cut(const EncoderHeader& header, int64_t decoded, int64_t stream_frames);

}  // namespace kavolib
