// The way back, for listening: packed 4-bit codes expanded into 8000 Hz mono 16-bit samples by
// running the coder's own adaptation from the received codes. Each sample equals the one the
// encoder reconstructed while producing the codes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "adpcm/adpcm_core.h"

namespace kavolib {

// Decodes count bytes of packed codes, two per byte with the earlier code in the low nibble,
// into 2 * count samples, continuing from state.
void adpcm_expand_codes(AdpcmState& state, const unsigned char* bytes, size_t count,
                        int16_t* samples);

// Expands the packed code file inPath into a WAV file outPath (8000 Hz, mono, 16-bit, the
// canonical 44-byte header), from a fresh state. Every byte is two samples, so an odd-sized
// file loses nothing and an empty one gives a header with no data. Returns an empty string on
// success, else why it failed; files it opened are closed either way.
std::string adpcm_expand_file(const char* inPath, const char* outPath);

}  // namespace kavolib
