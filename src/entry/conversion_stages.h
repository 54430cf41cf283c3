// What a conversion does after its decode phase: the stages that turn the decoded PCM file
// into the caller's ADPCM output and build the call's result.
#pragma once

#include <cstdint>

#include "kavo/kavo.h"

namespace kavolib {

// Runs the stages after the decode phase ("ZUVRTEMP.TM2" in the current directory) and
// returns the call's result.
ConversionResult run_conversion_stages(const char* output_path, float gain,
                                       ProgressCallback callback, int32_t user);

}  // namespace kavolib
