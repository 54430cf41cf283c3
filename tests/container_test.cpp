// What surrounds the audio: every file of tests/fixtures/tags (tags of each kind, false
// headers inside them, sizes that cannot be trusted, RIFF wrappers) converts to exactly the
// bytes of the bare clip it holds, or is refused as its table row says, through the memory
// and file calls and the command, which names what it skipped with -v and nothing without.
// And WAV input: each encoding sox writes converts like the 16-bit WAV sox makes from it, the
// 16-bit one like the mix, resample and encode stages in a row (also with chunks between fmt
// and data), with the data-size rules.
#include <gtest/gtest.h>

#include <fstream>
#include <tuple>
#include <sstream>
#include <string>
#include <vector>

#include "kavo/kavo.h"
#include "process.h"

namespace {

using namespace kavotest;

const std::string kTags = std::string(KAVO_FIXTURES_DIR) + "/tags/";

struct Row {
    std::string file, bare, skipped, refusal;  // "-" where the table has nothing
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.file; }

std::vector<Row> rows() {
    std::vector<Row> table;
    std::ifstream in(kTags + "expected.tsv");
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        Row row;
        std::getline(fields, row.file, '\t');
        std::getline(fields, row.bare, '\t');
        std::getline(fields, row.skipped, '\t');
        std::getline(fields, row.refusal, '\t');
        table.push_back(row);
    }
    return table;
}

int convert(const std::string& input, std::string& out, std::string& message,
            kavo_report* report = nullptr) {
    char text[256] = "";
    const kavo_io io{nullptr, input.data(), input.size(), nullptr, append_to, nullptr, &out};
    const int status = kavo_convert(&io, nullptr, report, text, sizeof text);
    message = text;
    return status;
}

class Surroundings : public testing::TestWithParam<Row> {};

TEST_P(Surroundings, ConvertLikeTheBareAudioAndAreNamed) {
    const Row& row = GetParam();
    const std::string path = kTags + row.file;
    std::string engine, message;
    kavo_report report = KAVO_REPORT_INIT;
    const int status = convert(read_file(path), engine, message, &report);
    // The report counts the bytes the table's items add up to.
    int64_t skipped = 0;
    std::istringstream items(row.skipped);
    for (std::string word, last; items >> word; last = word) {
        std::erase(last, ',');
        if (word.starts_with("bytes")) skipped += std::stoll(last);
    }
    EXPECT_EQ(report.skipped_bytes, skipped);
    TempDir dir;
    const auto command = run_kavo({"convert", "-v", path, dir.file("out.adpcm")});
    const std::string said = row.skipped == "-" ? "" : ": skipped " + row.skipped + "\n";
    if (said.empty()) {
        EXPECT_EQ(command.err.find(": skipped "), std::string::npos) << command.err;
    } else {
        EXPECT_NE(command.err.find(said), std::string::npos) << command.err;
    }
    if (row.refusal != "-") {
        EXPECT_EQ(status, KAVO_ERROR_FORMAT);
        EXPECT_NE(message.find(row.refusal), std::string::npos) << message;
        EXPECT_NE(command.err.find(row.refusal), std::string::npos) << command.err;
        EXPECT_EQ(command.exit_code, 1);
        return;
    }
    std::string bare;
    ASSERT_EQ(convert(read_file(kTags + row.bare), bare, message), KAVO_OK) << message;
    ASSERT_EQ(status, KAVO_OK) << message;
    EXPECT_TRUE(engine == bare);
    ASSERT_EQ(command.exit_code, 0) << command.err;
    EXPECT_TRUE(read_file(dir.file("out.adpcm")) == bare);
    char text[256];
    ASSERT_EQ(kavo_convert_file(path.c_str(), dir.file("file.adpcm").c_str(), 1.0f, nullptr,
                                nullptr, text, sizeof text),
              KAVO_OK)
        << text;
    EXPECT_TRUE(read_file(dir.file("file.adpcm")) == bare);
    // Without -v only the result line.
    const auto plain = run_kavo({"convert", path, dir.file("plain.adpcm")});
    EXPECT_EQ(plain.err.find(": skipped "), std::string::npos) << plain.err;
}

INSTANTIATE_TEST_SUITE_P(Tags, Surroundings, testing::ValuesIn(rows()),
                         [](const testing::TestParamInfo<Row>& row) { return test_name(row.param.file); });

// ---------------------------------------------------------------- WAV input

struct WavCase {
    const char* rate;
    const char* channels;
    const char* gain;  // dB: full scale and beyond saturates on the way to 16 bits
};
void PrintTo(const WavCase& c, std::ostream* os) { *os << c.rate << " Hz, " << c.channels << " ch, " << c.gain << " dB"; }

std::string convert_or_fail(const std::string& input, kavo_report* report = nullptr) {
    std::string out, message;
    const int status = convert(input, out, message, report);
    return status == KAVO_OK ? out : "failed: " + message;
}

class Wav : public testing::TestWithParam<WavCase> {};

