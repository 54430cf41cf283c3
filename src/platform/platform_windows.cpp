// The runtime services on Windows, where the C runtime provides them directly: _fcloseall
// closes every stream of the process, _filelength measures an open file, _putw writes a
// 32-bit word. The registry still counts the library's own streams.
#include <io.h>
#include <stdio.h>

#include <cstdlib>

#include "platform/platform.h"

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
    for (FILE*& entry : g_streams) entry = nullptr;
    return _fcloseall();
}

int open_stream_count() {
    int count = 0;
    for (FILE* entry : g_streams) count += entry != nullptr ? 1 : 0;
    return count;
}

long file_length(FILE* stream) {
    if (stream == nullptr) return -1;
    std::fflush(stream);
    return _filelength(_fileno(stream));
}

int put_word32(int32_t value, FILE* stream) { return _putw(value, stream); }

int remove_file(const char* name) { return std::remove(name); }

void set_end_process_hook(EndProcessHook hook) { g_end_hook = hook; }

void end_process(int code) {
    if (g_end_hook != nullptr) g_end_hook(code);
    std::fflush(stdout);
    std::fflush(stderr);
    std::exit(code);
}

}  // namespace kavolib
