// kavo decode IN OUT: the decode phase alone, MP3 to 16-bit PCM in the form OUT's name selects
// (".pcm" raw, ".wav" WAV, ".txt" hexadecimal text). It runs in a private working directory in
// a child process, so a failure leaves OUT untouched and no temporary file behind. With
// --gapless the decoded file is then cut to the samples the encoder's header asks for.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>

#include "commands.h"
#include "engine/stream_scan.h"
#include "entry/decode_loop.h"
#include "pcmout/pcm_output.h"
#include "platform/wav_header.h"
#include "workdir.h"

namespace kavocli {

namespace {

size_t read_stream(void* file, uint8_t* dst, size_t n) {
    return std::fread(dst, 1, n, static_cast<std::FILE*>(file));
}

// Cuts the decoded file name (in the current directory) as kavo convert --gapless reads the
// same decode: the header frame's values, then the skipped frames go, the kept frames stay.
// Every form holds the same number of bytes per value behind its header (a WAV header is
// written anew for the new length). False, with a line printed, when a file fails.
bool cut_to_gapless(const std::string& input, const std::string& name) {
    std::FILE* in = std::fopen(input.c_str(), "rb");
    if (in == nullptr) return false;
    kavolib::ByteSource source{read_stream, in};
    const kavolib::StreamScan scan = kavolib::scan_stream(source);
    std::fclose(in);
    const kavolib::GaplessPlan plan = kavolib::plan_gapless(scan);
    if (!plan.applies) return true;

    std::error_code error;
    const auto size = static_cast<int64_t>(std::filesystem::file_size(name, error));
    const bool wav = kavolib::choose_output_form(name.c_str()) == kavolib::OutputForm::wav;
    const int64_t head = wav ? kavolib::kWavHeaderSize : 0;
    if (error || scan.pcm_values < 1 || size < head) return false;
    const int64_t unit = (size - head) / scan.pcm_values;
    const int64_t from = head + unit * (plan.header_values + plan.skip_frames * scan.last_channels);
    int64_t left = unit * plan.keep_frames * scan.last_channels;
    const std::string cut = name + ".cut";
    std::FILE* src = std::fopen(name.c_str(), "rb");
    std::FILE* dst = std::fopen(cut.c_str(), "wb");
    bool ok = src != nullptr && dst != nullptr;
    if (ok && wav) {
        uint8_t header[kavolib::kWavHeaderSize];
        kavolib::make_wav_header(header, static_cast<uint32_t>(head + left), scan.last_channels,
                                 scan.last_rate);
        ok = std::fwrite(header, 1, sizeof header, dst) == sizeof header;
    }
    ok = ok && std::fseek(src, static_cast<long>(from), SEEK_SET) == 0;
    char block[1 << 16];
    while (ok && left > 0) {
        const size_t n =
            std::fread(block, 1, static_cast<size_t>(std::min<int64_t>(left, sizeof block)), src);
        ok = n > 0 && std::fwrite(block, 1, n, dst) == n;
        left -= static_cast<int64_t>(n);
    }
    if (src != nullptr) std::fclose(src);
    if (dst != nullptr) ok = std::fclose(dst) == 0 && ok;
    ok = ok && std::rename(cut.c_str(), name.c_str()) == 0;
    if (!ok) std::fprintf(stderr, "kavo: the decoded file could not be cut\n");
    return ok;
}

}  // namespace

int cmd_decode(const std::string& in, const std::string& out, bool quiet, bool gapless) {
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
        return gapless && !cut_to_gapless(input, name) ? 1 : 0;
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
