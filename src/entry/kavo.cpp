// The library's only exported function: checks its arguments, prints the banner and runs one
// whole conversion from the MP3 input to the ADPCM output.
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

#include "entry/conversion_stages.h"
#include "entry/decode_loop.h"
#include "entry/entry.h"

namespace kavolib {

namespace {

bool same_name(const std::string& a, const char* b) {
#if defined(_WIN32)
    const std::string other(b);
    if (a.size() != other.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(other[i]))) {
            return false;
        }
    }
    return true;
#else
    return a == b;
#endif
}

}  // namespace

bool names_temporary_file(const char* path) {
    namespace fs = std::filesystem;
    const fs::path given(path);
    const std::string name = given.filename().string();
    bool temporary = false;
    for (const char* candidate : {kDecodedName, kFlagName, kMonoName, kEightKName,
                                  kDiagnosticName, kAdpcmCopyName}) {
        temporary = temporary || same_name(name, candidate);
    }
    if (!temporary) return false;
    // Only a file in the current directory collides; compare the directories as resolved.
    std::error_code error;
    const fs::path here = fs::weakly_canonical(fs::current_path(error), error);
    if (error) return true;
    const fs::path folder = fs::weakly_canonical(fs::absolute(given, error).parent_path(), error);
    if (error) return true;
#if defined(_WIN32)
    return same_name(folder.string(), here.string().c_str());
#else
    return folder == here;
#endif
}

int32_t check_arguments(const char* input_path, const char* output_path, float gain) {
    if (input_path[0] == '\0') return kStatusNoInput;
    if (output_path[0] == '\0') return kStatusNoOutput;
    if (gain == -1.0f) return kStatusBadGain;
    if (names_temporary_file(input_path) || names_temporary_file(output_path)) {
        return kStatusTemporaryName;
    }
    return 0;
}

void print_banner() {
    // The decoder has always introduced itself as version 1.01; the library's own version
    // (returned in every result) is 1.2.
    std::fprintf(stderr, "\n%s  Version %d.%02d\n%s\n", "MPEG Audio Layer 3 Decoder", 1, 1,
                 "Converts MPEG audio Layer III to 8000 Hz 32 kbit/s 4-bit ADPCM");
}

}  // namespace kavolib

extern "C" KAVO_API ConversionResult kavo(const char* input_path, const char* output_path,
                                          float gain, ProgressCallback callback, int32_t user) {
    using namespace kavolib;
    const int32_t refusal = check_arguments(input_path, output_path, gain);
    if (refusal != 0) return ConversionResult{refusal, kLibraryVersion};

    print_banner();
    decode_phase(input_path, kDecodedName, callback, user);
    return run_conversion_stages(output_path, gain, callback, user);
}
