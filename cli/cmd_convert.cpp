// kavo convert: MP3 files and WAV prompts to ADPCM with the engine, in the command's own process.
// One IN OUT pair, or any number of inputs into a directory on several threads; "-" reads
// standard input or writes standard output. Each output is written by what its name is
// (engine/output_target.h); -n skips the outputs already there, so a batch can be rerun.
// Ctrl-C or SIGTERM stops every conversion at its next block, removes the partial files and
// ends the command.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "commands.h"
#include "console.h"
#include "engine/conversion.h"
#include "container/input_layout.h"
#include "engine/file_source.h"
#include "engine/memory_source.h"
#include "engine/output_target.h"
#include "engine/stream_scan.h"
#include "files.h"
#include "input_file.h"
#include "interrupt.h"
#include "kavo/kavo.h"

#include <sys/stat.h>


namespace kavocli {

namespace {

namespace fs = std::filesystem;

struct Job {
    std::string input;
    std::string output;
};

enum class Result { not_started, converted, skipped, failed, interrupted };

struct Outcome {
    Result result = Result::not_started;
    std::string why;
};

Outcome failure(std::string why) {
    return {Result::failed, std::move(why)};
}

std::string shown(const std::string& path, bool output) {
    if (path != "-") return path;
    return output ? "standard output" : "standard input";
}

std::string quoted(const std::string& path) {
    return path == "-" ? shown(path, true) : "'" + path + "'";
}

#ifdef _WIN32
std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}
#endif

std::string format(const char* pattern, double a, double b = 0.0) {
    char text[64];
    std::snprintf(text, sizeof text, pattern, a, b);
    return text;
}

const char* channel_words(int channels) {
    return channels == 1 ? "mono" : "stereo";
}

// "MPEG-1 Layer III, 44100 Hz, joint stereo, 128 kbit/s, 1378 frames, 36.00 s".
std::string describe_mp3(const kavolib::StreamScan& s, size_t input_size) {
    if (s.frame_count == 0) return "no MPEG audio frames";
    static const char* const kModes[] = {"stereo", "joint stereo", "dual channel", "mono"};
    static const char* const kLayers[] = {"", "I", "II", "III"};
    std::string text = s.version == 3 ? "MPEG-1" : s.version == 2 ? "MPEG-2" : "MPEG-2.5";
    text += std::string(" Layer ") + kLayers[s.layer & 3] + ", " + std::to_string(s.sample_rate) +
            " Hz, " + kModes[s.mode & 3] + ", ";
    const double average = s.duration_seconds > 0
                               ? static_cast<double>(input_size) * 8.0 / s.duration_seconds / 1000.0
                               : 0;
    if (s.free_format) {
        text += format("free format (about %.0f kbit/s)", average);
    } else if (std::fabs(average - s.bitrate_kbps) > 0.1 * s.bitrate_kbps) {
        text += format("%.0f kbit/s at the start, about %.0f on average", s.bitrate_kbps, average);
    } else {
        text += std::to_string(s.bitrate_kbps) + " kbit/s";
    }
    text +=
        ", " + std::to_string(s.frame_count) + " frames, " + format("%.2f s", s.duration_seconds);
    if (s.last_rate != s.sample_rate || s.last_channels != s.channels) {
        text +=
            "; decoded as " + std::to_string(s.last_rate) + " Hz " + channel_words(s.last_channels);
    }
    if (s.has_layer12)
        text += "; a Layer " + std::string(kLayers[s.layer12_layer & 3]) + " frame follows";
    return text;
}

std::string describe_wav(const kavolib::WavInfo& w) {
    return std::string(kavolib::wav_encoding_name(w.encoding)) + " WAV, " + std::to_string(w.rate) +
           " Hz, " + channel_words(w.channels) + ", " + std::to_string(w.frames) + " frames, " +
           format("%.2f s", static_cast<double>(w.frames) / w.rate);
}

// "1,204": the digits in groups of three.
std::string grouped(long long n) {
    const std::string digits = std::to_string(n < 0 ? -n : n);
    std::string text = n < 0 ? "-" : "";
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) text += ',';
        text += digits[i];
    }
    return text;
}

// A gain as short as it can be written and still read back as the same float, with a decimal
// point: "4.0", "0.5", "1.4142135".
std::string gain_text(float gain) {
    char text[32];
    for (int digits = 1; digits <= 9; ++digits) {
        std::snprintf(text, sizeof text, "%.*g", digits, static_cast<double>(gain));
        if (std::strtof(text, nullptr) == gain) break;
    }
    std::string shown = text;
    if (shown.find_first_of(".e") == std::string::npos) shown += ".0";
    return shown;
}

