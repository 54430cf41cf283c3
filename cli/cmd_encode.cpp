// kavo encode: the ADPCM output stage on an 8000 Hz WAV or raw 16-bit file, run in a child
// process inside a private directory (the stage keeps a fixed temporary name in its current
// directory and ends its process on failure); only the finished output is moved to OUT.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "adpcm/adpcm_output.h"
#include "commands.h"
#include "workdir.h"

namespace kavocli {

namespace {

constexpr const char* kPrivateOutput = "output.adpcm";

uint32_t le32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

uint32_t le16(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8;
}

long long size_of(const std::string& path) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) return -1;
    std::fseek(f, 0, SEEK_END);
    const long long size = std::ftell(f);
    std::fclose(f);
    return size;
}

// What the stage will take from the input: the number of sample bytes it can read, or -1 with
// a reason when a RIFF file is not the plain 8000 Hz mono 16-bit WAV the stage understands
// (it reads the data size at byte 40 and the samples from byte 44).
long long sample_bytes(const std::string& path, bool quiet, std::string& why) {
    const long long size = size_of(path);
    unsigned char h[44] = {};
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr || size < 0) {
        if (f != nullptr) std::fclose(f);
        why = "cannot measure it";
        return -1;
    }
    const size_t got = std::fread(h, 1, sizeof h, f);
    std::fclose(f);
    if (got < 4 || std::memcmp(h, "RIFF", 4) != 0) return size;  // raw samples from byte 0
    char found[160];
    if (got < 44 || std::memcmp(h + 8, "WAVEfmt ", 8) != 0 || le32(h + 16) != 16 ||
        std::memcmp(h + 36, "data", 4) != 0) {
        why = "it is a RIFF file without the plain 44-byte WAV header (fmt of 16 bytes, then data)";
        return -1;
    }
    if (le16(h + 20) != 1 || le16(h + 22) != 1 || le32(h + 24) != 8000 || le16(h + 34) != 16) {
        std::snprintf(found, sizeof found,
                      "it is not 8000 Hz mono 16-bit PCM (format %u, %u channels, %u Hz, %u bits);"
                      " kavo mix and kavo resample make it so",
                      le16(h + 20), le16(h + 22), le32(h + 24), le16(h + 34));
        why = found;
        return -1;
    }
    const long long declared = le32(h + 40);
    const long long present = size - 44;
    if (declared != present && !quiet) {
        std::fprintf(stderr,
                     "kavo: %s: note: the header declares %lld data bytes and %lld follow it;"
                     " %lld are encoded\n",
                     path.c_str(), declared, present, declared < present ? declared : present);
    }
    return declared < present ? declared : present;
}

}  // namespace

int cmd_encode(const std::string& in, const std::string& out, float gain, bool quiet) {
    if (!std::isfinite(gain)) {
        std::fprintf(stderr, "kavo: the gain must be a finite number\n");
        return kExitUsage;
    }
    std::string why;
    if (!readable(in, why)) {
        std::fprintf(stderr, "kavo: %s: %s\n", in.c_str(), why.c_str());
        return kExitFailed;
    }
    const long long bytes = sample_bytes(in, quiet, why);
    if (bytes < 0) {
        std::fprintf(stderr, "kavo: %s: %s\n", in.c_str(), why.c_str());
        return kExitFailed;
    }
    const std::string input = absolute_path(in);
    // 80 bytes for every whole frame of 320 sample bytes; anything else means a failed write.
    const long long expected = bytes / 320 * 80;
    const int code = run_privately(
        kPrivateOutput, out, quiet,
        [&]() {
            kavolib::adpcm_encode_file(input.c_str(), kPrivateOutput, gain, nullptr, 0);
            return 0;
        },
        [&](const std::string& produced) {
            return size_of(produced) == expected
                       ? std::string()
                       : std::string("writing the output failed (disk full?)");
        });
    if (code > 0) report_not_written("encoding", in, code, out);
    if (code != 0) return kExitFailed;
    report_written(out, quiet);
    return kExitOk;
}

}  // namespace kavocli
