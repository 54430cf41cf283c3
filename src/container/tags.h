// The tags an MP3 file carries around its audio, found by their own structure: ID3v2 tags at
// the front (several in a row, their zero padding, the v2.4 footer), and at the end, in any
// order, ID3v1 (with an enhanced "TAG+" block), APEv1/APEv2, Lyrics3 v1/v2 and an appended
// ID3v2.4 tag. A tag whose size is malformed or runs past its range is not a tag: its bytes
// stay in the stream.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "container/byte_reader.h"

namespace kavolib {

// Something around the audio that is not audio: "ID3v2.3 tag", "RIFF WAVE wrapper", ...
struct SkippedItem {
    std::string name;
    uint64_t size;
};

// Narrows [begin, end) of in to the stream between the tags at its front and its end and
// appends each tag found to skipped (the front ones first, in file order, then the end ones
// from the last byte backwards).
void strip_tags(const ByteReader& in, uint64_t& begin, uint64_t& end,
                std::vector<SkippedItem>& skipped);

}  // namespace kavolib
