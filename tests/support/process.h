// Test support: run a program (the kavo command, the C host, reference tools) in a chosen
// directory and capture what it prints; temporary directories that clean up after themselves.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kavotest {

struct ProcessResult {
    int exit_code = -1;  // 128 + signal when the process was killed
    std::string out;
    std::string err;
};

// Runs argv[0] with the given arguments in directory cwd (empty: the current one).
ProcessResult run_process(const std::vector<std::string>& argv, const std::string& cwd = {});
// The kavo command, and the C host (INPUT OUTPUT GAIN [USER]), in cwd.
ProcessResult run_kavo(std::vector<std::string> args, const std::string& cwd = {});
ProcessResult run_host(std::vector<std::string> args, const std::string& cwd);

// Starts argv[0] in directory cwd with its output discarded, for a test that signals it;
// returns its process id. wait_process gives its exit code, or 128 + the ending signal.
int start_process(const std::vector<std::string>& argv, const std::string& cwd);
int wait_process(int pid);

// A fresh directory under the system's temporary directory, removed on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    // Names of the entries in the directory (or in another one), sorted.
    std::vector<std::string> entries() const { return entries_of(path_); }
    static std::vector<std::string> entries_of(const std::string& path);

private:
    std::string path_;
};

// Makes dir the current directory for its lifetime (the stages write their files there).
class InDir {
public:
    explicit InDir(const std::string& dir);
    ~InDir();
    InDir(const InDir&) = delete;
    InDir& operator=(const InDir&) = delete;

private:
    std::string old_;
};

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& bytes);
std::string fixture(const std::string& name);      // path of a committed fixture
std::string fixture_bytes(const std::string& name);  // its content
// A write function for the kavo_ calls: appends the bytes to the std::string user points to.
int append_to(void* user, const void* bytes, size_t size);
// Text as a test name: every character but a letter or a digit becomes '_'.
std::string test_name(std::string text);
// The MPEG audio conformance bitstreams with their reference PCM: the folder named by the
// environment variable KAVO_CONFORMANCE_DIR, else the one the build was configured with (by
// default ../shared/conformance beside the project). Users who clone the repository alone do
// not have it: the tests that need it skip, naming the folder.
std::string conformance_dir();
bool have_conformance();
std::string conformance(const std::string& name);  // path below the conformance folder

// Skips the running test, with the reason on one line, when the conformance folder is missing.
#define KAVO_NEEDS_CONFORMANCE()                                                               \
    do {                                                                                       \
        if (!kavotest::have_conformance())                                                     \
            GTEST_SKIP() << "no conformance bitstreams in " << kavotest::conformance_dir()     \
                         << " (set KAVO_CONFORMANCE_DIR)";                                     \
    } while (false)

}  // namespace kavotest
