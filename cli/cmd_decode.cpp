// kavo decode IN OUT: the engine's decode alone, MP3 to 16-bit PCM in the form OUT's name
// selects (".pcm" raw, ".wav" or ".TM2" WAV, ".txt" hexadecimal text), in the command's own
// process. The input is read as convert reads it (tags and wrappers skipped, the same refusals);
// the output is written beside OUT and moved into place only when complete. With --gapless
// only the samples the encoder's header asks to keep are written, as convert --gapless reads them.
#include <cstdio>
#include <filesystem>
#include <string>

#include "commands.h"
#include "engine/conversion.h"
#include "engine/output_target.h"
#include "input_file.h"
#include "pcmout/pcm_output.h"

namespace kavocli {

namespace {

struct DecodeOutput {
    kavolib::OutputTarget& target;
    std::string write_error;
    unsigned long long bytes = 0;
};

int write_decoded(void* user, const void* bytes, size_t size) {
    auto& out = *static_cast<DecodeOutput*>(user);
    if (!out.target.write(bytes, size, out.write_error)) return 1;
    out.bytes += size;
    return 0;
}

}  // namespace

int cmd_decode(const std::string& in, const std::string& out, bool quiet, bool verbose,
               bool gapless) {
    const std::string name = std::filesystem::path(out).filename().string();
    const kavolib::OutputForm form = kavolib::choose_output_form(name.c_str());
    if (form == kavolib::OutputForm::none) {
        std::fprintf(stderr,
                     "kavo: '%s' selects no output form: the name must contain .wav, .pcm, .TM2 "
                     "or .txt\n",
                     out.c_str());
        return kExitUsage;
    }
    auto failed = [&](const std::string& why) {
        std::fprintf(stderr, "kavo: %s: %s\n", in.c_str(), why.c_str());
        return kExitFailed;
    };
    if (in != "-" && kavolib::same_file(in, out)) {
        return failed("the output '" + out + "' would replace the input");
    }
    InputFile input;
    std::string why;
    if (!input.open(in, why)) return failed(why);
    const kavolib::InputLayout layout = kavolib::find_layout(input.reader());
    if (!accepted(input, layout, why)) return failed(why);
    if (verbose && !layout.skipped.empty()) {
        std::fprintf(stderr, "%s: skipped %s\n", in.c_str(),
                     kavolib::describe_skipped(layout.skipped).c_str());
    }
    kavolib::OutputTarget target;
    if (!target.open(out, false, why)) return failed("cannot write '" + out + "': " + why);
    DecodeOutput output{target, {}};
    char message[256] = "";
    kavolib::EngineInput engine_input = input.engine_input();
    const int status = kavolib::run_decode(engine_input, form, write_decoded, &output, message,
                                           sizeof message, nullptr, gapless);
    if (!input.unchanged(why)) return failed(why);
    if (!output.write_error.empty()) return failed("cannot write '" + out + "': " + output.write_error);
    if (status != KAVO_OK) return failed(failure_text(in, input, layout, status, message));
    bool exists = false;
    if (!target.commit(true, exists, why)) return failed("cannot write '" + out + "': " + why);
    if (!quiet) std::fprintf(stderr, "wrote '%s': %llu bytes\n", out.c_str(), output.bytes);
    return kExitOk;
}

}  // namespace kavocli
