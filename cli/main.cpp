// The kavo command: MP3 or WAV prompts to ADPCM, one file, a folder's worth or a pipe, and
// each stage of the conversion on its own.
#include <CLI/CLI.hpp>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "commands.h"
#include "kavo/kavo.h"
#include "manual_help.h"

namespace {

// A value given on the command line, read whole, or a usage error that quotes it as given
// ("-j abc: not a number").
bool read_jobs(const std::string& text, unsigned& jobs, std::string& error) {
    const char* end = text.data() + text.size();
    const auto [stop, fault] = std::from_chars(text.data(), end, jobs);
    if (fault != std::errc() || stop != end || text.empty()) {
        error = "-j " + text + ": not a number";
    } else if (jobs < 1 || jobs > 1024) {
        error = "-j " + text + ": from 1 to 1024 conversions at once";
    }
    return error.empty();
}

bool read_gain(const std::string& text, float& gain, std::string& error) {
    char* stop = nullptr;
    const double value = std::strtod(text.c_str(), &stop);
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0])) || *stop != '\0') {
        error = "--gain " + text + ": not a number";
    } else if (!std::isfinite(static_cast<float>(value))) {
        error = "--gain " + text + ": not a finite number";
    }
    gain = static_cast<float>(value);
    return error.empty();
}

// --peak and --level: a finite number of dB (a peak at most 0, full scale).
bool read_db(const char* option, const std::string& text, float& db, std::string& error) {
    char* stop = nullptr;
    const double value = std::strtod(text.c_str(), &stop);
    const std::string named = std::string(option) + " " + text;
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0])) || *stop != '\0') {
        error = named + ": not a number";
    } else if (!std::isfinite(static_cast<float>(value))) {
        error = named + ": not a finite number";
    } else if (std::strcmp(option, "--peak") == 0 && value > 0) {
        error = named + ": a peak is at most 0 dB (full scale)";
    }
    db = static_cast<float>(value);
    return error.empty();
}

// The parser's own complaints in the command's voice: "kavo: " and one line.
std::string failure_line(const CLI::App* app, const CLI::Error& e) {
    std::string what = e.what();
    // "The following ..." reads as the rest of the line; "FILES is required" stays as it is.
    if (what.size() > 1 && std::islower(static_cast<unsigned char>(what[1])))
        what[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(what[0])));
    std::string help = "kavo";
    for (const CLI::App* sub : app->get_subcommands()) help += " " + sub->get_name();
    return "kavo: " + what + " (" + help + " --help lists what is accepted)\n";
}

}  // namespace

