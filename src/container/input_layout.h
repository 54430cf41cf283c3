// What an input is, found from its content before any frame is searched: an MPEG audio stream
// (bare, between tags, or in a RIFF WAVE wrapper of format 0x55 or 0x50), a WAV file of one of
// the encodings the conversion takes, or a WAV file it refuses; the byte range that holds the
// stream or the samples; and what lies around it. The engine converts only that range, and the
// command names the skipped items.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "container/byte_reader.h"
#include "container/tags.h"
#include "container/wav.h"

namespace kavolib {

enum class InputKind {
    mpeg,     // MPEG audio frames in [begin, end)
    wav,      // WAV samples of wav's encoding in [begin, end)
    refused,  // a WAV file the conversion does not take; refusal says why
};

struct InputLayout {
    InputKind kind = InputKind::mpeg;
    uint64_t begin = 0;
    uint64_t end = 0;
    std::vector<SkippedItem> skipped;  // in file order for the front, then the end ones
    WavInfo wav;                       // kind wav
    int wav_format_tag = 0;            // the fmt chunk's format (its subformat when extensible)
    std::string refusal;               // kind refused: one line naming the format and what converts
};

InputLayout find_layout(const ByteReader& in);

// "ID3v2.3 tag, 71,543 bytes; APEv2 tag, 415 bytes" (empty when nothing was skipped).
std::string describe_skipped(const std::vector<SkippedItem>& skipped);

}  // namespace kavolib
