// A seekable input file as a ByteReader: its size measured once, reads at any offset, the
// file position remembered so that reading in order never seeks.
#pragma once

#include <cstdint>
#include <cstdio>

#include "container/byte_reader.h"

namespace kavolib {

struct FileInput {
    std::FILE* file = nullptr;
    uint64_t size = 0;
    uint64_t position = 0;  // where the next fread reads
    bool seek_failed = false;

    static bool seek(std::FILE* file, uint64_t offset, int whence) {
#if defined(_WIN32)
        return _fseeki64(file, static_cast<long long>(offset), whence) == 0;
#else
        return fseeko(file, static_cast<off_t>(offset), whence) == 0;
#endif
    }

    // The file's size; false when it cannot be measured (a pipe, a device).
    bool measure() {
#if defined(_WIN32)
        const long long end = seek(file, 0, SEEK_END) ? _ftelli64(file) : -1;
#else
        const long long end = seek(file, 0, SEEK_END) ? static_cast<long long>(ftello(file)) : -1;
#endif
        if (end < 0 || !seek(file, 0, SEEK_SET)) return false;
        size = static_cast<uint64_t>(end);
        position = 0;
        return true;
    }

    static size_t read_at(void* context, uint64_t offset, uint8_t* dst, size_t n) {
        auto* input = static_cast<FileInput*>(context);
        if (offset != input->position) {
            if (!seek(input->file, offset, SEEK_SET)) {
                input->seek_failed = true;
                return 0;
            }
            input->position = offset;
        }
        const size_t got = std::fread(dst, 1, n, input->file);
        input->position += got;
        return got;
    }

    static bool failed(void* context) {
        const auto* input = static_cast<const FileInput*>(context);
        return input->seek_failed || std::ferror(input->file) != 0;
    }

    ByteReader reader() { return ByteReader{size, read_at, this}; }
};

}  // namespace kavolib
