// kavo expand: packed codes back to an 8000 Hz WAV for listening, in the command's own
// process (the expansion returns its failures instead of ending the process and keeps no
// state between calls). OUT is written by what it is (engine/output_target.h); an MP3 or WAV
// input is refused, since codes are what is expanded.
#include <cstdio>
#include <string>

#include "adpcm/adpcm_expand.h"
#include "commands.h"
#include "engine/output_target.h"
#include "files.h"
#include "interrupt.h"

namespace kavocli {

int cmd_expand(const std::string& in, const std::string& out, bool quiet) {
    if (out.empty() || in.empty()) {
        std::fprintf(stderr, "kavo: the %s path is empty\n", in.empty() ? "input" : "output");
        return kExitUsage;
    }
    install_interrupt_handlers();
    std::string why;
    uintmax_t size = 0;
    if (!readable_size(in, size, why)) {
        std::fprintf(stderr, "kavo: %s: %s\n", in.c_str(), why.c_str());
        return kExitFailed;
    }
    // An MP3 or WAV file "expanded" as codes would give noise: it was meant for kavo convert.
    const std::string audio = audio_content(in);
    if (!audio.empty()) {
        std::fprintf(stderr, "kavo: %s: %s, not ADPCM codes (kavo convert makes codes of it)\n",
                     in.c_str(), audio.c_str());
        return kExitUsage;
    }
    kavolib::OutputTarget output;
    std::string failure;
    if (!output.reserve(out, why)) {
        failure = "cannot write '" + out + "': " + why;
    } else {
        failure = kavolib::adpcm_expand_file(in.c_str(), output.writer_path().c_str());
    }
    if (interrupted()) {
        output.discard();
        end_interrupted();
    }
    bool exists = false;
    if (failure.empty() && !output.commit(true, exists, why))
        failure = "cannot write '" + out + "': " + why;
    if (!failure.empty()) {
        std::fprintf(stderr, "kavo: %s: %s; '%s' was not written\n", in.c_str(), failure.c_str(),
                     out.c_str());
        return kExitFailed;
    }
    if (!quiet) {
        // Two samples of two bytes for every byte of codes, behind a 44-byte header.
        std::fprintf(stderr, "wrote '%s': %ju bytes, %.2f s\n", out.c_str(), 44 + 4 * size,
                     static_cast<double>(size) / 4000.0);
    }
    return kExitOk;
}

}  // namespace kavocli
