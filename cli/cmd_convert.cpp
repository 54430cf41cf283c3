// kavo convert: the whole conversion through the library's exported function, run in a
// private working directory so that the user's directory only ever receives the output.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include "commands.h"
#include "kavo/kavo.h"
#include "workdir.h"

namespace kavocli {

namespace {

// Name of the output inside the private directory, moved to the user's path on success.
constexpr const char* kPrivateOutput = "output.adpcm";

int g_last_percent = -1;

// Draws a one-line bar on standard error; called by the library with (user, 0, 100, p, 1).
int32_t draw_progress(int32_t /*user*/, int32_t low, int32_t high, int32_t percent, int32_t) {
    if (percent == g_last_percent) return 0;
    g_last_percent = percent;
    const int span = high > low ? high - low : 100;
    int filled = (percent - low) * 40 / span;
    if (filled < 0) filled = 0;
    if (filled > 40) filled = 40;
    std::string bar(static_cast<size_t>(filled), '#');
    bar.append(static_cast<size_t>(40 - filled), '-');
    std::fprintf(stderr, "\r[%s] %3d%%", bar.c_str(), percent);
    std::fflush(stderr);
    return 0;
}

const char* refusal_text(int status) {
    switch (status) {
        case 3:
            return "the input path is empty";
        case 4:
            return "the output path is empty";
        case 5:
            return "a gain of -1.0 is not accepted";
        case 6:
            return "a path names one of the library's temporary files";
        default:
            return "the library refused the call";
    }
}

}  // namespace

int cmd_convert(const std::string& in, const std::string& out, float gain) {
    std::string why;
    if (!in.empty() && !readable(in, why)) {
        std::fprintf(stderr, "kavo convert: cannot read '%s': %s\n", in.c_str(), why.c_str());
        return kExitFailed;
    }
    const std::string input = absolute_path(in);
    const bool show_bar = isatty(fileno(stderr)) != 0;
    uintmax_t bytes = 0;
    const int code = run_privately(
        "convert", kPrivateOutput, out,
        [&]() {
            // Empty paths and the gain -1.0 go to the library unchanged so that it decides.
            const ConversionResult result = kavo(input.c_str(), out.empty() ? "" : kPrivateOutput,
                                                 gain, show_bar ? draw_progress : nullptr, 0);
            if (show_bar && g_last_percent >= 0) std::fputc('\n', stderr);
            return result.status == 1 ? 0 : result.status;
        },
        [&](const std::string& produced) {
            std::error_code error;
            bytes = std::filesystem::file_size(produced, error);
            return error ? "cannot measure the result: " + error.message() : std::string();
        });
    if (code >= 3 && code <= 6) {
        std::fprintf(stderr, "kavo convert: %s\n", refusal_text(code));
        return kExitUsage;
    }
    if (code > 0) report_not_written("convert", "conversion of", in, code, out);
    if (code != 0) return kExitFailed;
    // 4000 bytes of codes per second of 8000 Hz audio.
    std::fprintf(stderr, "kavo convert: wrote '%s': %ju bytes, %.2f s of 8000 Hz ADPCM\n",
                 out.c_str(), bytes, static_cast<double>(bytes) / 4000.0);
    return kExitOk;
}

}  // namespace kavocli
