// Frame synchronisation: bytes of the input are appended to the circular stream buffer, a
// valid header is found (confirmed by the header that follows it after a loss of sync), the
// whole frame is read, and the header is described in the frame header. The core works on the
// state, reader and header it is handed and takes its bytes from a ByteSource (a file or a
// block in memory); the file form uses the module-level instances, prints the end-of-input
// messages and the header lines once per library lifetime. Also the header decode behind
// codec command 1.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "frame/bitstream.h"
#include "frame/codec.h"
#include "frame/frame_header.h"

namespace kavolib {

inline constexpr int32_t sync_lost = 0;
inline constexpr int32_t sync_pending = 1;
inline constexpr int32_t sync_locked = 2;

// Header check errors of decode_header.
inline constexpr int32_t kHeaderNoSync = 1;
inline constexpr int32_t kHeaderBadLayer = 2;
inline constexpr int32_t kHeaderBadBitrate = 3;
inline constexpr int32_t kHeaderBadSampleRate = 4;
inline constexpr int32_t kHeaderBadLayer2Mode = 5;

// The stream as the frame layer keeps it. Fields reset per conversion by decoder_init are the
// sync state, the free-format length, the fill position and the current position; the count of
// bytes read is reset when the input is opened; pcm_rate and pcm_channels keep the last frame
// delivered for as long as the library is loaded.
struct FrameState {
    StreamBuffer stream;
    int32_t fill_position;       // next byte to fill, 0..1919
    int64_t bytes_read;          // bytes taken from the input in this conversion
    int32_t sync_state;          // sync_lost, sync_pending or sync_locked
    int32_t free_format_length;  // measured length of a free-format frame without padding; 0: none
    int32_t pcm_rate;            // Hz, of the last frame delivered
    int32_t pcm_channels;        // 1 or 2, of the last frame delivered
    BitPosition current;         // where the next granule's data begins
    HeaderJob header_job;        // the record handed with every header check
};

// The module-level instance used by the decode loop.
extern FrameState g_frame_state;

// Where the frame layer takes its input bytes from.
struct ByteSource {
    // Copies up to n bytes to dst and returns how many; fewer only at the end of the input or
    // on a read error.
    size_t (*read)(void* context, uint8_t* dst, size_t n);
    void* context;
};

// What the core's read_frame_from found: result 0 when a frame is delivered (1 at the end of
// the input), whether the last header check of the call passed, and the input offset of the
// last header checked (the delivered frame's header when result is 0).
struct FrameRead {
    int result;
    bool last_check_passed;
    int64_t header_offset;
};

// The core of read_input_bytes: appends n bytes from source; 0 on success, 1 when the source
// ran short first (the bytes that did arrive stay in the buffer and are counted).
int read_bytes_from(FrameState& state, ByteSource& source, int n);

// The core of read_frame: the next deliverable frame from source, its header decoded into
// header through reader. Prints nothing.
FrameRead read_frame_from(FrameState& state, BitReader& reader, FrameHeader& header,
                          ByteSource& source);

// Sampling rate in Hz by version and sampling-frequency index (0 for the reserved version).
int32_t sample_rate_hz(int32_t version, int32_t sample_freq);

// Bitrate in kbit/s by layer (1..3), ID bit and bitrate index (0 for free format and 15).
int32_t bitrate_kbps(int32_t layer, int32_t id, int32_t bitrate_index);

// Codec command 1: checks and decodes the header at the job's position into header.
// Returns (1, 0, &header) or (1, error, &job).
CodecResult decode_header(BitReader& reader, FrameHeader& header, HeaderJob& job);

// Appends n bytes of the input to the stream buffer. 0 on success; 1 when the input ended
// ("All Done !") or failed ("File read error !") first.
int read_input_bytes(FrameState& state, FILE* input, int n);

// Reads up to the next deliverable frame. 0 when a frame is in the buffer and g_frame_header
// describes it; 1 at the end of the input or on a read error.
int read_frame(FrameState& state, FILE* input);

// True until the header lines have been printed (once per library lifetime).
bool& header_lines_pending();

// The six header lines of the frame just checked.
void print_header_lines(const FrameHeader& header, int32_t pcm_rate);

}  // namespace kavolib
