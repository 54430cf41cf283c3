// Fuzz target over the whole decode phase: the input bytes are written to a file in a private
// directory and decoded to raw PCM. Fatal conditions, which end the process in the library,
// come back here as an exception through the end-of-process hook; every stream the library
// opened is closed after each input.
#include <cstddef>
#include <cstdint>

#include "entry/decode_loop.h"
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kavofuzz::prepare();
    kavofuzz::write_input("in.mp3", data, size);
    try {
        kavolib::decode_phase("in.mp3", "out.pcm", nullptr, 0);
    } catch (const kavofuzz::FatalExit&) {
        // A refusal (Layer I or II) or a fatal condition: the library would have ended here.
    }
    kavolib::close_all_streams();
    return 0;
}
