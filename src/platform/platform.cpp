// The system-independent part of the platform layer: the registry of the streams the library
// opens (a fixed table, so opening a file allocates nothing of ours beyond what the C library
// does for the stream), removal by name and the one way the process ends.
#include "platform/platform.h"

#include <cstdlib>

#include "platform/platform_internal.h"

namespace kavolib {

namespace {
FILE* g_streams[kMaxStreams] = {};
// Each slot's stream buffer: the stages move whole files through these streams, and blocks of
// this size keep the number of system calls small. Only the slots in use are ever touched.
constexpr size_t kStreamBufferBytes = size_t{1} << 16;
alignas(64) char g_stream_buffers[kMaxStreams][kStreamBufferBytes];
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
    if (stream != nullptr) {
        std::setvbuf(stream, g_stream_buffers[slot], _IOFBF, kStreamBufferBytes);
    }
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

int open_stream_count() {
    int count = 0;
    for (FILE* entry : g_streams) count += entry != nullptr ? 1 : 0;
    return count;
}

int remove_file(const char* name) { return std::remove(name); }

void set_end_process_hook(EndProcessHook hook) { g_end_hook = hook; }

void end_process(int code) {
    if (g_end_hook != nullptr) g_end_hook(code);
    std::fflush(stdout);
    std::fflush(stderr);
    std::exit(code);
}

namespace platform_internal {

int close_registered_streams() {
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

void forget_registered_streams() {
    for (FILE*& entry : g_streams) entry = nullptr;
}

}  // namespace platform_internal

}  // namespace kavolib
