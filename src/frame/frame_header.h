// The decoded fields of the current frame header, read by the decode loop and the Layer III
// decoder.
#pragma once

#include <cstdint>

namespace kavolib {

inline constexpr int32_t kVersionMpeg25 = 0;
inline constexpr int32_t kVersionMpeg2 = 2;
inline constexpr int32_t kVersionMpeg1 = 3;

struct FrameHeader {
    int32_t frame_length;   // bytes, header and padding included; free format: measured + padding
    uint32_t header_word1;  // syncword, ID, layer, protection_bit
    uint32_t header_word2;  // bitrate_index .. emphasis
    int32_t granules;       // 2 for MPEG-1 Layer III, 1 for MPEG-2/2.5 Layer III, 12 for I and II
    int32_t version;        // 3 MPEG-1, 2 MPEG-2, 0 MPEG-2.5
    int32_t id;             // 1 MPEG-1, 0 MPEG-2 and MPEG-2.5
    int32_t layer;          // 1, 2 or 3
    int32_t crc_protect;    // 1 when a crc_check word follows the header
    int32_t bitrate_index;  // 0..14, 0 is free format
    int32_t sample_freq;    // 0..2
    int32_t padding;
    int32_t mode;           // 0 stereo, 1 joint stereo, 2 dual channel, 3 single channel
    int32_t mode_ext;
    int32_t channels;       // 1 when mode is 3, else 2
};

// The header of the frame being decoded (the module-level instance).
extern FrameHeader g_frame_header;

}  // namespace kavolib
