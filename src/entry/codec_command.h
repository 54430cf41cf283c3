// The codec command dispatcher: one entry point through which headers are checked (command 1),
// the Layer III decoder is reset (command 0) and granules are decoded (command 4), on the
// module-level frame header, bit reader and decoder state.
#pragma once

#include "frame/codec.h"

namespace kavolib {

CodecResult codec_command(CodecRequest request);

}  // namespace kavolib
