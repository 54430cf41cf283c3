// The library's only exported function: checks its arguments, prints the banner and runs one
// whole conversion from the MP3 input to the ADPCM output.
#include <cstdio>

#include "entry/conversion_stages.h"
#include "entry/decode_loop.h"
#include "entry/entry.h"

namespace kavolib {

int32_t check_arguments(const char* input_path, const char* output_path, float gain) {
    if (input_path[0] == '\0') return kStatusNoInput;
    if (output_path[0] == '\0') return kStatusNoOutput;
    if (gain == -1.0f) return kStatusBadGain;
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
    decode_phase(input_path, "ZUVRTEMP.TM2", callback, user);
    return run_conversion_stages(output_path, gain, callback, user);
}
