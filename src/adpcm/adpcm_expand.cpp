// Expansion of packed codes into a WAV file, chunk by chunk, with a state of its own so that
// it never disturbs the output stage's coder.
#include "adpcm/adpcm_expand.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/platform.h"
#include "platform/wav_header.h"

namespace kavolib {

namespace {

// The canonical header of an 8000 Hz mono 16-bit file with data_bytes of samples.
void wav_header(unsigned char* h, uint32_t data_bytes) {
    make_wav_header(h, data_bytes + kWavHeaderSize, 1, 8000);
}

}  // namespace

void adpcm_expand_codes(AdpcmState& state, const unsigned char* bytes, size_t count,
                        int16_t* samples) {
    for (size_t i = 0; i < count; ++i) {
        samples[2 * i] = adpcm_decode_code(state, bytes[i] & 15);
        samples[2 * i + 1] = adpcm_decode_code(state, bytes[i] >> 4);
    }
}

std::string adpcm_expand_file(const char* inPath, const char* outPath) {
    FILE* in = open_stream(inPath, "rb");
    if (in == nullptr) return "cannot open the input";
    const long length = file_length(in);
    // Four output bytes per input byte, and the RIFF sizes are 32-bit.
    if (length < 0 || static_cast<unsigned long long>(length) * 4 > 0xFFFFFFFFull - 36) {
        close_stream(in);
        return length < 0 ? "cannot measure the input" : "the input is too long for a WAV file";
    }
    FILE* out = open_stream(outPath, "wb");
    if (out == nullptr) {
        close_stream(in);
        return "cannot create the output";
    }
    unsigned char header[44];
    wav_header(header, static_cast<uint32_t>(length) * 4);
    bool written = std::fwrite(header, 1, sizeof header, out) == sizeof header;
    int write_error = written ? 0 : errno;  // the cause of the first failed write

    AdpcmState state;
    adpcm_init(state);
    unsigned char codes[4096];
    int16_t samples[2 * sizeof codes];
    unsigned char pcm[4 * sizeof codes];
    size_t got = 0;
    while (written && (got = std::fread(codes, 1, sizeof codes, in)) > 0) {
        adpcm_expand_codes(state, codes, got, samples);
        for (size_t i = 0; i < 2 * got; ++i) {
            wav_put16(pcm, static_cast<int>(2 * i), static_cast<uint16_t>(samples[i]));
        }
        written = std::fwrite(pcm, 1, 4 * got, out) == 4 * got;
        if (!written) write_error = errno;
    }
    const bool read_ok = std::ferror(in) == 0;
    close_stream(in);
    if (close_stream(out) != 0 && written) {
        written = false;
        write_error = errno;
    }
    if (!read_ok) return "reading the input failed";
    if (!written) {
        return std::string("writing the output failed") +
               (write_error != 0 ? std::string(": ") + std::strerror(write_error) : "");
    }
    return {};
}

}  // namespace kavolib
