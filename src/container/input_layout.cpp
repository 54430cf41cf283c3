// The input's layout: a RIFF WAVE file is taken apart by its chunks (fmt and data wherever
// they stand); MPEG audio, bare or from a wrapper's data chunk, is narrowed by its tags.
#include "container/input_layout.h"

#include <cstdio>
#include <cstring>

#include "container/riff.h"

namespace kavolib {

namespace {

constexpr int kFormatPcm = 1;
constexpr int kFormatFloat = 3;
constexpr int kFormatAlaw = 6;
constexpr int kFormatMulaw = 7;
constexpr int kFormatMpeg = 0x50;
constexpr int kFormatMpegLayer3 = 0x55;
constexpr int kFormatExtensible = 0xFFFE;

constexpr const char* kWhatConverts =
    "WAV converts when it holds 8, 16, 24 or 32-bit PCM, 32-bit float, mu-law or A-law, "
    "mono or stereo, 8000 to 48000 Hz, or MPEG audio Layer III";

// Formats people meet, by name; others by number.
std::string format_words(int tag, int bits) {
    static const struct {
        int tag;
        const char* words;
    } kNames[] = {{2, "ADPCM"},         {0x11, "IMA ADPCM"},   {0x31, "GSM 6.10"},
                  {0x40, "G.721 ADPCM"}, {0x45, "G.726 ADPCM"}, {0x64, "G.726 ADPCM"},
                  {0x22, "TrueSpeech"},  {0x2000, "AC-3"},      {0x2001, "DTS"},
                  {0xF1AC, "FLAC"},      {0x1610, "AAC"},       {0xFF, "AAC"}};
    char text[80];
    if (tag == kFormatPcm) {
        std::snprintf(text, sizeof text, "%d-bit PCM", bits);
        return text;
    }
    if (tag == kFormatFloat) {
        std::snprintf(text, sizeof text, "%d-bit float", bits);
        return text;
    }
    for (const auto& n : kNames) {
        if (n.tag == tag) return std::string(n.words) + " audio";
    }
    std::snprintf(text, sizeof text, "audio of format 0x%04X", static_cast<unsigned>(tag));
    return text;
}

bool wav_encoding(int tag, int bits, WavEncoding& encoding) {
    if (tag == kFormatPcm && bits == 8) encoding = WavEncoding::pcm8;
    else if (tag == kFormatPcm && bits == 16) encoding = WavEncoding::pcm16;
    else if (tag == kFormatPcm && bits == 24) encoding = WavEncoding::pcm24;
    else if (tag == kFormatPcm && bits == 32) encoding = WavEncoding::pcm32;
    else if (tag == kFormatFloat && bits == 32) encoding = WavEncoding::float32;
    else if (tag == kFormatMulaw && bits == 8) encoding = WavEncoding::mulaw;
    else if (tag == kFormatAlaw && bits == 8) encoding = WavEncoding::alaw;
    else return false;
    return true;
}

void refuse(InputLayout& layout, const std::string& what) {
    layout.kind = InputKind::refused;
    layout.refusal = "a WAV file of " + what + "; " + kWhatConverts;
}

// A RIFF WAVE file: the wrapper around MPEG audio, or WAV samples.
void take_riff(const ByteReader& in, const RiffFile& riff, InputLayout& layout) {
    const RiffChunk* fmt = nullptr;
    const RiffChunk* data = nullptr;
    for (const RiffChunk& chunk : riff.chunks) {
        if (fmt == nullptr && std::memcmp(chunk.id, "fmt ", 4) == 0 && chunk.present >= 16) {
            fmt = &chunk;
        }
        if (data == nullptr && std::memcmp(chunk.id, "data", 4) == 0) data = &chunk;
    }
    if (fmt == nullptr || data == nullptr) {
        layout.kind = InputKind::refused;
        layout.refusal = fmt == nullptr ? "a WAV file without a fmt chunk"
                                        : "a WAV file without a data chunk";
        return;
    }
    uint8_t f[26] = {};
    if (!in.get(fmt->body, f, fmt->present >= 26 ? 26 : 16)) {
        layout.kind = InputKind::refused;
        layout.refusal = "the WAV file's fmt chunk cannot be read";
        return;
    }
    int tag = static_cast<int>(get_le16(f));
    const int channels = static_cast<int>(get_le16(f + 2));
    const auto rate = get_le32(f + 4);
    const int bits = static_cast<int>(get_le16(f + 14));
    if (tag == kFormatExtensible) {
        // The subformat GUID (at byte 24, when the extension's size reaches it) begins with
        // the format tag it stands for.
        tag = fmt->present >= 26 && get_le16(f + 16) >= 8 ? static_cast<int>(get_le16(f + 24)) : 0;
    }
    layout.wav_format_tag = tag;

    // The data size: 0xFFFFFFFF, or 0 in a file whose RIFF size is also unknown (what programs
    // writing to a pipe leave), means to the end of the input; otherwise what is declared, cut
    // to what is present.
    uint64_t size = data->present;
    if (data->declared == 0xFFFFFFFFu ||
        (data->declared == 0 && (riff.riff_size == 0 || riff.riff_size == 0xFFFFFFFFu))) {
        size = in.size - data->body;
    }
    layout.begin = data->body;
    layout.end = data->body + size;

    if (tag == kFormatMpegLayer3 || tag == kFormatMpeg) {
        layout.kind = InputKind::mpeg;
        const uint64_t wrapper = in.size - size;
        if (wrapper > 0) layout.skipped.push_back({"RIFF WAVE wrapper", wrapper});
        strip_tags(in, layout.begin, layout.end, layout.skipped);
        return;
    }
    WavEncoding encoding;
    if (!wav_encoding(tag, bits, encoding)) {
        refuse(layout, tag == 0 ? "an unknown extensible format" : format_words(tag, bits));
        return;
    }
    if (channels < 1 || channels > 2) {
        refuse(layout, std::to_string(channels) + " channels");
        return;
    }
    if (rate < 8000 || rate > 48000) {
        refuse(layout, "audio at " + std::to_string(rate) + " Hz");
        return;
    }
    layout.kind = InputKind::wav;
    layout.wav.encoding = encoding;
    layout.wav.channels = channels;
    layout.wav.rate = static_cast<int>(rate);
    layout.wav.sample_bytes = encoding == WavEncoding::pcm8 || encoding == WavEncoding::mulaw ||
                                      encoding == WavEncoding::alaw
                                  ? 1
                                  : bits / 8;
    layout.wav.frames = size / (static_cast<uint64_t>(layout.wav.sample_bytes) * static_cast<uint64_t>(channels));
}

std::string with_commas(uint64_t n) {
    const std::string digits = std::to_string(n);
    std::string text;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) text += ',';
        text += digits[i];
    }
    return text;
}

}  // namespace

InputLayout find_layout(const ByteReader& in) {
    InputLayout layout;
    layout.end = in.size;
    const RiffFile riff = walk_riff(in);
    if (riff.is_wave) {
        take_riff(in, riff, layout);
        return layout;
    }
    strip_tags(in, layout.begin, layout.end, layout.skipped);
    return layout;
}

std::string describe_skipped(const std::vector<SkippedItem>& skipped) {
    std::string text;
    for (const SkippedItem& item : skipped) {
        if (!text.empty()) text += "; ";
        text += item.name + ", " + with_commas(item.size) + (item.size == 1 ? " byte" : " bytes");
    }
    return text;
}

}  // namespace kavolib
