// Part 2 of a channel's granule data: the scale factors. MPEG-1 uses the slen1/slen2 pairs
// and scfsi reuse between granules; MPEG-2 and MPEG-2.5 use partitions whose sizes follow
// from scalefac_compress, with a separate scheme for the intensity-coded right channel.
#include "layer3/layer3_stages.h"

namespace kavolib {

namespace {
constexpr uint32_t kSlen1[16] = {0, 0, 0, 0, 3, 1, 1, 1, 2, 2, 2, 3, 3, 3, 4, 4};
constexpr uint32_t kSlen2[16] = {0, 1, 2, 3, 0, 1, 2, 3, 1, 2, 3, 1, 2, 3, 2, 3};

// [row][block kind: long, short, mixed][partition]
constexpr int32_t kPartitionSizes[6][3][4] = {
    {{6, 5, 5, 5}, {9, 9, 9, 9}, {6, 9, 9, 9}},
    {{6, 5, 7, 3}, {9, 9, 12, 6}, {6, 9, 12, 6}},
    {{11, 10, 0, 0}, {18, 18, 0, 0}, {15, 18, 0, 0}},
    {{7, 7, 7, 0}, {12, 12, 12, 0}, {6, 15, 12, 0}},
    {{6, 6, 6, 3}, {12, 9, 9, 6}, {6, 12, 9, 6}},
    {{8, 8, 5, 0}, {15, 12, 9, 0}, {6, 18, 9, 0}},
};

uint32_t read_value(BitReader& reader, uint32_t slen) {
    return slen == 0 ? 0u : bitunp_rj(reader, static_cast<int>(slen));
}

void read_mpeg1(ScaleFactors& sf, BitReader& reader, const SideInfo& si, int32_t granule,
                int32_t ch) {
    const GranuleInfo& gi = si.gr[granule][ch];
    const uint32_t slen1 = kSlen1[gi.scalefac_compress & 15u];
    const uint32_t slen2 = kSlen2[gi.scalefac_compress & 15u];
    if (gi.block_type != 2) {
        constexpr int32_t kGroupStart[5] = {0, 6, 11, 16, 21};
        for (int32_t group = 0; group < 4; ++group) {
            if (granule == 1 && si.scfsi[ch][group] != 0) continue;
            const uint32_t slen = group < 2 ? slen1 : slen2;
            for (int32_t b = kGroupStart[group]; b < kGroupStart[group + 1]; ++b) {
                sf.l[ch][b] = read_value(reader, slen);
            }
        }
        sf.l[ch][21] = 0;
        return;
    }
    int32_t first_short = 0;
    if (gi.mixed_block_flag != 0) {
        for (int32_t b = 0; b < 8; ++b) sf.l[ch][b] = read_value(reader, slen1);
        first_short = 3;
    }
    for (int32_t b = first_short; b < 12; ++b) {
        const uint32_t slen = b < 6 ? slen1 : slen2;
        for (uint32_t& value : sf.s[ch][b]) value = read_value(reader, slen);
    }
    for (uint32_t& value : sf.s[ch][12]) value = 0;
}

void read_mpeg2(ScaleFactors& sf, GranuleInfo& gi, BitReader& reader, const FrameHeader& header,
                int32_t ch) {
    const int32_t kind = gi.block_type != 2 ? 0 : (gi.mixed_block_flag == 0 ? 1 : 2);
    gi.preflag = 0;
    uint32_t length[4];
    int32_t row = 0;
    const uint32_t s = gi.scalefac_compress;
    if ((header.mode_ext == 1 || header.mode_ext == 3) && ch == 1) {
        sf.intensity_scale = s & 1u;
        const uint32_t c = s >> 1;
        if (c < 180) {
            length[0] = c / 36;
            length[1] = (c % 36) / 6;
            length[2] = (c % 36) % 6;
            length[3] = 0;
            row = 3;
        } else if (c < 244) {
            const uint32_t x = c - 180;
            length[0] = (x % 64) / 16;
            length[1] = (x % 16) / 4;
            length[2] = x % 4;
            length[3] = 0;
            row = 4;
        } else {
            const uint32_t x = c - 244;
            length[0] = x / 3;
            length[1] = x % 3;
            length[2] = 0;
            length[3] = 0;
            row = 5;
        }
    } else if (s < 400) {
        length[0] = (s / 16) / 5;
        length[1] = (s / 16) % 5;
        length[2] = (s % 16) / 4;
        length[3] = s % 4;
        row = 0;
    } else if (s < 500) {
        const uint32_t x = s - 400;
        length[0] = (x / 4) / 5;
        length[1] = (x / 4) % 5;
        length[2] = x % 4;
        length[3] = 0;
        row = 1;
    } else {
        const uint32_t x = s - 500;
        length[0] = x / 3;
        length[1] = x % 3;
        length[2] = 0;
        length[3] = 0;
        row = 2;
        gi.preflag = 1;
    }

    // The values land one after the other: long bands, or short band/window pairs (after the
    // 6 long values of a mixed block, from short band 3 window 0 on).
    int32_t count = 0;  // values written so far
    const int32_t long_values = kind == 0 ? 21 : (kind == 2 ? 6 : 0);
    const int32_t short_start = kind == 2 ? 9 : 0;  // band 3 window 0 as a flat index
    for (int32_t part = 0; part < 4; ++part) {
        for (int32_t n = 0; n < kPartitionSizes[row][kind][part]; ++n) {
            const uint32_t value = read_value(reader, length[part]);
            if (count < long_values || kind == 0) {
                sf.l[ch][count] = value;
            } else {
                const int32_t flat = short_start + count - long_values;
                sf.s[ch][flat / 3][flat % 3] = value;
            }
            ++count;
        }
    }
    if (kind == 0) {
        sf.l[ch][21] = 0;
    } else {
        for (uint32_t& value : sf.s[ch][12]) value = 0;
    }
}
}  // namespace

void read_scale_factors(Layer3State& state, BitReader& reader, const FrameHeader& header,
                        int32_t granule, int32_t channel) {
    state.part2_start = reader.cursor;
    if (header.version == kVersionMpeg1) {
        read_mpeg1(state.scale_factors, reader, state.side_info, granule, channel);
    } else {
        read_mpeg2(state.scale_factors, state.side_info.gr[granule][channel], reader, header,
                   channel);
    }
}

}  // namespace kavolib
