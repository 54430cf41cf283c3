// Fuzz target over the whole decode phase: the input bytes are written to a file in a private
// directory and decoded to raw PCM. Fatal conditions, which end the process in the library,
// come back here as an exception through the end-of-process hook; every stream the library
// opened is closed after each input.
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "entry/decode_loop.h"
#include "platform/platform.h"

namespace {

struct FatalExit {
    int code;
};

[[noreturn]] void throw_instead_of_exit(int code) {
    throw FatalExit{code};
}

bool g_ready = false;
std::string g_dir;

// The private directory goes when the process ends normally.
void clean_up() {
    for (const char* name : {"in.mp3", "out.pcm", "chkmode.txt"})
        std::remove((g_dir + "/" + name).c_str());
    rmdir(g_dir.c_str());
}

// Works in a fresh directory of its own: the decode phase writes fixed names there, one file
// per frame, so a memory file system is preferred when there is one.
void prepare() {
    if (g_ready) return;
    const char* base = getenv("TMPDIR");
    std::string root = base != nullptr && base[0] != '\0' ? base : "/tmp";
    if (base == nullptr && access("/dev/shm", W_OK) == 0) root = "/dev/shm";
    std::string pattern = root + "/kavo-fuzz-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr || chdir(pattern.c_str()) != 0) {
        std::perror("kavo fuzz: private directory");
        std::abort();
    }
    g_dir = pattern;
    std::atexit(clean_up);
    kavolib::set_end_process_hook(throw_instead_of_exit);
    g_ready = true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    prepare();
    FILE* file = std::fopen("in.mp3", "wb");
    if (file == nullptr) std::abort();
    if (size > 0) std::fwrite(data, 1, size, file);
    std::fclose(file);
    try {
        kavolib::decode_phase("in.mp3", "out.pcm", nullptr, 0);
    } catch (const FatalExit&) {
        // A refusal (Layer I or II) or a fatal condition: the library would have ended here.
    }
    kavolib::close_all_streams();
    return 0;
}
