// kavo mix and kavo resample: one resample stage on a WAV file. The stage runs in a child
// process inside a private directory, since it works with fixed names in the current
// directory (the resampler leaves "temp.txt") and ends the process when it fails; only the
// finished output is moved to the user's OUT.
#include <cstdio>
#include <string>

#include "commands.h"
#include "resample/resample_stages.h"
#include "workdir.h"

namespace kavocli {

namespace {

constexpr const char* kPrivateOutput = "output.wav";

int run_stage(const std::string& in, const std::string& out, bool quiet,
              void (*stage)(const char* in, const char* out)) {
    std::string why;
    if (!readable(in, why)) {
        std::fprintf(stderr, "kavo: %s: %s\n", in.c_str(), why.c_str());
        return kExitFailed;
    }
    if (out.empty()) {
        std::fprintf(stderr, "kavo: the output path is empty\n");
        return kExitUsage;
    }
    const std::string input = absolute_path(in);
    const int code = run_privately(kPrivateOutput, out, quiet, [&]() {
        stage(input.c_str(), kPrivateOutput);
        return 0;
    });
    if (code > 0) report_not_written("conversion", in, code, out);
    if (code != 0) return kExitFailed;
    report_written(out, quiet);
    return kExitOk;
}

}  // namespace

int cmd_mix(const std::string& in, const std::string& out, bool quiet) {
    return run_stage(in, out, quiet, [](const char* from, const char* to) {
        kavolib::mix_to_mono(from, to, nullptr, 0);
    });
}

int cmd_resample(const std::string& in, const std::string& out, bool quiet) {
    return run_stage(in, out, quiet, [](const char* from, const char* to) {
        kavolib::resample_to_8k(from, to, 1, nullptr, 0);
    });
}

}  // namespace kavocli
