// Test inputs made with the reference encoders installed on the machine.
#include "mp3_files.h"

#include <stdexcept>

#include "process.h"

namespace kavotest {

namespace {

void run_or_throw(const std::vector<std::string>& argv) {
    const ProcessResult run = run_process(argv);
    if (run.exit_code != 0) {
        throw std::runtime_error(argv[0] + " failed: " + run.err);
    }
}

}  // namespace

std::string make_tone_wav(const std::string& dir, const std::string& name, int rate, int channels,
                          double seconds) {
    const std::string path = dir + "/" + name;
    run_or_throw({"/usr/bin/sox", "-R", "-n", "-r", std::to_string(rate), "-c",
                  std::to_string(channels), "-b", "16", path, "synth", std::to_string(seconds),
                  "sine", "200-3000", "vol", "0.5"});
    return path;
}

std::string lame_encode(const std::string& dir, const std::string& wav, const std::string& name,
                        int bitrate, const std::vector<std::string>& extra) {
    const std::string path = dir + "/" + name;
    std::vector<std::string> argv = {"/usr/bin/lame", "--quiet", "--cbr", "-b",
                                     std::to_string(bitrate)};
    argv.insert(argv.end(), extra.begin(), extra.end());
    argv.push_back(wav);
    argv.push_back(path);
    run_or_throw(argv);
    return path;
}

std::string twolame_encode(const std::string& dir, const std::string& wav, const std::string& name,
                           int bitrate, const std::string& mode) {
    const std::string path = dir + "/" + name;
    run_or_throw(
        {"/usr/bin/twolame", "--quiet", "-b", std::to_string(bitrate), "-m", mode, wav, path});
    return path;
}

std::vector<size_t> walk_frames(const std::string& bytes, size_t start) {
    // kbit/s by [lsf][layer-1][index], and Hz by [version][index].
    static const int kKbps[2][3][16] = {
        {{0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448, 0},
         {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 0},
         {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0}},
        {{0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256, 0},
         {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},
         {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0}}};
    static const int kHz[4][3] = {
        {11025, 12000, 8000}, {0, 0, 0}, {22050, 24000, 16000}, {44100, 48000, 32000}};
    std::vector<size_t> starts;
    size_t at = start;
    while (at + 4 <= bytes.size()) {
        const auto b = [&](size_t i) { return static_cast<unsigned char>(bytes[at + i]); };
        if (b(0) != 0xFF || (b(1) & 0xE0) != 0xE0) break;
        const int version = (b(1) >> 3) & 3;
        const int layer = 4 - ((b(1) >> 1) & 3);
        const int index = b(2) >> 4;
        const int freq = (b(2) >> 2) & 3;
        const int pad = (b(2) >> 1) & 1;
        if (version == 1 || layer == 4 || index == 0 || index == 15 || freq == 3) break;
        const int lsf = version == 3 ? 0 : 1;
        const long bps = kKbps[lsf][layer - 1][index] * 1000L;
        const long hz = kHz[version][freq];
        long length = 0;
        if (layer == 1)
            length = (12 * bps / hz + pad) * 4;
        else if (layer == 3 && lsf == 1)
            length = 72 * bps / hz + pad;
        else
            length = 144 * bps / hz + pad;
        if (at + static_cast<size_t>(length) > bytes.size()) break;
        starts.push_back(at);
        at += static_cast<size_t>(length);
    }
    return starts;
}

}  // namespace kavotest
