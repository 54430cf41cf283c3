// The kavo command as a user meets it: help, version, refusals and failures with clear
// messages and exit codes, and no stray files in the user's directory.
#include <gtest/gtest.h>

#include "process.h"

using kavotest::run_process;
using kavotest::TempDir;

TEST(Cli, HelpNamesEverySubcommand) {
    const auto run = run_process({KAVO_CLI_PATH, "--help"});
    EXPECT_EQ(run.exit_code, 0);
    for (const char* name : {"convert", "decode", "mix", "resample", "encode", "expand"}) {
        EXPECT_NE(run.out.find(name), std::string::npos) << name;
    }
}

TEST(Cli, VersionAndUsageErrors) {
    const auto version = run_process({KAVO_CLI_PATH, "--version"});
    EXPECT_EQ(version.exit_code, 0);
    EXPECT_EQ(version.out, "kavo 1.2\n");

    EXPECT_EQ(run_process({KAVO_CLI_PATH}).exit_code, 2);
    EXPECT_EQ(run_process({KAVO_CLI_PATH, "frobnicate"}).exit_code, 2);
    EXPECT_EQ(run_process({KAVO_CLI_PATH, "convert", "only-one-arg"}).exit_code, 2);
    EXPECT_EQ(run_process({KAVO_CLI_PATH, "convert", "a", "b", "--gain", "loud"}).exit_code, 2);
}

TEST(CliConvert, RefusalsBecomeOneLineMessagesAndStatusTwo) {
    TempDir dir;
    kavotest::write_file(dir.file("in.mp3"), "not really an mp3");
    struct Case {
        std::vector<std::string> args;
        const char* message;
    };
    const Case cases[] = {
        {{"", "out.adpcm"}, "the input path is empty"},
        {{"in.mp3", ""}, "the output path is empty"},
        {{"in.mp3", "out.adpcm", "--gain", "-1"}, "a gain of -1.0 is not accepted"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> argv = {KAVO_CLI_PATH, "convert"};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        const auto run = run_process(argv, dir.path());
        EXPECT_EQ(run.exit_code, 2) << c.message;
        EXPECT_EQ(run.err, std::string("kavo convert: ") + c.message + "\n");
    }
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"in.mp3"});
}

TEST(CliConvert, MissingInputIsAClearFailure) {
    TempDir dir;
    const auto run =
        run_process({KAVO_CLI_PATH, "convert", "nothing.mp3", "out.adpcm"}, dir.path());
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_NE(run.err.find("cannot read 'nothing.mp3'"), std::string::npos) << run.err;
    EXPECT_TRUE(dir.entries().empty());
}

TEST(CliConvert, LeavesOnlyTheOutputAndMatchesTheLibrary) {
    TempDir dir;
    const std::string mp3 = std::string(KAVO_FIXTURES_DIR) + "/tone_m1_44k_joint.mp3";
    kavotest::write_file(dir.file("in.mp3"), kavotest::read_file(mp3));
    const auto run = run_process({KAVO_CLI_PATH, "convert", "in.mp3", "out.adpcm"}, dir.path());
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_NE(run.err.find("kavo convert: wrote 'out.adpcm'"), std::string::npos) << run.err;
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"in.mp3", "out.adpcm"}));

    // The same conversion through the C host, in the directory the library works in.
    TempDir host;
    kavotest::write_file(host.file("in.mp3"), kavotest::read_file(mp3));
    ASSERT_EQ(run_process({KAVO_C_HOST_PATH, "in.mp3", "lib.adpcm", "1.0"}, host.path()).exit_code,
              0);
    EXPECT_EQ(kavotest::read_file(dir.file("out.adpcm")),
              kavotest::read_file(host.file("lib.adpcm")));
}

TEST(CliConvert, AFailedConversionLeavesAnExistingOutputAlone) {
    TempDir dir;
    kavotest::write_file(dir.file("in.mp2"), kavotest::read_file(std::string(KAVO_FIXTURES_DIR) +
                                                                 "/layer2_m1_44k_stereo.mp2"));
    kavotest::write_file(dir.file("out.adpcm"), "keep me");
    const auto run = run_process({KAVO_CLI_PATH, "convert", "in.mp2", "out.adpcm"}, dir.path());
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_NE(run.err.find("Layer 2 no  support"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("'out.adpcm' was not written"), std::string::npos) << run.err;
    EXPECT_EQ(kavotest::read_file(dir.file("out.adpcm")), "keep me");
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"in.mp2", "out.adpcm"}));
}
