// The stages after the decode phase (mix to mono, 8000 Hz, ADPCM) are not in this build: the
// call says so and ends like any fatal condition, rather than pretending to convert.
#include "entry/conversion_stages.h"

#include <cstdio>

#include "entry/decode_loop.h"

namespace kavolib {

ConversionResult run_conversion_stages(const char*, float, ProgressCallback, int32_t) {
    std::fprintf(stderr, "\nFATAL ERROR: %s",
                 "kavo: the conversion stages after decoding are not in this build\n");
    end_conversion_failed();
}

}  // namespace kavolib