TEST_P(Wav, EveryEncodingConvertsLikeThe16BitWavSoxMakesOfIt) {
    const WavCase& c = GetParam();
    TempDir dir;
    for (const auto& [encoding, reported] :
         {std::pair{"-e u-law", KAVO_ENCODING_MULAW}, std::pair{"-e a-law", KAVO_ENCODING_ALAW},
          std::pair{"-e unsigned -b 8", KAVO_ENCODING_PCM_U8}, std::pair{"-b 16", KAVO_ENCODING_PCM_16},
          std::pair{"-b 24", KAVO_ENCODING_PCM_24}, std::pair{"-b 32", KAVO_ENCODING_PCM_32},
          std::pair{"-e floating-point -b 32", KAVO_ENCODING_FLOAT_32}}) {
        SCOPED_TRACE(encoding);
        const std::string made = std::string("sox -R -D -n -r ") + c.rate + " -c " + c.channels +
                                 " " + encoding + " enc.wav synth 0.4 sine 200-3400 whitenoise " +
                                 "gain " + c.gain + " && sox -D enc.wav -e signed-integer -b 16 lin.wav";
        ASSERT_EQ(run_process({"/bin/sh", "-c", made}, dir.path()).exit_code, 0);
        kavo_report report = KAVO_REPORT_INIT;
        const std::string ours = convert_or_fail(read_file(dir.file("enc.wav")), &report);
        EXPECT_EQ(std::vector<int>({report.input_kind, report.encoding, report.sample_rate, report.channels}),
                  std::vector<int>({KAVO_INPUT_WAV, reported, std::stoi(c.rate), std::stoi(c.channels)}));
        EXPECT_TRUE(ours == convert_or_fail(read_file(dir.file("lin.wav"))));
        const auto command = run_kavo({"convert", "-q", "enc.wav", "cmd.adpcm"}, dir.path());
        EXPECT_EQ(command.exit_code, 0) << command.err;
        EXPECT_EQ(command.err + command.out, "") << "-q says nothing";
        EXPECT_TRUE(read_file(dir.file("cmd.adpcm")) == ours);
    }
    // The 16-bit file gives what the stages give in a row (which say nothing with -q), and so
    // it does with a LIST chunk between fmt and data.
    for (const auto& [stage, in, out] : {std::tuple{"mix", "lin.wav", "m.wav"},
                                         std::tuple{"resample", "m.wav", "r.wav"},
                                         std::tuple{"encode", "r.wav", "staged.adpcm"}}) {
        const auto run = run_kavo({stage, "-q", in, out}, dir.path());
        ASSERT_EQ(run.exit_code, 0) << stage;
        EXPECT_EQ(run.err + run.out, "") << stage;
    }
    const std::string lin = read_file(dir.file("lin.wav"));
    const std::string staged = read_file(dir.file("staged.adpcm"));
    EXPECT_TRUE(convert_or_fail(lin) == staged);
    std::string listed = lin.substr(0, 36) + std::string("LIST\4\0\0\0abcd", 12) + lin.substr(36);
    const auto riff_size = static_cast<uint32_t>(listed.size() - 8);
    listed.replace(4, 4, std::string(reinterpret_cast<const char*>(&riff_size), 4));  // little-endian host
    EXPECT_TRUE(convert_or_fail(listed) == staged);

    // Data sizes: 0xFFFFFFFF means to the end; 0 too when the RIFF size is unknown (0 or
    // 0xFFFFFFFF), else it is 0; a size beyond the end is cut to what is there. The canonical
    // header puts the RIFF size at byte 4 and the data size at byte 40.
    auto patched = [&](uint32_t riff, uint32_t data) {
        std::string bytes = lin;
        for (size_t i = 0; i < 4; ++i) {
            bytes[4 + i] = static_cast<char>(riff >> (8 * i));
            bytes[40 + i] = static_cast<char>(data >> (8 * i));
        }
        return bytes;
    };
    ASSERT_EQ(lin.substr(36, 4), "data");
    EXPECT_TRUE(convert_or_fail(patched(36, 0xFFFFFFFFu)) == staged);
    EXPECT_TRUE(convert_or_fail(patched(0, 0)) == staged);
    EXPECT_TRUE(convert_or_fail(patched(0xFFFFFFFFu, 0)) == staged);
    EXPECT_EQ(convert_or_fail(patched(36, 0)), "failed: the input is too short to convert");
    EXPECT_TRUE(convert_or_fail(patched(0x7FFFFFF0u, 0x7FFFFF00u)) == staged);
}

INSTANTIATE_TEST_SUITE_P(RatesAndLevels, Wav,
                         testing::Values(WavCase{"8000", "1", "-3"}, WavCase{"44100", "2", "0"},
                                         WavCase{"22050", "1", "-0.5"}, WavCase{"48000", "2", "-20"},
                                         WavCase{"11025", "1", "-6"}),
                         [](const testing::TestParamInfo<WavCase>& c) {
                             return std::string("rate") + c.param.rate + "_ch" + c.param.channels;
                         });

// What is not converted is refused before any output, in one line naming it.
TEST(WavRefusals, OtherFormatsAreRefusedByName) {
    TempDir dir;
    const std::pair<const char*, const char*> cases[] = {
        {"-e ima-adpcm", "a WAV file of IMA ADPCM audio; WAV converts when"},
        {"-e gsm-full-rate -r 8000 -c 1", "a WAV file of GSM 6.10 audio"},
        {"-e floating-point -b 64", "a WAV file of 64-bit float"},
        {"-c 3", "a WAV file of 3 channels"},
        {"-r 96000", "a WAV file of audio at 96000 Hz"},
    };
    for (const auto& [options, says] : cases) {
        const std::string made = std::string("sox -R -D -n -r 16000 -c 1 ") + options +
                                 " in.wav synth 0.2 sine 440";
        ASSERT_EQ(run_process({"/bin/sh", "-c", made}, dir.path()).exit_code, 0) << options;
        std::string out, message;
        EXPECT_EQ(convert(read_file(dir.file("in.wav")), out, message), KAVO_ERROR_FORMAT);
        EXPECT_NE(message.find(says), std::string::npos) << message;
        EXPECT_EQ(out, "");
    }
}

}  // namespace
