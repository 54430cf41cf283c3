// Stream registry and runtime services for a POSIX host. The registry is a fixed table, so
// opening a file allocates nothing of ours beyond what the C library does for the stream.
#include "platform/platform.h"

#include <sys/stat.h>

#include <cstdlib>

namespace kavolib {

namespace {
FILE* g_streams[kMaxStreams] = {};
EndProcessHook g_end_hook = nullptr;
}  // namespace

FILE* open_stream(const char* name, const char* mode) {
    int slot = -1;
    for (int i = 0; i < kMaxStreams; ++i) {
        if (g_streams[i] == nullptr) {
            slot = i;
            break;
        }
    }
    if (slot < 0) return nullptr;
    FILE* stream = std::fopen(name, mode);
    g_streams[slot] = stream;
    return stream;
}

int close_stream(FILE* stream) {
    if (stream == nullptr) return EOF;
    for (FILE*& entry : g_streams) {
        if (entry == stream) entry = nullptr;
    }
    return std::fclose(stream);
}

int close_all_streams() {
    int closed = 0;
    for (FILE*& entry : g_streams) {
        if (entry != nullptr) {
            std::fclose(entry);
            entry = nullptr;
            ++closed;
        }
    }
    return closed;
}

int open_stream_count() {
    int count = 0;
    for (FILE* entry : g_streams) count += entry != nullptr ? 1 : 0;
    return count;
}

long file_length(FILE* stream) {
    if (stream == nullptr) return -1;
    // Written data may still sit in the stream's buffer; the length must include it.
    std::fflush(stream);
    struct stat info {};
    if (fstat(fileno(stream), &info) != 0) return -1;
    return static_cast<long>(info.st_size);
}

int put_word32(int32_t value, FILE* stream) {
    const auto bits = static_cast<uint32_t>(value);
    const unsigned char bytes[4] = {
        static_cast<unsigned char>(bits & 0xFFu), static_cast<unsigned char>((bits >> 8) & 0xFFu),
        static_cast<unsigned char>((bits >> 16) & 0xFFu),
        static_cast<unsigned char>((bits >> 24) & 0xFFu)};
    if (std::fwrite(bytes, 1, 4, stream) != 4) return EOF;
    return value;
}

int remove_file(const char* name) { return std::remove(name); }

void set_end_process_hook(EndProcessHook hook) { g_end_hook = hook; }

void end_process(int code) {
    if (g_end_hook != nullptr) g_end_hook(code);
    std::fflush(stdout);
    std::fflush(stderr);
    std::exit(code);
}

}  // namespace kavolib
