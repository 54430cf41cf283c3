// The kavo command's contract, through the built program in temporary directories: usage
// errors, what one conversion says and leaves behind, batches with failing inputs and reruns,
// pipes, interrupts, and outputs of every kind (with kavo_convert_file beside the command);
// every output compared with kavo()'s. (WAV prompts against the stage commands: container_test.)
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <numeric>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "audio.h"
#include "kavo/kavo.h"
#include "process.h"

namespace {

using namespace kavotest;
using Names = std::vector<std::string>;

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// kavo()'s own output for an input (empty when kavo() refuses it and ends its process).
std::string library_output(const std::string& mp3, const std::string& gain) {
    TempDir host;
    write_file(host.file("in.mp3"), mp3);
    const auto run = run_host({"in.mp3", "lib.adpcm", gain}, host.path());
    return run.exit_code == 0 ? read_file(host.file("lib.adpcm")) : std::string();
}

// Every usage error exits with 2 before anything is written or made.
TEST(Cli, UsageErrorsExitWithTwoAndTouchNothing) {
    TempDir dir;
    write_file(dir.file("a.mp3"), fixture_bytes("tone_m1_44k_mono.mp3"));
    std::filesystem::create_directory(dir.file("sub"));
    write_file(dir.file("sub/a.mp3"), fixture_bytes("tone_m1_44k_mono.mp3"));
    // The arguments and a part of standard error ("" where CLI11 words it).
    const std::pair<Names, const char*> cases[] = {
        {{}, "kavo: "},
        {{"frobnicate"}, "kavo: "},
        {{"convert", "a.mp3"}, "kavo: an output is needed"},
        {{"convert", "a.mp3", "sub/a.mp3", "b.adpcm"}, "kavo: several inputs need an output directory"},
        {{"convert", "a.mp3", "out.adpcm", "--gain", "loud"}, "kavo: --gain loud: not a number\n"},
        {{"convert", "a.mp3", "out.adpcm", "--gain", "nan"}, "kavo: --gain nan: not a finite number\n"},
        {{"convert", "a.mp3", "-o", "out", "-j", "abc"}, "kavo: -j abc: not a number\n"},
        {{"convert", "a.mp3", "out.adpcm", "--gain", "max", "--level", "-26"},
         "kavo: --gain, --peak and --level exclude each other\n"},
        {{"convert", "a.mp3", "out.adpcm", "--peak", "0.5"},
         "kavo: --peak 0.5: a peak is at most 0 dB (full scale)\n"},
        {{"convert", "a.mp3", "out.adpcm", "--level", "loud"}, "kavo: --level loud: not a number\n"},
        {{"convert", "-q", "-v", "a.mp3", "out.adpcm"}, "kavo: --quiet excludes --verbose"},
        {{"convert", "a.mp3", "sub/a.mp3"}, "kavo: 'sub/a.mp3' is an MP3 file, not an ADPCM output"},
        {{"convert", "a.mp3", "b.Wave"}, "kavo: 'b.Wave' has the name of an audio file"},
        {{"expand", "a.mp3", "x.wav"}, "kavo: a.mp3: an MP3 file, not ADPCM codes"},
        {{"convert", "-", "-o", "out"}, "kavo: standard input has no name"},
        {{"convert", "a.mp3", "sub/a.mp3", "-o", "out"},
         "kavo: 'a.mp3' and 'sub/a.mp3' would both be written to 'out/a.adpcm'; nothing was converted"},
        {{"convert", "a.mp3", "sub"}, "kavo: 'sub' is a directory (to convert into it: -o sub)"},
    };
    for (const auto& [args, says] : cases) {
        const auto run = run_kavo(args, dir.path());
        EXPECT_EQ(run.exit_code, 2) << says;
        EXPECT_TRUE(run.err.starts_with(says)) << run.err;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
        EXPECT_EQ(dir.entries(), (Names{"a.mp3", "sub"}));
    }
}

// One file: what is said, the exit status, what the directory holds afterwards, and the output,
// kavo()'s at the gain the case names. The wrap line comes when, and only when, the gain wraps
// a sample: at the largest gain that wraps none there is none, one float above it there is; -q
// silences it, the output is written either way, and a gain of 0 is named. --level and --gain
// max name the gain (printed so that it reads back as the same float) and what was reached, or
// why the gain stayed at 1.0, or that the target was out of reach without wrapping. A stream
// that changes rate is described by its first frame, and says how it is decoded.
TEST(CliConvert, OneFileTalksLikeACommandLineTool) {
    const std::string speech = "speech_mono_22k.mp3", silence = "silence_m25_8k_mono.mp3";
    std::string wide_wav = wav_bytes(sine(100, 700, 22050, 9000), 1, 22050);
    wide_wav[22] = 3;  // channels
    char above[32];  // one float above the largest gain that wraps none, 1.1896533
    std::snprintf(above, sizeof above, "%.9g", static_cast<double>(std::nextafter(1.1896533f, 2.0f)));
    const std::string wrote = "wrote 'out.adpcm': 15360 bytes, 3.84 s", quiet = "wrote 'out.adpcm': 4560 bytes, 1.14 s, gain 1.0\n";
    const std::string none = " (the largest gain that wraps none is 1.18)\n" + wrote + "\n";
    // The fixture, the arguments after "convert", the whole of standard error, and the gain of
    // the output; a failure has none (status 1, old.adpcm kept), else old.adpcm is replaced
    // when named.
    const struct {
        std::string mp3;
        Names args;
        std::string err, gain;
    } cases[] = {
        {speech, {"in.mp3", "out.adpcm"}, wrote + "\n", "1.0"},
        {speech, {"-q", "in.mp3", "out.adpcm"}, "", "1.0"},
        {speech, {"-v", "in.mp3", "out.adpcm"},
         "in.mp3: MPEG-2 Layer III, 22050 Hz, mono, 32 kbit/s, 147 frames, 3.84 s\n"
         "in.mp3: read 84,672 sample frames at 22050 Hz mono (3.84 s) from 147 MP3 frames\n"
         "in.mp3: 8000 Hz samples from -27545 to 27266 before the gain; the largest gain that "
         "wraps none is 1.18; 3.84 s written\nin.mp3: speech level -21.2 dBov before the gain, "
         "active 86 %\n" + wrote + "\n", "1.0"},
        {speech, {"in.mp3", "old.adpcm"}, "wrote 'old.adpcm': 15360 bytes, 3.84 s\n", "1.0"},
        {speech, {"-q", "in.mp2", "old.adpcm"},
         "kavo: in.mp2: a Layer II frame at byte 0: only MPEG audio Layer III is converted\n", ""},
        {speech, {"nothing.mp3", "old.adpcm"}, "kavo: nothing.mp3: No such file or directory\n", ""},
        {speech, {"empty.mp3", "old.adpcm"}, "kavo: empty.mp3: no MPEG audio Layer III frames found\n", ""},
        {speech, {"song.flac", "old.adpcm"}, "kavo: song.flac: not an MP3 or WAV file\n", ""},
        {speech, {"wide.wav", "old.adpcm"},
         "kavo: wide.wav: a WAV file of 3 channels; WAV converts when it holds 8, 16, 24 or 32-bit "
         "PCM, 32-bit float, mu-law or A-law, mono or stereo, 8000 to 48000 Hz, or MPEG audio "
         "Layer III\n", ""},
        {speech, {"in.mp3", "out.adpcm", "--gain", "1.1896533"}, wrote + "\n", "1.1896533"},
        {speech, {"in.mp3", "out.adpcm", "--gain", above},
         "kavo: in.mp3: 1 sample wrapped at gain " + std::string(above) + none, above},
        {speech, {"in.mp3", "out.adpcm", "--gain", "4"}, "kavo: in.mp3: 722 samples wrapped at gain 4.0" + none, "4"},
        {speech, {"in.mp3", "out.adpcm", "--gain", "4", "-q"}, "", "4"},
        {speech, {"in.mp3", "out.adpcm", "--gain", "-1.25"},
         "kavo: in.mp3: 2 samples wrapped at gain -1.25 (the negative gain of largest magnitude that "
         "wraps none is -1.18)\n" + wrote + "\n", "-1.25"},
        {speech, {"in.mp3", "out.adpcm", "--gain", "0"}, "kavo: gain 0: the output is silence\n" + wrote + "\n", "0"},
        {speech, {"in.mp3", "out.adpcm", "--level", "-26"}, wrote + ", gain 0.5770771, speech level -26.0 dBov\n", "0.5770771"},
        {speech, {"in.mp3", "out.adpcm", "--level", "-3"},
         "kavo: in.mp3: -3.0 dBov needs gain 8.15, which wraps samples; the largest gain that "
         "wraps none, 1.1896533, reaches -19.7 dBov\n" + wrote + ", gain 1.1896533, speech level -19.7 dBov\n", "1.1896533"},
        {silence, {"in.mp3", "out.adpcm", "--level", "-26"},
         "kavo: in.mp3: no speech found to measure a level on; gain 1.0\n" + quiet, "1.0"},
        {silence, {"in.mp3", "out.adpcm", "--gain", "max"}, "kavo: in.mp3: silent: no peak to bring up; gain 1.0\n" + quiet, "1.0"},
        {"corner_44k_then_48k.mp3", {"-v", "in.mp3", "out.adpcm"},
         "in.mp3: MPEG-1 Layer III, 44100 Hz, mono, 64 kbit/s, 24 frames, 0.58 s; decoded as 48000 "
         "Hz mono\nin.mp3: read 27,648 sample frames at 48000 Hz mono (0.58 s) from 24 MP3 frames; "
         "the stream changed rate or channels on the way\nin.mp3: 8000 Hz samples from -21549 to "
         "22177 before the gain; the largest gain that wraps none is 1.47; 0.56 s written\nin.mp3: "
         "speech level -9.8 dBov before the gain, active 90 %\nwrote 'out.adpcm': 2240 bytes, 0.56 s\n", "1.0"},
    };
    for (const auto& c : cases) {
        TempDir dir;
        write_file(dir.file("in.mp3"), fixture_bytes(c.mp3));
        write_file(dir.file("in.mp2"), fixture_bytes("layer2_m1_44k_stereo.mp2"));
        write_file(dir.file("empty.mp3"), fixture_bytes("empty.mp3"));
        write_file(dir.file("song.flac"), "fLaC" + fixture_bytes(c.mp3));
        write_file(dir.file("wide.wav"), wide_wav);
        write_file(dir.file("old.adpcm"), "keep me");
        Names expected = dir.entries();
        Names args = {"convert"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const auto run = run_kavo(args, dir.path());
        const bool fails = c.gain.empty();
        const bool replaced = !fails && std::count(c.args.begin(), c.args.end(), "old.adpcm") == 1;
        const std::string converted = fails ? "" : library_output(fixture_bytes(c.mp3), c.gain);
        SCOPED_TRACE(c.mp3 + ": " + std::accumulate(c.args.begin(), c.args.end(), std::string("convert"),
                                                    [](const std::string& a, const std::string& b) { return a + " " + b; }));
        EXPECT_EQ(run.exit_code, fails ? 1 : 0);
        EXPECT_EQ(run.err, c.err);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(read_file(dir.file("old.adpcm")), replaced ? converted : "keep me");
        if (!fails && !replaced) {
            EXPECT_FALSE(converted.empty());
            EXPECT_EQ(read_file(dir.file("out.adpcm")), converted);
            expected.push_back("out.adpcm");
            std::sort(expected.begin(), expected.end());
        }
        EXPECT_EQ(dir.entries(), expected) << "nothing else may be left behind";
    }
}

// Every fixture in one batch on two threads at gain 0.5: each output equals kavo()'s for that
// file (for the two ID3v2 fixtures, a tag in front of tone_m1_44k_mono.mp3, kavo()'s for that
// file: the tag is not audio), the inputs kavo() refuses fail alone, and the summary names them.
TEST(CliConvert, BatchEqualsTheLibraryFileByFileAndNamesItsFailures) {
    TempDir dir;
    Names args = {"convert", "-j", "2", "--gain", "0.5", "-o", "out"};
    std::vector<std::pair<std::string, std::string>> expected;  // name, kavo()'s output
    for (const auto& entry : std::filesystem::directory_iterator(KAVO_FIXTURES_DIR)) {
        const std::string name = entry.path().filename().string();
        const std::string ext = entry.path().extension().string();
        if (ext != ".mp3" && ext != ".mp2" && ext != ".mp1") continue;
        write_file(dir.file(name), read_file(entry.path().string()));
        args.push_back(name);
        const std::string audio = name.starts_with("id3v2_") ? fixture_bytes("tone_m1_44k_mono.mp3")
                                                             : read_file(entry.path().string());
        expected.emplace_back(name, library_output(audio, "0.5"));
    }
    const auto run = run_kavo(args, dir.path());
    size_t failed = 0;
    Names outputs;
    for (const auto& [name, bytes] : expected) {
        const std::string stem = std::filesystem::path(name).stem().string();
        if (bytes.empty()) {
            ++failed;
            EXPECT_TRUE(has(run.err, "'" + name + "'")) << name << " is not in the summary";
            EXPECT_TRUE(has(run.err, "kavo: " + name + ": ")) << name << " failed without a word";
            EXPECT_FALSE(std::filesystem::exists(dir.file("out/" + stem + ".adpcm"))) << name;
        } else {
            outputs.push_back(stem + ".adpcm");
            EXPECT_EQ(read_file(dir.file("out/" + stem + ".adpcm")), bytes) << name;
            EXPECT_TRUE(has(run.err, "wrote 'out/" + stem + ".adpcm': ")) << name;
        }
    }
    ASSERT_GE(failed, 3u);  // empty.mp3 and the Layer I and II files at least
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_TRUE(has(run.err, "\nconverted " + std::to_string(expected.size() - failed) + ", " +
                                 std::to_string(failed) + " failed: '"))
        << run.err;
    std::sort(outputs.begin(), outputs.end());
    EXPECT_EQ(TempDir::entries_of(dir.file("out")), outputs);
}

TEST(CliConvert, StandardInputToStandardOutputThroughAPipeEqualsTheFileForm) {
    TempDir dir;
    write_file(dir.file("in.mp3"), fixture_bytes("speech_music_m1_44k_vbr.mp3"));
    ASSERT_EQ(run_kavo({"convert", "-q", "in.mp3", "file.adpcm"}, dir.path()).exit_code, 0);
    const auto piped = run_process(
        {"/bin/sh", "-c", "cat in.mp3 | '" KAVO_CLI_PATH "' convert - - | cat > piped.adpcm"},
        dir.path());
    EXPECT_EQ(piped.exit_code, 0);
    EXPECT_EQ(piped.err, "wrote standard output: 15440 bytes, 3.86 s\n");
    EXPECT_EQ(read_file(dir.file("piped.adpcm")), read_file(dir.file("file.adpcm")));
    EXPECT_EQ(dir.entries(), (Names{"file.adpcm", "in.mp3", "piped.adpcm"}));
}

// SIGINT and SIGTERM in the middle of a long conversion: the partial output goes, the older
// output stays, and the command ends as the signal would.
TEST(CliConvert, AnInterruptRemovesThePartialOutputAndKeepsTheOldOne) {
    std::string long_mp3;
    const std::string piece = fixture_bytes("tone_m1_44k_joint_notag.mp3");
    for (int i = 0; i < 400; ++i) long_mp3 += piece;  // some ten minutes
    for (const int sig : {SIGINT, SIGTERM}) {
        TempDir dir;
        write_file(dir.file("long.mp3"), long_mp3);
        write_file(dir.file("out.adpcm"), "keep me");
        const int pid = start_process({KAVO_CLI_PATH, "convert", "long.mp3", "out.adpcm"},
                                                dir.path());
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (dir.entries().size() < 3 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        ASSERT_EQ(dir.entries().size(), 3u) << "no partial output appeared";
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        kill(pid, sig);
        EXPECT_EQ(wait_process(pid), 128 + sig);
        EXPECT_EQ(dir.entries(), (Names{"long.mp3", "out.adpcm"}));
        EXPECT_EQ(read_file(dir.file("out.adpcm")), "keep me");
    }
}

// A rerun with -n leaves what is there (even when it differs), converts what is new, tells
// each failure once as it happens and names the failed inputs once in the closing line.
TEST(CliConvert, ARerunWithNoClobberSkipsWhatIsThere) {
    TempDir dir;
    for (const char* name : {"a.mp3", "b.mp3", "c.mp3"}) write_file(dir.file(name), fixture_bytes("tone_m1_44k_mono.mp3"));
    write_file(dir.file("bad.mp3"), fixture_bytes("empty.mp3"));
    ASSERT_EQ(run_kavo({"convert", "-q", "-o", "out", "a.mp3", "b.mp3"}, dir.path()).exit_code, 0);
    write_file(dir.file("out/a.adpcm"), "mine");
    const std::string bad = "kavo: bad.mp3: no MPEG audio Layer III frames found\n";
    const std::pair<Names, std::string> runs[] = {
        {{"-n", "-j", "1", "a.mp3", "b.mp3", "c.mp3", "bad.mp3"},
         "wrote 'out/c.adpcm': 6240 bytes, 1.56 s\n" + bad +
             "converted 1, skipped 2 (already there), 1 failed: 'bad.mp3'\n"},
        {{"-n", "-q", "a.mp3", "b.mp3", "bad.mp3"}, bad},
        {{"-n", "-v", "a.mp3", "b.mp3"},
         "skipped 'out/a.adpcm': already there\nskipped 'out/b.adpcm': already there\n"
         "converted 0, skipped 2 (already there), 0 failed\n"},
    };
    for (const auto& [tail, err] : runs) {
        Names args = {"convert", "-o", "out"};
        args.insert(args.end(), tail.begin(), tail.end());
        const auto run = run_kavo(args, dir.path());
        EXPECT_EQ(run.exit_code, has(err, "bad.mp3") ? 1 : 0) << err;
        EXPECT_EQ(run.err, err);
    }
    EXPECT_EQ(read_file(dir.file("out/a.adpcm")), "mine");
    EXPECT_EQ(TempDir::entries_of(dir.file("out")), (Names{"a.adpcm", "b.adpcm", "c.adpcm"}));
}

// What an output name is decides how it is written, through the command and kavo_convert_file
// alike: a file by a rename into place, a link through to its target, a FIFO, a socket or a
// device in place (of the same type and number after); a directory, the input, a full device
// and (for the command) a second MP3 are refused.
enum class Made { nothing, file, link, dangling_link, fifo, socket, null_device, full_device, directory, link_to_input, mp3 };
// The output, the command's exit status and words, kavo_convert_file's status and words.
const std::tuple<const char*, Made, int, const char*, int, const char*> kOutputCases[] = {
    {"a new name", Made::nothing, 0, "wrote ", KAVO_OK, ""},
    {"a file", Made::file, 0, "wrote ", KAVO_OK, ""},
    {"a link", Made::link, 0, "wrote ", KAVO_OK, ""},
    {"a dangling link", Made::dangling_link, 0, "wrote ", KAVO_OK, ""},
    {"a FIFO", Made::fifo, 0, "wrote ", KAVO_OK, ""},
    {"a socket", Made::socket, 0, "wrote ", KAVO_OK, ""},
    {"a device", Made::null_device, 0, "wrote ", KAVO_OK, ""},
    {"a full device", Made::full_device, 1, "No space left on device", KAVO_ERROR_WRITE, "No space left on device"},
    {"a directory", Made::directory, 2, "is a directory", KAVO_ERROR_WRITE, "Is a directory"},
    {"link to the input", Made::link_to_input, 2, "is an MP3 file", KAVO_ERROR_ARGUMENT, "is the input file"},
    {"another MP3", Made::mp3, 2, "is an MP3 file", KAVO_OK, ""},
};

// Everything that arrives on fd until its end.
std::string drain(int fd) {
    std::string got;
    char buffer[4096];
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) got.append(buffer, size_t(n));
    close(fd);
    return got;
}

TEST(Outputs, EachKindOfNameGetsWhatAUserExpects) {
    const std::string mp3 = fixture_bytes("tone_m1_44k_mono.mp3");
    const std::string converted = library_output(mp3, "1.0");
    ASSERT_EQ(converted.size(), 6240u);
    for (const auto& [name, made, exit_code, command_says, status, library_says] : kOutputCases) {
        for (const bool command : {true, false}) {
            SCOPED_TRACE(std::string(name) + (command ? ", command" : ", library"));
            TempDir dir;
            write_file(dir.file("in.mp3"), mp3);
            std::string out = dir.file("out.adpcm");
            std::string lands = out;  // where a converted file is to be found
            int reader = -1, listener = -1;  // a FIFO's or socket's reading end
            sockaddr_un address = {AF_UNIX, {}};
            switch (made) {
                case Made::file: write_file(out, "old"); break;
                case Made::mp3: write_file(out, mp3); break;
                case Made::directory: std::filesystem::create_directory(out); break;
                case Made::link_to_input: std::filesystem::create_symlink("in.mp3", out); break;
                case Made::link:
                case Made::dangling_link:
                    std::filesystem::create_directory(dir.file("sub"));
                    lands = dir.file("sub/target.adpcm");
                    if (made == Made::link) write_file(lands, "old");
                    std::filesystem::create_symlink("sub/target.adpcm", out);
                    break;
                // The reader is there before the writer comes, and the pipe or socket holds the
                // whole output; a FIFO or socket replaced by a file leaves the reader empty.
                case Made::fifo:
                    ASSERT_EQ(mkfifo(out.c_str(), 0666), 0);
                    reader = open(out.c_str(), O_RDONLY | O_NONBLOCK);
                    break;
                case Made::socket:
                    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", out.c_str());
                    listener = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
                    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
                    ASSERT_EQ(listen(listener, 1), 0);
                    break;
                case Made::null_device:
                case Made::full_device:  // a node like the system's where mknod works, else its own
                    out = made == Made::null_device ? "/dev/null" : "/dev/full";
                    if (geteuid() == 0 && mknod(dir.file("dev").c_str(), S_IFCHR | 0666,
                                                makedev(1, made == Made::null_device ? 3 : 7)) == 0)
                        out = dir.file("dev");
                    break;
                case Made::nothing: break;
            }
            struct stat before = {};
            const bool existed = lstat(out.c_str(), &before) == 0;
            char message[256] = "unset";
            ProcessResult run;
            if (command) run = run_kavo({"convert", "in.mp3", out}, dir.path());
            const int code = command ? run.exit_code
                                     : kavo_convert_file(dir.file("in.mp3").c_str(), out.c_str(), 1.0f,
                                                         nullptr, nullptr, message, sizeof message);
            const std::string said = command ? run.err : message;
            EXPECT_EQ(code, command ? exit_code : status) << said;
            const std::string says = command ? command_says : library_says;
            EXPECT_TRUE(says.empty() ? said.empty() : has(said, says)) << said;
            if (listener >= 0) reader = accept(listener, nullptr, nullptr);
            if (listener >= 0) close(listener);
            const std::string received = reader >= 0 ? drain(reader) : "";
            struct stat after = {};
            EXPECT_EQ(existed, existed && lstat(out.c_str(), &after) == 0) << "the node is gone";
            EXPECT_EQ(after.st_mode & S_IFMT, before.st_mode & S_IFMT) << "the node changed its kind";
            EXPECT_EQ(after.st_rdev, before.st_rdev);
            EXPECT_FALSE(has(said, ".part")) << said;
            EXPECT_EQ(read_file(dir.file("in.mp3")), mp3);
            for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path()))
                EXPECT_FALSE(entry.path().string().ends_with(".part")) << entry.path();
            const bool stream = made == Made::fifo || made == Made::socket;
            const bool audio = made == Made::mp3 || made == Made::link_to_input;
            const std::string old = audio ? mp3 : made == Made::file || made == Made::link ? "old" : "";
            const bool seen = made != Made::null_device && made != Made::full_device && made != Made::directory;
            EXPECT_TRUE(!seen || (stream ? received : std::filesystem::exists(lands) ? read_file(lands) : "") ==
                                     (code == 0 ? converted : old));
        }
    }
}

}  // namespace