// The largest safe gain to three significant digits, rounded down so that the gain shown
// wraps nothing either: 1.4629 is "1.46".
std::string safe_gain_text(double gain) {
    if (!(gain > 0) || gain > 1e30) return "unlimited";
    const int exponent = static_cast<int>(std::floor(std::log10(gain)));
    const double scale = std::pow(10.0, 2 - exponent);
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", std::max(0, 2 - exponent), std::floor(gain * scale) / scale);
    return text;
}

// What -v adds after the conversion: what was read, and the level before the gain.
std::vector<std::string> report_lines(const std::string& name, const kavo_report& r, bool gapless) {
    std::string read = name + ": read " + grouped(r.input_frames) + " sample frames at " +
                       std::to_string(r.sample_rate) + " Hz " + channel_words(r.channels) +
                       format(" (%.2f s)", r.input_seconds);
    if (r.input_kind == KAVO_INPUT_MP3) read += " from " + grouped(r.mp3_frames) + " MP3 frames";
    if (r.format_changed != 0) read += "; the stream changed rate or channels on the way";
    if (gapless) {
        read += r.gapless_applied != 0 ? "; the encoder's delay and padding left out"
                                       : "; no encoder's header, nothing left out";
    }
    std::string level = name + ": 8000 Hz samples from " + std::to_string(r.lowest) + " to " +
                        std::to_string(r.highest) + " before the gain; the largest gain that "
                        "wraps none is " + safe_gain_text(r.max_gain) +
                        format("; %.2f s written", r.output_seconds);
    std::vector<std::string> lines{read, level};
    if (r.speech != 0) {
        lines.push_back(name + format(": speech level %.1f dBov before the gain, active %.0f %%",
                                      r.level, r.activity * 100.0));
    } else {
        lines.push_back(name + ": no speech level (nothing active)");
    }
    return lines;
}

// What a target chose, when it could not do what was asked: the input is silent, no speech
// was found, or the gain asked for wraps samples. Empty when the target was reached.
std::string target_line(const std::string& name, const ConvertOptions& options,
                        const kavo_report& r) {
    const bool silent = r.highest == 0 && r.lowest == 0;
    if (options.target == KAVO_TARGET_LEVEL) {
        if (r.speech == 0) return name + ": no speech found to measure a level on; gain 1.0";
        if (r.gain_capped == 0) return {};
        const double asked = std::pow(10.0, (options.target_db - r.level) / 20.0);
        return name + format(": %.1f dBov needs gain %.3g, which wraps samples; ",
                             options.target_db, asked) +
               "the largest gain that wraps none, " + gain_text(static_cast<float>(r.gain)) +
               format(", reaches %.1f dBov", r.level_reached);
    }
    if (silent) return name + ": silent: no peak to bring up; gain 1.0";
    if (r.gain_capped == 0) return {};
    return name + ": the gain asked for wraps samples; the largest gain that wraps none, " +
           gain_text(static_cast<float>(r.gain)) + ", is used";
}

// What the engine's callbacks reach: the output, the console, and why writing failed.
struct JobContext {
    Console& console;
    size_t index;
    kavolib::OutputTarget& output;
    std::string write_error;
    unsigned long long bytes = 0;
};

int write_output(void* user, const void* bytes, size_t size) {
    auto& c = *static_cast<JobContext*>(user);
    if (interrupted()) return 1;
    if (!c.output.write(bytes, size, c.write_error)) return 1;
    c.bytes += size;
    return 0;
}

void show_progress(void* user, int percent) {
    auto& c = *static_cast<JobContext*>(user);
    c.console.progress(c.index, percent);
}

