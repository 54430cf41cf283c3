// Input reading and the recognition of audio files, for POSIX systems and Windows.
#include "files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "container/input_layout.h"
#include "engine/file_source.h"
#include "engine/stream_scan.h"
#include "interrupt.h"

#ifdef _WIN32
#include <io.h>
#else
#include <unistd.h>
#endif

namespace kavocli {

namespace fs = std::filesystem;

namespace {

#ifdef _WIN32
long long read_some(int fd, void* buffer, size_t size) {
    return _read(fd, buffer, static_cast<unsigned>(size));
}
#else
long long read_some(int fd, void* buffer, size_t size) {
    return read(fd, buffer, size);
}
#endif

// Capitalised the way ls and cat print them ("No such file or directory").
std::string errno_text(int number) {
    return std::strerror(number);
}

// Frames in a row that make a file an MPEG audio stream: a few chance headers in other data
// (ADPCM codes among them) never line up this often.
constexpr int32_t kFramesOfAStream = 8;

}  // namespace

bool still_whole(int fd, const std::string& path, uintmax_t size, std::string& why) {
#ifndef _WIN32
    struct stat opened = {};
    struct stat named = {};
    if (fstat(fd, &opened) != 0) return true;
    if (stat(path.c_str(), &named) != 0 || named.st_ino != opened.st_ino ||
        named.st_dev != opened.st_dev) {
        why = "the file was removed or replaced while it was read";
        return false;
    }
    if (S_ISREG(opened.st_mode) && static_cast<uintmax_t>(opened.st_size) != size) {
        why = "the file changed size while it was read";
        return false;
    }
#else
    (void)fd;
    (void)path;
    (void)size;
    (void)why;
#endif
    return true;
}

bool read_descriptor(int fd, std::vector<uint8_t>& bytes, std::string& why) {
    uint8_t chunk[1 << 16];
    for (;;) {
        if (interrupted()) return false;
        const long long got = read_some(fd, chunk, sizeof chunk);
        if (got > 0) {
            bytes.insert(bytes.end(), chunk, chunk + got);
        } else if (got == 0) {
            return true;
        } else if (errno != EINTR) {
            why = errno_text(errno);
            return false;
        }
    }
}

bool read_whole(const std::string& path, std::vector<uint8_t>& bytes, std::string& why) {
    bytes.clear();
    why.clear();
    if (path == "-") {
#ifdef _WIN32
        _setmode(0, _O_BINARY);
#endif
        return read_descriptor(0, bytes, why);
    }
    std::error_code error;
    if (fs::is_directory(path, error)) {
        why = errno_text(EISDIR);
        return false;
    }
#ifdef _WIN32
    const int fd = _open(path.c_str(), _O_RDONLY | _O_BINARY);
#else
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
#endif
    if (fd < 0) {
        why = errno_text(errno);
        return false;
    }
    struct stat info = {};
    if (fstat(fd, &info) == 0 && info.st_size > 0) bytes.reserve(static_cast<size_t>(info.st_size));
    const bool ok = read_descriptor(fd, bytes, why) && still_whole(fd, path, bytes.size(), why);
#ifdef _WIN32
    _close(fd);
#else
    close(fd);
#endif
    return ok;
}

bool readable_size(const std::string& path, uintmax_t& size, std::string& why) {
    std::error_code error;
    if (fs::is_directory(path, error)) {
        why = errno_text(EISDIR);
        return false;
    }
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        why = errno_text(errno);
        return false;
    }
    std::fclose(file);
    size = fs::file_size(path, error);
    if (error) size = 0;
    return true;
}

std::string audio_content(const std::string& path) {
    std::error_code error;
    if (!fs::is_regular_file(path, error)) return {};
    kavolib::FileInput file;
    file.file = std::fopen(path.c_str(), "rb");
    if (file.file == nullptr) return {};
    std::string what;
    if (file.measure()) {
        // The conversion's own recognition: a RIFF WAVE file (whatever it carries), an ID3v2
        // tag, or a run of MPEG frames at the start of what lies between the tags.
        const kavolib::InputLayout layout = kavolib::find_layout(file.reader());
        const bool id3v2 = !layout.skipped.empty() && layout.skipped[0].name.starts_with("ID3v2");
        if (layout.kind != kavolib::InputKind::mpeg || layout.wav_format_tag != 0) {
            what = "a WAV file";
        } else if (id3v2) {
            what = "an MP3 file";
        } else {
            const uint64_t length = std::min<uint64_t>(layout.end - layout.begin, 1 << 16);
            std::vector<uint8_t> head(static_cast<size_t>(length));
            if (file.reader().get(layout.begin, head.data(), head.size())) {
                const kavolib::StreamScan scan = kavolib::scan_stream(head.data(), head.size());
                // A Layer I or II frame right at the start, confirmed by the next, is one too.
                if (scan.has_layer12 && scan.layer12_offset == 0) what = "an MPEG audio file";
                if (scan.frame_count >= kFramesOfAStream) what = "an MP3 file";
            }
        }
    }
    std::fclose(file.file);
    return what;
}

bool audio_name(const std::string& path) {
    std::string extension = fs::path(path).extension().string();
    for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (const char* audio : {".mp3", ".mp2", ".wav", ".wave", ".mpga"}) {
        if (extension == audio) return true;
    }
    return false;
}

bool writable_directory(const std::string& dir, std::string& why) {
#ifdef _WIN32
    (void)dir;
    (void)why;
    return true;
#else
    if (access(dir.c_str(), W_OK | X_OK) == 0) return true;
    why = errno_text(errno);
    return false;
#endif
}

void make_stdout_binary() {
#ifdef _WIN32
    _setmode(_fileno(stdout), _O_BINARY);
#endif
}

}  // namespace kavocli
