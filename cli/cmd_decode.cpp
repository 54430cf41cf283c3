// kavo decode IN OUT: the decode phase alone, MP3 to 16-bit PCM in the form OUT's name selects
// (".pcm" raw, ".wav" WAV, ".txt" hexadecimal text). It runs in a private working directory in
// a child process, so a failure leaves OUT untouched and no temporary file behind.
#include <cstdio>
#include <filesystem>
#include <string>

#include "commands.h"
#include "entry/decode_loop.h"
#include "pcmout/pcm_output.h"
#include "workdir.h"

namespace kavocli {

int cmd_decode(const std::string& in, const std::string& out, bool quiet) {
    const std::string name = std::filesystem::path(out).filename().string();
    if (kavolib::choose_output_form(name.c_str()) == kavolib::OutputForm::none) {
        std::fprintf(stderr,
                     "kavo: '%s' selects no output form: the name must contain .wav, .pcm, .TM2 "
                     "or .txt\n",
                     out.c_str());
        return kExitUsage;
    }
    std::string why;
    if (!readable(in, why)) {
        std::fprintf(stderr, "kavo: %s: %s\n", in.c_str(), why.c_str());
        return kExitFailed;
    }
    const std::string input = absolute_path(in);
    const int code = run_privately(name, out, quiet, [&]() {
        kavolib::decode_phase(input.c_str(), name.c_str(), nullptr, 0);
        return 0;
    });
    if (code > 0) {
        std::fputc('\n', stderr);  // the library's own message ends without a line end
        report_not_written("decoding", in, code, out);
    }
    if (code != 0) return kExitFailed;
    report_written(out, quiet);
    return kExitOk;
}

}  // namespace kavocli