Outcome convert_job(const Job& job, const ConvertOptions& options, Console& console, size_t index) {
    const bool to_stdout = job.output == "-";
    const std::string out = quoted(job.output);
    if (!to_stdout) {
        if (job.input != "-" && kavolib::same_file(job.input, job.output)) {
            return failure("the output " + out + " would replace the input");
        }
        if (options.no_clobber && kavolib::output_exists(job.output)) return {Result::skipped, {}};
    }
    InputFile input;
    std::string why;
    if (!input.open(job.input, why)) {
        return interrupted() ? Outcome{Result::interrupted, {}} : failure(why);
    }
    const kavolib::InputLayout layout = kavolib::find_layout(input.reader());
    const bool is_wav = layout.kind == kavolib::InputKind::wav;
    if (!accepted(input, layout, why)) return failure(why);
    if (options.verbose) {
        console.info(shown(job.input, false) + ": " +
                     (is_wav ? describe_wav(layout.wav)
                             : describe_mp3(input.scan(layout), static_cast<size_t>(layout.end - layout.begin))));
        if (!layout.skipped.empty()) {
            console.info(shown(job.input, false) + ": skipped " +
                         kavolib::describe_skipped(layout.skipped));
        }
    }

    kavolib::OutputTarget output;
    if (!output.open(job.output, true, why)) return failure("cannot write " + out + ": " + why);
    JobContext context{console, index, output, {}};
    char message[256] = "";
    kavo_report report = KAVO_REPORT_INIT;
    kavolib::EngineInput engine_input = input.engine_input();
    kavo_settings settings = kavolib::settings_with_gain(options.gain);
    settings.target = options.target;
    settings.target_db = options.target_db;
    settings.gapless = options.gapless ? 1 : 0;
    const int status = kavolib::run_engine(engine_input, settings, write_output, show_progress,
                                           &context, &report, message, sizeof message);
    if (status == KAVO_ERROR_STOPPED && interrupted()) return {Result::interrupted, {}};
    if (!input.unchanged(why)) return failure(why);
    if (!context.write_error.empty())
        return failure("cannot write " + out + ": " + context.write_error);
    if (status != KAVO_OK) {
        return failure(failure_text(job.input, input, layout, status, message));
    }
    bool exists = false;
    if (!output.commit(!options.no_clobber, exists, why)) {
        // With -n, an output that appeared while this one was made is kept, and this one goes.
        if (exists) return {Result::skipped, {}};
        return failure("cannot write " + out + ": " + why);
    }
    const std::string name = shown(job.input, false);
    if (options.verbose) {
        for (const std::string& line : report_lines(name, report, options.gapless)) console.info(line);
    }
    if (report.wrapped > 0) {
        std::string safe = options.gain < 0 ? "-" : "";
        safe += safe_gain_text(options.gain < 0 ? -kavolib::largest_negative_gain(report)
                                                : report.max_gain);
        console.warning(name + ": " + grouped(report.wrapped) +
                        (report.wrapped == 1 ? " sample" : " samples") + " wrapped at gain " +
                        gain_text(options.gain) + " (the " +
                        (options.gain < 0 ? "negative gain of largest magnitude" : "largest gain") +
                        " that wraps none is " + safe + ")");
    }
    std::string chosen;
    if (options.target != KAVO_TARGET_NONE) {
        const std::string warning = target_line(name, options, report);
        if (!warning.empty()) console.warning(warning);
        chosen = ", gain " + gain_text(static_cast<float>(report.gain));
        if (report.speech != 0) chosen += format(", speech level %.1f dBov", report.level_reached);
    }
    // 4000 bytes of codes per second of 8000 Hz audio.
    console.info("wrote " + out + ": " + std::to_string(context.bytes) + " bytes, " +
                 format("%.2f s", static_cast<double>(context.bytes) / 4000.0) + chosen);
    return {Result::converted, {}};
}

// The jobs of the command line, or a usage error. Two inputs that would give one output name
// are refused here, before anything is written.
bool plan(const ConvertOptions& options, std::vector<Job>& jobs, std::string& error) {
    const auto& files = options.files;
    if (options.out_dir.empty()) {
        if (files.size() != 2) {
            error = files.size() < 2
                        ? "an output is needed: kavo convert IN OUT, or kavo convert IN... -o DIR"
                        : "several inputs need an output directory: kavo convert IN... -o DIR";
            return false;
        }
        std::error_code ignored;
        if (files[1] != "-" && fs::is_directory(files[1], ignored)) {
            error = "'" + files[1] + "' is a directory (to convert into it: -o " + files[1] + ")";
            return false;
        }
        // Two audio files (a glob that matched two) are two inputs, not an input and an output.
        std::string audio = files[1] == "-" ? "" : audio_content(files[1]);
        if (!audio.empty()) audio = "is " + audio;
        if (audio.empty() && files[1] != "-" && audio_name(files[1]))
            audio = "has the name of an audio file";
        if (!audio.empty()) {
            const std::string stem = fs::path(files[0]).stem().string();
            error = "'" + files[1] + "' " + audio +
                    ", not an ADPCM output; nothing was converted (to convert both: -o DIR; to "
                    "convert one: kavo convert " + files[0] + " " +
                    (stem.empty() || files[0] == "-" ? "OUT" : stem) + ".adpcm)";
            return false;
        }
        jobs.push_back({files[0], files[1]});
        return true;
    }
    if (options.out_dir == "-") {
        error = "-o takes a directory; for standard output: kavo convert IN -";
        return false;
    }
    std::map<std::string, std::string> claimed;  // output name -> the input that claims it
    for (const std::string& input : files) {
        const fs::path name = fs::path(input).filename();
        if (input == "-" || name.empty() || name == "." || name == "..") {
            error = input == "-" ? "standard input has no name to give its output in a directory: "
                                   "kavo convert - OUT"
                                 : "'" + input + "' names no file";
            return false;
        }
        std::string output = (fs::path(options.out_dir) / name.stem()).string() + ".adpcm";
#ifdef _WIN32
        const std::string key = lower(output);  // names that differ in case only are one file
#else
        const std::string& key = output;
#endif
        const auto [it, fresh] = claimed.emplace(key, input);
        if (!fresh) {
            error = "'" + it->second + "' and '" + input + "' would both be written to '" + output +
                    "'; nothing was converted";
            return false;
        }
        jobs.push_back({input, std::move(output)});
    }
    return true;
}

