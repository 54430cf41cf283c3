// The decoded-PCM file: the input is opened and measured, each granule's double samples are
// rounded, clipped and written (raw 16-bit, WAV, or 24-bit hexadecimal text, chosen by the
// output name), and at the end the WAV header and the decode statistics are written.
#pragma once

#include <cstdint>
#include <cstdio>

#include "frame/frame_sync.h"
#include "platform/wav_header.h"

namespace kavolib {

enum class OutputForm { none, raw, wav, text };

inline constexpr int kGranuleSamples = 576;

// The form selected by the output name: ".pcm", ".wav", ".TM2", ".txt" searched anywhere in
// the name, case-sensitive, in this order; none when no substring matches.
OutputForm choose_output_form(const char* name);

// The two files of the decode phase and what is known about them.
struct DecodeFiles {
    const char* input_name;
    const char* output_name;
    FILE* input;
    FILE* output;
    int64_t input_length;
    OutputForm form;
};

// The module-level instance used by the decode phase.
extern DecodeFiles g_decode_files;

// Opens files.input_name ("rb") and files.output_name (by its form), measures the input,
// resets the count of bytes read and reserves the WAV header. Failures are fatal.
void open_decode_files(DecodeFiles& files, FrameState& frames);

// One granule: 576 samples of channel 0 at pcm[0..575] and, with two channels, 576 of
// channel 1 at pcm[576..1151]; written interleaved in one write.
void write_granule_pcm(DecodeFiles& files, const double* pcm, int32_t channels);

// Closes both files, writes the WAV header for the last frame's rate and channels, and prints
// the statistics for the frames counted so far in the library's lifetime.
void close_decode_files(DecodeFiles& files, const FrameState& frames, int32_t granules,
                        int64_t frame_counter);

// A sample as a 16-bit value: x * 32768 rounded half away from zero (0.0 gives -0.5, which
// truncates to 0), clipped to -32768..32767.
int16_t pcm_sample16(double x);

// The same conversion for count samples at once, written branch-free so that it runs in
// vector registers; every result equals pcm_sample16 of the same value.
void pcm_samples16(const double* x, int16_t* out, int count);
// Two channels' samples converted the same way and interleaved (left, right, left, ...).
void pcm_samples16_stereo(const double* left, const double* right, int16_t* out, int count);

// A sample for the text form: x * 8388608 clipped to the 24-bit range and truncated toward
// zero, as the low 24 bits of its two's complement.
uint32_t pcm_sample24(double x);

// The statistics lines; elapsed_seconds is the process's running time so far.
void print_decode_statistics(int64_t frame_counter, int32_t granules, int32_t pcm_rate,
                             int64_t elapsed_seconds);

}  // namespace kavolib
