// A minimal MPEG audio Layer III frame walker for the decoder's tests: finds frames (two
// consecutive matching headers), places them back to back in a stream buffer, fills the
// header record and runs the granule decoder, collecting 16-bit samples per granule.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "frame/frame_header.h"

namespace layer3test {

struct WalkResult {
    std::vector<int16_t> samples;  // interleaved by each frame's channel count
    int frames = 0;
    int decoded_granules = 0;
    int short_granules = 0;  // error 2 (reservoir shortfall); their output is dropped
    int crc_granules = 0;    // error 1
    std::vector<int> frame_modes;     // header mode of each frame walked
    std::vector<int> frame_channels;  // channel count of each frame walked
};

struct WalkOptions {
    int conceal_limit = 0;
    bool keep_failed = false;  // also output granules that failed (as the decoder left them)
    int max_frames = -1;
    // Called for each frame before its granules with the frame's bytes (header included).
    void (*mutate)(int frame, std::vector<uint8_t>& bytes) = nullptr;
};

WalkResult walk_file(const std::vector<uint8_t>& file, const WalkOptions& options = {});

std::vector<uint8_t> load(const std::string& path);
std::vector<int16_t> load_pcm(const std::string& path);

}  // namespace layer3test