// Makes the output directory when missing and checks that files can be made in it, so that
// a directory that cannot be used is told once, before any conversion starts.
bool usable_directory(const std::string& dir) {
    std::error_code made;
    fs::create_directories(dir, made);
    std::string why = made ? made.message() : "";
    if (why.empty() && !fs::is_directory(dir, made)) why = "a file of that name exists";
    if (why.empty() && writable_directory(dir, why)) return true;
    std::fprintf(stderr, "kavo: cannot write in the directory '%s': %s\n", dir.c_str(), why.c_str());
    return false;
}

}  // namespace

int cmd_convert(const ConvertOptions& options) {
    std::vector<Job> jobs;
    std::string error;
    if (!std::isfinite(options.gain)) error = "the gain must be a finite number";
    if (error.empty()) plan(options, jobs, error);
    if (error.empty() && jobs.size() == 1 && jobs[0].output == "-" && is_terminal(1)) {
        error =
            "ADPCM is not written to a terminal: redirect standard output or name an output file";
    }
    if (!error.empty()) {
        std::fprintf(stderr, "kavo: %s\n", error.c_str());
        return kExitUsage;
    }
    if (!options.out_dir.empty() && !usable_directory(options.out_dir)) return kExitFailed;
    if (jobs[0].output == "-") make_stdout_binary();
    install_interrupt_handlers();

    Console console(options.quiet, jobs.size());
    if (options.gain == 0.0f) console.warning("gain 0: the output is silence");
    std::vector<Outcome> outcomes(jobs.size());
    std::atomic<size_t> next{0};
    auto work = [&]() {
        for (size_t i; !interrupted() && (i = next.fetch_add(1)) < jobs.size();) {
            outcomes[i] = convert_job(jobs[i], options, console, i);
            console.done(i);
            if (outcomes[i].result == Result::failed) {
                console.error(shown(jobs[i].input, false) + ": " + outcomes[i].why);
            }
        }
    };
    unsigned threads =
        options.jobs != 0 ? options.jobs : std::max(1u, std::thread::hardware_concurrency());
    threads = static_cast<unsigned>(std::min<size_t>(threads, jobs.size()));
    if (threads <= 1) {
        work();
    } else {
        std::vector<std::thread> pool;
        block_interrupts(true);  // the handler then runs on this thread alone
        for (unsigned t = 0; t < threads; ++t) pool.emplace_back(work);
        block_interrupts(false);
        for (std::thread& thread : pool) thread.join();
    }
    console.finish();

    if (interrupted()) {
        console.error("interrupted");
        end_interrupted();
    }
    size_t converted = 0;
    size_t skipped = 0;
    size_t failed = 0;
    for (const Outcome& outcome : outcomes) {
        converted += outcome.result == Result::converted;
        skipped += outcome.result == Result::skipped;
        failed += outcome.result == Result::failed;
    }
    for (size_t i = 0; options.verbose && i < jobs.size(); ++i) {
        if (outcomes[i].result == Result::skipped)
            console.info("skipped '" + jobs[i].output + "': already there");
    }
    // One line of counts after a batch or a skip; each failure was told as it came, so the
    // closing line only names the failed inputs again.
    if (jobs.size() > 1 || skipped > 0) {
        std::string summary = "converted " + std::to_string(converted);
        if (options.no_clobber) summary += ", skipped " + std::to_string(skipped) + " (already there)";
        summary += ", " + std::to_string(failed) + " failed";
        const char* separator = ": ";
        for (size_t i = 0; i < jobs.size(); ++i) {
            if (outcomes[i].result != Result::failed) continue;
            summary += separator + (jobs[i].input == "-" ? shown(jobs[i].input, false)
                                                          : "'" + jobs[i].input + "'");
            separator = ", ";
        }
        console.info(summary);
    }
    return failed == 0 ? kExitOk : kExitFailed;
}

}  // namespace kavocli
