// The codec command dispatcher: selects the operation by command number and hands back its
// three result words. Layer I and II decoding and all encoding are not provided.
#include "entry/codec_command.h"

#include <cstdio>

#include "frame/frame_header.h"
#include "frame/frame_sync.h"
#include "layer3/layer3.h"
#include "platform/platform.h"

namespace kavolib {

namespace {

// The reserved commands end the process after their message on standard output.
[[noreturn]] void codec_not_provided(const char* text) {
    std::fputs(text, stdout);
    close_all_streams();
    end_process(1);
}

}  // namespace

CodecResult codec_command(CodecRequest request) {
    // Compared as unsigned, so negative commands are unknown like any other.
    switch (static_cast<uint32_t>(request.command)) {
        case 0:
            layer3_reset(layer3_state());
            return CodecResult{1, 0, nullptr};
        case 1:
            return decode_header(g_bit_reader, g_frame_header,
                                 *static_cast<HeaderJob*>(request.job));
        case 2:
            codec_not_provided("Layer 1 decode under construction!!!\n");
        case 3:
            codec_not_provided("Layer 2 decode under construction!!!\n");
        case 4:
            return decode_granule(layer3_state(), g_bit_reader, g_frame_header, request.arg,
                                  *static_cast<const GranuleJob*>(request.job));
        case 5:
            codec_not_provided("Layer 1 encode under construction!!!\n");
        case 6:
            codec_not_provided("Layer 2 encode under construction!!!\n");
        case 7:
            return CodecResult{request.command, request.arg, request.job};
        default:
            return CodecResult{-1, -1, nullptr};
    }
}

}  // namespace kavolib
