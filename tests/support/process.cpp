// Subprocesses with captured output, for tests of whole-process behaviour (exit codes,
// messages, files left behind), and the files and directories the tests work in.
#include "process.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace kavotest {

namespace fs = std::filesystem;

namespace {

// Forks argv[0] in cwd with standard output and error on the given descriptors.
pid_t spawn(const std::vector<std::string>& argv, const std::string& cwd, int out, int err) {
    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        dup2(out, 1);
        dup2(err, 2);
        for (int fd : {out, err}) {
            if (fd > 2) close(fd);
        }
        if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    return pid;
}

}  // namespace

ProcessResult run_process(const std::vector<std::string>& argv, const std::string& cwd) {
    // What the child prints goes to two unlinked temporary files, read back once it has ended.
    FILE* out = std::tmpfile();
    FILE* err = std::tmpfile();
    if (out == nullptr || err == nullptr) throw std::runtime_error("tmpfile failed");
    ProcessResult result;
    result.exit_code = wait_process(spawn(argv, cwd, fileno(out), fileno(err)));
    for (auto [file, sink] : {std::pair{out, &result.out}, std::pair{err, &result.err}}) {
        std::rewind(file);
        char buffer[65536];
        for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, file)) > 0;) sink->append(buffer, n);
        std::fclose(file);
    }
    return result;
}

int start_process(const std::vector<std::string>& argv, const std::string& cwd) {
    const int null = open("/dev/null", O_WRONLY);
    const pid_t pid = spawn(argv, cwd, null, null);
    close(null);
    return pid;
}

int wait_process(int pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

ProcessResult run_kavo(std::vector<std::string> args, const std::string& cwd) {
    args.insert(args.begin(), KAVO_CLI_PATH);
    return run_process(args, cwd);
}

ProcessResult run_host(std::vector<std::string> args, const std::string& cwd) {
    args.insert(args.begin(), KAVO_C_HOST_PATH);
    return run_process(args, cwd);
}

TempDir::TempDir() {
    std::string pattern = (fs::temp_directory_path() / "kavo-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

std::vector<std::string> TempDir::entries_of(const std::string& path) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(path)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

InDir::InDir(const std::string& dir) : old_(fs::current_path().string()) { fs::current_path(dir); }

InDir::~InDir() {
    std::error_code ignored;
    fs::current_path(old_, ignored);
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
}

std::string fixture(const std::string& name) { return std::string(KAVO_FIXTURES_DIR) + "/" + name; }

std::string fixture_bytes(const std::string& name) { return read_file(fixture(name)); }

int append_to(void* user, const void* bytes, size_t size) {
    static_cast<std::string*>(user)->append(static_cast<const char*>(bytes), size);
    return 0;
}

std::string test_name(std::string text) {
    std::replace_if(text.begin(), text.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
    return text;
}

std::string conformance_dir() {
    const char* dir = std::getenv("KAVO_CONFORMANCE_DIR");
    return dir != nullptr && dir[0] != '\0' ? dir : KAVO_CONFORMANCE_DIR;
}

bool have_conformance() {
    std::error_code error;
    return fs::is_directory(conformance_dir(), error);
}

std::string conformance(const std::string& name) { return conformance_dir() + "/" + name; }

}  // namespace kavotest
