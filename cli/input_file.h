// The input of one conversion or decode, as the engine reads it: a regular file is read as the
// engine goes (its ends by the container layer, then the stream in order), so memory does not
// grow with its length; standard input, a named pipe or a device is read whole, since it
// cannot be read twice.
#pragma once

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "container/input_layout.h"
#include "engine/conversion.h"
#include "engine/file_source.h"
#include "engine/memory_source.h"
#include "engine/stream_scan.h"
#include "files.h"

namespace kavocli {

class InputFile {
  public:
    InputFile() = default;
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;
    ~InputFile() {
        if (file_.file != nullptr) std::fclose(file_.file);
    }

    // False with why, or with an empty why when an interrupt came while reading.
    bool open(const std::string& path, std::string& why) {
        if (path != "-") {
            std::error_code error;
            if (std::filesystem::is_directory(path, error)) {
                why = std::strerror(EISDIR);
                return false;
            }
            file_.file = std::fopen(path.c_str(), "rb");
            if (file_.file == nullptr) {
                why = std::strerror(errno);
                return false;
            }
            path_ = path;
            struct stat info = {};
            if (fstat(fileno(file_.file), &info) == 0 && S_ISREG(info.st_mode)) {
                if (file_.measure()) return true;
                why = std::strerror(errno);
                return false;
            }
            const bool ok = read_descriptor(fileno(file_.file), bytes_, why) &&
                            still_whole(fileno(file_.file), path, bytes_.size(), why);
            std::fclose(file_.file);
            file_.file = nullptr;
            if (!ok) return false;
        } else if (!read_whole(path, bytes_, why)) {
            return false;
        }
        memory_ = kavolib::MemoryInput{bytes_.data(), bytes_.size(), 0};
        return true;
    }

    // False, with why, when a file read as the engine went was removed, replaced or changed
    // in size meanwhile: what was converted may then be a mixture.
    bool unchanged(std::string& why) const {
        return file_.file == nullptr || still_whole(fileno(file_.file), path_, file_.size, why);
    }

    bool starts_with(const char* magic, size_t offset = 0) {
        const size_t n = std::strlen(magic);
        uint8_t head[16];
        return n <= sizeof head && reader().get(offset, head, n) && std::memcmp(head, magic, n) == 0;
    }

    kavolib::ByteReader reader() {
        return file_.file != nullptr ? file_.reader() : memory_.reader();
    }

    kavolib::EngineInput engine_input() {
        return {reader(), file_.file != nullptr ? kavolib::FileInput::failed : memory_failed};
    }

    // The frame headers of the stream range.
    kavolib::StreamScan scan(const kavolib::InputLayout& layout) {
        kavolib::ByteReader whole = reader();
        Range range{&whole, layout.begin, layout.end};
        kavolib::ByteSource source{Range::read, &range};
        return kavolib::scan_stream(source);
    }

  private:
    struct Range {
        const kavolib::ByteReader* in;
        uint64_t position;
        uint64_t end;
        static size_t read(void* context, uint8_t* dst, size_t n) {
            auto* r = static_cast<Range*>(context);
            const size_t want = static_cast<size_t>(std::min<uint64_t>(n, r->end - r->position));
            const size_t got = want == 0 ? 0 : r->in->read_at(r->in->context, r->position, dst, want);
            r->position += got;
            return got;
        }
    };
    static bool memory_failed(void*) { return false; }

    kavolib::FileInput file_;
    std::string path_;
    std::vector<uint8_t> bytes_;
    kavolib::MemoryInput memory_{nullptr, 0, 0};
};

inline std::string lower_extension(const std::string& name) {
    std::string text = std::filesystem::path(name).extension().string();
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// Containers that are certainly not MP3 streams, whatever sync patterns their data holds.
inline bool other_container(InputFile& input) {
    static const struct {
        size_t offset;
        const char* magic;
    } kMagic[] = {{0, "fLaC"}, {0, "OggS"},  {0, "FORM"}, {0, "RIFF"}, {0, "\x1a\x45\xdf\xa3"},
                  {4, "ftyp"}, {0, "#!AMR"}, {0, ".snd"}, {0, "MThd"}};
    for (const auto& m : kMagic) {
        if (input.starts_with(m.magic, m.offset)) return true;
    }
    return false;
}

// An input the engine found no Layer III frame in: an MP3 without audio, or no MP3 at all.
inline std::string no_frames_text(const std::string& name, const kavolib::InputLayout& layout,
                           const kavolib::StreamScan& scan) {
    const bool named_mp3 = lower_extension(name) == ".mp3";
    const bool tagged = !layout.skipped.empty();
    if (scan.frame_count > 0 || named_mp3 || tagged) return "no MPEG audio Layer III frames found";
    return "not an MP3 or WAV file";
}

// False, with why, when the input is refused before any output is made: a WAV file of a kind
// not converted, or a container that is certainly not an MP3 stream.
inline bool accepted(InputFile& input, const kavolib::InputLayout& layout, std::string& why) {
    if (layout.kind == kavolib::InputKind::refused) {
        why = layout.refusal;
        return false;
    }
    if (layout.wav_format_tag == 0 && other_container(input)) {
        why = "not an MP3 or WAV file";
        return false;
    }
    return true;
}

// The one line for an engine call that failed with status and message.
inline std::string failure_text(const std::string& name, InputFile& input,
                                const kavolib::InputLayout& layout, int status,
                                const char* message) {
    if (status == KAVO_ERROR_FORMAT && layout.kind == kavolib::InputKind::mpeg) {
        const kavolib::StreamScan scan = input.scan(layout);
        if (scan.layer3_frames == 0 && !scan.has_layer12) return no_frames_text(name, layout, scan);
    }
    return message[0] != '\0' ? message : kavo_status_text(status);
}

}  // namespace kavocli
