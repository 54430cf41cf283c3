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
    const auto run = run_process({KAVO_CLI_PATH, "convert", "nothing.mp3", "out.adpcm"}, dir.path());
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_NE(run.err.find("cannot read 'nothing.mp3'"), std::string::npos) << run.err;
    EXPECT_TRUE(dir.entries().empty());
}
