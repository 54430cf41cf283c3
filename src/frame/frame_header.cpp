// The header decode behind codec command 1: sync word, version, layer, protection, bitrate,
// sampling frequency and mode are checked and taken apart, and the frame length is computed.
#include <cstdio>

#include "frame/frame_sync.h"

namespace kavolib {

FrameHeader g_frame_header = {};

namespace {

constexpr int32_t kSampleRates[4][3] = {
    {11025, 12000, 8000},   // MPEG 2.5
    {0, 0, 0},              // reserved
    {22050, 24000, 16000},  // MPEG 2
    {44100, 48000, 32000},  // MPEG 1
};

// The same rates in kHz; the frame length is computed with these doubles.
constexpr double kSampleRatesKhz[4][3] = {
    {11.025, 12.0, 8.0},
    {0.0, 0.0, 0.0},
    {22.05, 24.0, 16.0},
    {44.1, 48.0, 32.0},
};

// kbit/s by ID bit (0: the low sampling frequencies, also used by MPEG 2.5), layer and index.
constexpr int32_t kBitrates[2][3][16] = {
    {
        {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256, 0},
        {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},
        {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},
    },
    {
        {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448, 0},
        {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 0},
        {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0},
    },
};

}  // namespace

int32_t sample_rate_hz(int32_t version, int32_t sample_freq) {
    if (version < 0 || version > 3 || sample_freq < 0 || sample_freq > 2) return 0;
    return kSampleRates[version][sample_freq];
}

int32_t bitrate_kbps(int32_t layer, int32_t id, int32_t bitrate_index) {
    if (layer < 1 || layer > 3 || id < 0 || id > 1 || bitrate_index < 0 || bitrate_index > 15) {
        return 0;
    }
    return kBitrates[id][layer - 1][bitrate_index];
}

CodecResult decode_header(BitReader& reader, FrameHeader& header, HeaderJob& job) {
    // A failed check hands back the job; fields written before it keep their new values.
    const auto failed_with = [&job](int32_t error) { return CodecResult{1, error, &job}; };
    reader.cursor = job.position;

    uint32_t bits = bitunp_rj(reader, 16);
    const bool mpeg12_sync = (bits & 0xFFF0u) == 0xFFF0u;
    const bool mpeg25_sync = (bits & 0xFFF8u) == 0xFFE0u;
    if (!mpeg12_sync && !mpeg25_sync) return failed_with(kHeaderNoSync);

    header.version = static_cast<int32_t>((bits >> 3) & 3u);
    header.id = static_cast<int32_t>((bits >> 3) & 1u);
    header.layer = 4 - static_cast<int32_t>((bits >> 1) & 3u);
    if (header.layer == 4) return failed_with(kHeaderBadLayer);

    header.header_word1 = bits;
    header.crc_protect = 1 - static_cast<int32_t>(bits & 1u);
    if (header.crc_protect == 1) {
        // The CRC of a protected frame starts over the last two header bytes.
        reader.crc = 0xFFFFu;
        crc_calc_byte(reader, reader.cursor.buffer, reader.cursor.byte_index,
                      reader.cursor.bit_offset, 2);
    }

    bits = bitunp_rj(reader, 16);
    header.bitrate_index = static_cast<int32_t>((bits >> 12) & 15u);
    if (header.bitrate_index == 15) return failed_with(kHeaderBadBitrate);
    header.sample_freq = static_cast<int32_t>((bits >> 10) & 3u);
    if (header.sample_freq == 3) return failed_with(kHeaderBadSampleRate);
    header.padding = static_cast<int32_t>((bits >> 9) & 1u);
    header.mode = static_cast<int32_t>((bits >> 6) & 3u);
    header.mode_ext = static_cast<int32_t>((bits >> 4) & 3u);
    header.header_word2 = bits;

    if (header.layer == 2) {
        const int32_t index = header.bitrate_index;
        const bool single = header.mode == 3;
        if ((index >= 11 && single) ||
            ((index == 1 || index == 2 || index == 3 || index == 5) && !single)) {
            return failed_with(kHeaderBadLayer2Mode);
        }
    }

    header.channels = header.mode == 3 ? 1 : 2;

    const double br = bitrate_kbps(header.layer, header.id, header.bitrate_index);
    const double f = kSampleRatesKhz[header.version][header.sample_freq];
    if (header.bitrate_index == 0) {
        header.frame_length =
            job.free_format_length != 0 ? job.free_format_length + header.padding : 0;
    } else if (header.layer == 3) {
        const double slots = header.id == 1 ? 144.0 * br / f : 72.0 * br / f;
        header.frame_length = static_cast<int32_t>(slots) + header.padding;
    } else if (header.layer == 2) {
        header.frame_length = static_cast<int32_t>(144.0 * br / f) + header.padding;
    } else {
        header.frame_length = (static_cast<int32_t>(12.0 * br / f) + header.padding) * 4;
    }

    if (header.layer == 3) {
        header.granules = header.id == 1 ? 2 : 1;
    } else {
        header.granules = 12;
    }
    return CodecResult{1, 0, &header};
}

}  // namespace kavolib
