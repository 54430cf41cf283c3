// Small MP3 (and MP2) inputs for tests, made on the spot with sox, lame and twolame.
#pragma once

#include <string>
#include <vector>

namespace kavotest {

// A tone (sine sweep, so that every frame carries sound) of the given length as a 16-bit WAV;
// the same every time (sox dithers with a fixed seed).
std::string make_tone_wav(const std::string& dir, const std::string& name, int rate, int channels,
                          double seconds);

// Encodes the WAV with lame at a constant bitrate, without an Info frame (-t) unless with_info;
// extra arguments go to lame unchanged. Returns the path of the MP3 file. Throws on failure.
std::string lame_encode(const std::string& dir, const std::string& wav, const std::string& name,
                        int bitrate, const std::vector<std::string>& extra = {});

// Encodes the WAV as MPEG Layer II with twolame. Returns the path. Throws on failure.
std::string twolame_encode(const std::string& dir, const std::string& wav, const std::string& name,
                           int bitrate, const std::string& mode);

// Byte offsets of consecutive frame headers in a file of back-to-back MPEG audio frames,
// found by an independent walk: each header's length from the standard formula. Stops at the
// first position that does not hold a header.
std::vector<size_t> walk_frames(const std::string& bytes, size_t start);

}  // namespace kavotest
