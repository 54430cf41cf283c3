#include "frame_walker.h"

#include <cmath>
#include <fstream>
#include <iterator>

#include "frame/bitstream.h"
#include "frame/codec.h"
#include "layer3/layer3.h"

namespace layer3test {

using namespace kavolib;

namespace {
constexpr int kBitrates[2][15] = {
    {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},
    {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320}};
constexpr int kRates[3] = {44100, 48000, 32000};

bool parse(const uint8_t* p, FrameHeader& h) {
    if (p[0] != 0xFF || (p[1] & 0xE0) != 0xE0) return false;
    const int version = (p[1] >> 3) & 3;
    const int layer = 4 - ((p[1] >> 1) & 3);
    const int bitrate = p[2] >> 4;
    const int freq = (p[2] >> 2) & 3;
    if (version == 1 || layer != 3 || bitrate == 15 || freq == 3) return false;
    h = FrameHeader{};
    h.version = version;
    h.id = version == 3 ? 1 : 0;
    h.layer = 3;
    h.crc_protect = (p[1] & 1) == 0 ? 1 : 0;
    h.bitrate_index = bitrate;
    h.sample_freq = freq;
    h.padding = (p[2] >> 1) & 1;
    h.mode = p[3] >> 6;
    h.mode_ext = (p[3] >> 4) & 3;
    h.channels = h.mode == 3 ? 1 : 2;
    h.granules = version == 3 ? 2 : 1;
    const int rate = kRates[freq] >> (version == 3 ? 0 : (version == 2 ? 1 : 2));
    if (bitrate != 0) {
        const int kbps = kBitrates[version == 3 ? 1 : 0][bitrate];
        h.frame_length = (version == 3 ? 144000 : 72000) * kbps / rate + h.padding;
    }
    return true;
}

bool same_stream(const uint8_t* a, const uint8_t* b) {
    return a[0] == b[0] && (a[1] & 0xFE) == (b[1] & 0xFE) && ((a[2] ^ b[2]) & 0x0C) == 0;
}
}  // namespace

std::vector<uint8_t> load(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<int16_t> load_pcm(const std::string& path) {
    const std::vector<uint8_t> bytes = load(path);
    std::vector<int16_t> out(bytes.size() / 2);
    for (size_t i = 0; i < out.size(); ++i) {
        out[i] = static_cast<int16_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8));
    }
    return out;
}

WalkResult walk_file(const std::vector<uint8_t>& file, const WalkOptions& options) {
    WalkResult result;
    static StreamBuffer stream;
    alignas(8) static double pcm[2][576];
    double* buffers[2] = {pcm[0], pcm[1]};
    int32_t flags[2] = {1, 1};
    int32_t lengths[2] = {576, 576};
    Layer3State& state = layer3_state();
    layer3_reset(state);
    BitReader& reader = g_bit_reader;
    int fill = 0;
    size_t pos = 0;
    int free_length = 0;
    while (pos + 4 <= file.size()) {
        FrameHeader h;
        if (!parse(&file[pos], h)) {
            ++pos;
            continue;
        }
        if (h.bitrate_index == 0) {
            if (free_length == 0) {
                for (size_t q = pos + 4; q + 4 <= file.size(); ++q) {
                    FrameHeader next;
                    if (same_stream(&file[pos], &file[q]) && parse(&file[q], next)) {
                        free_length = static_cast<int>(q - pos) - h.padding;
                        break;
                    }
                }
                if (free_length == 0) break;
            }
            h.frame_length = free_length + h.padding;
        }
        const size_t end = pos + static_cast<size_t>(h.frame_length);
        if (end > file.size()) break;
        // Confirm with the next header unless this is the last frame.
        FrameHeader next;
        if (end + 4 <= file.size() && !(parse(&file[end], next) && same_stream(&file[pos], &file[end]))) {
            ++pos;
            continue;
        }
        std::vector<uint8_t> bytes(file.begin() + static_cast<long>(pos), file.begin() + static_cast<long>(end));
        if (options.mutate != nullptr) options.mutate(result.frames, bytes);
        const int start = fill;
        for (uint8_t b : bytes) {
            stream.bytes[fill] = b;
            fill = (fill + 1) % kStreamBufferSize;
        }
        reader.crc = 0xFFFF;
        crc_calc_byte(reader, stream.bytes, (start + 2) % kStreamBufferSize, 0, 2);

        GranuleJob job{};
        job.buffer = stream.bytes;
        job.bit_offset = 0;
        job.byte_index = (start + 4) % kStreamBufferSize;
        job.pcm_buffers = buffers;
        job.channel_flags = flags;
        job.buffer_lengths = lengths;
        job.conceal_limit = options.conceal_limit;
        int32_t error = 0;
        for (int gr = 0; gr < h.granules; ++gr) {
            job.granule = gr;
            const CodecResult r = decode_granule(state, reader, h, error, job);
            error = r.error;
            if (error == 0) {
                const auto* next_pos = static_cast<const BitPosition*>(r.result);
                job.bit_offset = next_pos->bit_offset;
                job.byte_index = next_pos->byte_index;
                ++result.decoded_granules;
            } else if (error == 1) {
                ++result.crc_granules;
            } else {
                ++result.short_granules;
            }
            if (error == 2 && !options.keep_failed) continue;
            for (int i = 0; i < 576; ++i) {
                for (int ch = 0; ch < h.channels; ++ch) {
                    double v = std::nearbyint(pcm[ch][i] * 32768.0);
                    v = v > 32767.0 ? 32767.0 : (v < -32768.0 ? -32768.0 : v);
                    result.samples.push_back(static_cast<int16_t>(v));
                }
            }
        }
        ++result.frames;
        result.frame_modes.push_back(h.mode);
        result.frame_channels.push_back(h.channels);
        pos = end;
        if (options.max_frames >= 0 && result.frames >= options.max_frames) break;
    }
    return result;
}

}  // namespace layer3test
