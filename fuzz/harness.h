// What the file-based fuzz targets share: a private working directory (the stages write fixed
// names into the current directory) and the end-of-process hook that turns the library's fatal
// exits into an exception the target catches, so one process survives every input.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string>

#include "platform/platform.h"

namespace kavofuzz {

struct FatalExit {
    int code;
};

[[noreturn]] inline void throw_instead_of_exit(int code) {
    throw FatalExit{code};
}

// The names the targets and the stages leave behind, removed with the directory at exit.
inline std::initializer_list<const char*> kScratchNames = {
    "in.mp3", "out.pcm", "chkmode.txt", "in.bin", "out.bin", "temp.txt", "ZUTMP.TM1"};

inline std::string& private_dir() {
    static std::string dir;
    return dir;
}

inline void remove_private_dir() {
    for (const char* name : kScratchNames) std::remove((private_dir() + "/" + name).c_str());
    rmdir(private_dir().c_str());
}

// Moves into a fresh directory of its own (on a memory file system when there is one) and
// installs the hook; done once per process.
inline void prepare() {
    if (!private_dir().empty()) return;
    const char* base = getenv("TMPDIR");
    std::string root = base != nullptr && base[0] != '\0' ? base : "/tmp";
    if (base == nullptr && access("/dev/shm", W_OK) == 0) root = "/dev/shm";
    std::string pattern = root + "/kavo-fuzz-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr || chdir(pattern.c_str()) != 0) {
        std::perror("kavo fuzz: private directory");
        std::abort();
    }
    private_dir() = pattern;
    std::atexit(remove_private_dir);
    kavolib::set_end_process_hook(throw_instead_of_exit);
}

// Writes the input to a file of the private directory.
inline void write_input(const char* name, const uint8_t* data, size_t size) {
    FILE* file = std::fopen(name, "wb");
    if (file == nullptr) std::abort();
    if (size > 0) std::fwrite(data, 1, size, file);
    std::fclose(file);
}

}  // namespace kavofuzz