int main(int argc, char** argv) {
    using namespace kavocli;
    CLI::App app{
        "kavo: MP3 (MPEG-1/2/2.5 Layer III) or WAV to 8000 Hz 32 kbit/s 4-bit ADPCM",
        "kavo"};
    app.set_version_flag("--version", "kavo 1.2");
    app.failure_message(failure_line);
    app.require_subcommand(1);
    app.fallthrough(false);
    // --help-all is also the source of the manual page (help2man, see cli/CMakeLists.txt).
    app.set_help_all_flag("--help-all",
                          "Print every subcommand with its options, and the exit statuses");
    app.formatter(std::make_shared<ManualHelpFormatter>(std::vector<std::pair<int, std::string>>{
        {kExitOk, "success"},
        {kExitFailed, "the conversion failed: the message says why; nothing is written to OUT"},
        {kExitUsage, "a usage error or a refused argument; nothing is written"},
        {130, "interrupted by Ctrl-C (SIGINT): partial outputs removed, existing ones kept"},
        {143, "stopped by SIGTERM: partial outputs removed, existing ones kept"}}));
    app.footer("Output: headerless 4-bit ADPCM, 8000 Hz mono, 4000 bytes a second. The coder works on\n"
               "full 16-bit samples, so a standard G.726 decoder (14-bit levels) plays it about 12 dB\n"
               "hot and clips; --gain 0.25 (a linear factor) gives about the source's level there.\n\n"
               "Exit status: 0 success, 1 a conversion failed, 2 a usage error, 130 or 143\n"
               "interrupted (--help-all says more). Run kavo SUBCOMMAND --help for more.");

    ConvertOptions convert_options;
    std::string in;
    std::string out;
    [[maybe_unused]] float gain = 1.0f;
    std::string jobs_text;
    std::string gain_text;
    std::string peak_text;
    std::string level_text;
    bool quiet = false;
    [[maybe_unused]] bool gapless = false;

    auto* convert =
        app.add_subcommand("convert", "MP3 files (tags skipped) or WAV files to packed 4-bit ADPCM");
    convert
        ->add_option("FILES", convert_options.files,
                     "IN OUT, or the inputs with -o DIR; '-' is standard input or output")
        ->required();
    convert
        ->add_option("-o,--output-dir", convert_options.out_dir,
                     "write each input to DIR/<its name>.adpcm (DIR is made if missing)")
        ->type_name("DIR");
    convert
        ->add_option("-j,--jobs", jobs_text, "conversions at once, 1 to 1024 (default: one per core)")
        ->type_name("N");
    convert
        ->add_option("--gain", gain_text,
                     "gain applied to the 8000 Hz samples (default 1.0; wraps in 16 bits); "
                     "max: the largest gain that wraps no sample")
        ->type_name("FLOAT|max");
    convert
        ->add_option("--peak", peak_text,
                     "gain that brings the largest 8000 Hz sample to DB dB of full scale (DB <= 0)")
        ->type_name("DB");
    convert
        ->add_option("--level", level_text,
                     "gain that brings the active speech level (ITU-T P.56) to DB dBov, "
                     "e.g. -26; never beyond the largest gain that wraps no sample")
        ->type_name("DB");
    auto* convert_quiet =
        convert->add_flag("-q,--quiet", convert_options.quiet, "print errors only");
    convert->add_flag("-v,--verbose", convert_options.verbose,
                      "also describe each input and the level it converts to")
        ->excludes(convert_quiet);
    convert->add_flag("--gapless", convert_options.gapless,
                      "leave out the encoder's delay and padding and its header frame, as the "
                      "header in an MP3's first frame gives them");
    convert->add_flag("-n,--no-clobber", convert_options.no_clobber,
                      "leave an output that is already there (counted as skipped, not failed)");
    convert->footer(
        "Examples:\n"
        "  kavo convert prompt.mp3 prompt.adpcm\n"
        "  kavo convert -j 4 prompts/*.mp3 prompts/*.wav -o adpcm\n"
        "  kavo convert --level -26 -o out prompts/*.mp3\n"
        "  producer | kavo convert -q - - | consumer\n\n"
        "Each file gets one line on standard error ('wrote ...', or 'kavo: FILE: cause'), and one\n"
        "more when the gain wrapped samples (the largest gain that wraps none is named); a\n"
        "batch goes on past a failing input and ends with one line of counts naming the failed\n"
        "inputs. A progress bar is drawn only on a terminal. With -n a rerun converts only the\n"
        "new inputs: 'converted 3, skipped 27 (already there), 0 failed', exit status 0.\n\n"
        "Outputs: a file is written beside OUT and renamed onto it when complete; a link is\n"
        "followed (its target replaced, the link kept); a device, FIFO or socket is written in\n"
        "place. IN OUT is refused when OUT is MP3 or WAV audio or named .mp3 .mp2 .wav .wave\n"
        ".mpga (two inputs, most likely: use -o DIR).\n\n"
        "Exit status: 0 all converted or skipped, 1 a file failed, 2 a usage error (nothing\n"
        "written), 130 or 143 interrupted (partial outputs removed).");

    auto add_stage = [&](const char* name, const char* what, const char* in_text,
                         const char* out_text) {
        auto* stage = app.add_subcommand(name, what);
        stage->add_option("IN", in, in_text)->required();
        stage->add_option("OUT", out, out_text)->required();
        stage->add_flag("-q,--quiet", quiet, "print errors only");
        return stage;
    };
#ifdef KAVO_STAGE_COMMANDS
    auto* decode = add_stage("decode", "MP3 file to 16-bit PCM (.wav, .pcm or .txt by OUT's name)",
                             "MP3 input file", "decoded output file");
    bool decode_verbose = false;
    decode->add_flag("-v,--verbose", decode_verbose, "also name the tags and wrappers skipped");
    decode->add_flag("--gapless", gapless,
                     "leave out the encoder's delay and padding and its header frame, as the "
                     "header in the first frame gives them");
    auto* mix = add_stage("mix", "16-bit WAV to mono WAV (average of the two channels)",
                          "16-bit WAV input", "mono WAV output");
    auto* resample = add_stage("resample", "16-bit WAV to 8000 Hz WAV (windowed-sinc filter)",
                               "16-bit WAV input", "8000 Hz WAV output");
    auto* encode = add_stage("encode", "8000 Hz 16-bit WAV or raw PCM to packed 4-bit ADPCM",
                             "8000 Hz 16-bit input (WAV or raw)", "ADPCM output file");
    encode->add_option("--gain", gain_text, "gain applied to every sample (default 1.0)")
        ->type_name("FLOAT");
#endif
    auto* expand = add_stage("expand", "packed 4-bit ADPCM back to an 8000 Hz WAV for listening",
                             "ADPCM input file", "8000 Hz 16-bit WAV output");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? kExitOk : kExitUsage;
    }

    std::string error;
    if (!jobs_text.empty()) read_jobs(jobs_text, convert_options.jobs, error);
    const int gains = !gain_text.empty() + !peak_text.empty() + !level_text.empty();
    if (error.empty() && *convert && gains > 1) error = "--gain, --peak and --level exclude each other";
    if (error.empty() && *convert && gain_text == "max") {
        convert_options.target = KAVO_TARGET_MAX_GAIN;
    } else if (error.empty() && !gain_text.empty()) {
        read_gain(gain_text, *convert ? convert_options.gain : gain, error);
    }
    if (error.empty() && !peak_text.empty()) {
        convert_options.target = KAVO_TARGET_PEAK;
        read_db("--peak", peak_text, convert_options.target_db, error);
    }
    if (error.empty() && !level_text.empty()) {
        convert_options.target = KAVO_TARGET_LEVEL;
        read_db("--level", level_text, convert_options.target_db, error);
    }
    if (!error.empty()) {
        std::fprintf(stderr, "kavo: %s\n", error.c_str());
        return kExitUsage;
    }
    if (*convert) return cmd_convert(convert_options);
    if (*expand) return cmd_expand(in, out, quiet);
#ifdef KAVO_STAGE_COMMANDS
    if (*decode) return cmd_decode(in, out, quiet, decode_verbose, gapless);
    if (*mix) return cmd_mix(in, out, quiet);
    if (*resample) return cmd_resample(in, out, quiet);
    if (*encode) return cmd_encode(in, out, gain, quiet);
#endif
    return kExitUsage;
}
