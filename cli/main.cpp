// The kavo command: the whole MP3 to ADPCM conversion, and each stage on its own.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>

#include "commands.h"

int main(int argc, char** argv) {
    using namespace kavocli;
    CLI::App app{"kavo: MP3 (MPEG-1/2/2.5 Layer III) to 8000 Hz 32 kbit/s 4-bit ADPCM", "kavo"};
    app.set_version_flag("--version", "kavo 1.2");
    app.require_subcommand(1);
    app.fallthrough(false);

    std::string in;
    std::string out;
    float gain = 1.0f;

    auto* convert = app.add_subcommand("convert", "MP3 file to packed 4-bit ADPCM (the whole conversion)");
    convert->add_option("IN", in, "MP3 input file")->required();
    convert->add_option("OUT", out, "ADPCM output file")->required();
    convert->add_option("--gain", gain, "gain applied to the 8000 Hz samples (default 1.0)");

    auto* decode = app.add_subcommand("decode", "MP3 file to 16-bit PCM (.wav, .pcm or .txt by OUT's name)");
    decode->add_option("IN", in, "MP3 input file")->required();
    decode->add_option("OUT", out, "decoded output file")->required();

    auto* mix = app.add_subcommand("mix", "16-bit WAV to mono WAV (average of the two channels)");
    mix->add_option("IN", in, "16-bit WAV input")->required();
    mix->add_option("OUT", out, "mono WAV output")->required();

    auto* resample = app.add_subcommand("resample", "16-bit WAV to 8000 Hz WAV (windowed-sinc filter)");
    resample->add_option("IN", in, "16-bit WAV input")->required();
    resample->add_option("OUT", out, "8000 Hz WAV output")->required();

    auto* encode = app.add_subcommand("encode", "8000 Hz 16-bit WAV or raw PCM to packed 4-bit ADPCM");
    encode->add_option("IN", in, "8000 Hz 16-bit input (WAV or raw)")->required();
    encode->add_option("OUT", out, "ADPCM output file")->required();
    encode->add_option("--gain", gain, "gain applied to every sample (default 1.0)");

    auto* expand = app.add_subcommand("expand", "packed 4-bit ADPCM back to an 8000 Hz WAV for listening");
    expand->add_option("IN", in, "ADPCM input file")->required();
    expand->add_option("OUT", out, "8000 Hz 16-bit WAV output")->required();

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? kExitOk : kExitUsage;
    }

    if (*convert) return cmd_convert(in, out, gain);
    if (*decode) return cmd_decode(in, out);
    if (*mix) return cmd_mix(in, out);
    if (*resample) return cmd_resample(in, out);
    if (*encode) return cmd_encode(in, out, gain);
    if (*expand) return cmd_expand(in, out);
    return kExitUsage;
}
