// Child processes and private directories for the kavo command.
#include "workdir.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "engine/output_target.h"

namespace kavocli {

namespace fs = std::filesystem;

PrivateDir::PrivateDir() {
    const char* base = std::getenv("TMPDIR");
    const bool from_env = base != nullptr && base[0] != '\0';
    const std::string root = from_env ? base : "/tmp";
    std::string pattern = root + "/kavo-XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr) {
        path_ = pattern;
    } else {
        why_ = "'" + root + "'" + (from_env ? " (TMPDIR)" : "") + ": " + std::strerror(errno);
    }
}

PrivateDir::~PrivateDir() {
    if (path_.empty()) return;
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

int run_in_child(const std::string& dir, const std::function<int()>& body) {
    // Whatever is buffered now must not be written twice, once by each process.
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t pid = fork();
    if (pid < 0) return kChildFailed;
    if (pid == 0) {
        if (chdir(dir.c_str()) != 0) _exit(kChildFailed);
        std::exit(body());
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return kChildFailed;
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return kChildFailed;
}

std::string absolute_path(const std::string& path) {
    if (path.empty() || path.front() == '/') return path;
    std::error_code error;
    const fs::path here = fs::current_path(error);
    if (error) return path;
    return (here / path).string();
}

bool readable(const std::string& path, std::string& why) {
    std::error_code error;
    if (fs::is_directory(path, error)) {
        why = "is a directory";
        return false;
    }
    FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        why = std::strerror(errno);
        return false;
    }
    std::fclose(file);
    return true;
}

int run_privately(const std::string& produced, const std::string& out, bool quiet,
                  const std::function<int()>& stage,
                  const std::function<std::string(const std::string& path)>& check) {
    PrivateDir work;
    if (!work.ok()) {
        std::fprintf(stderr, "kavo: cannot create a private working directory in %s\n",
                     work.why().c_str());
        return kPrivateRunFailed;
    }
    // The stage's own lines (header lines, statistics) go to a file when quiet.
    const std::string said = work.file("messages.txt");
    const int code = run_in_child(work.path(), [&]() {
        if (quiet && (std::freopen(said.c_str(), "w", stderr) == nullptr ||
                      std::freopen(said.c_str(), "a", stdout) == nullptr)) {
            return kChildFailed;
        }
        return stage();
    });
    if (code != 0 && quiet) {
        if (FILE* kept = std::fopen(said.c_str(), "rb")) {
            char buffer[4096];
            for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, kept)) > 0;) std::fwrite(buffer, 1, n, stderr);
            std::fclose(kept);
        }
    }
    if (code != 0) return code;
    if (check) {
        const std::string wrong = check(work.file(produced));
        if (!wrong.empty()) {
            std::fprintf(stderr, "kavo: %s; '%s' was not written\n", wrong.c_str(), out.c_str());
            return kPrivateRunFailed;
        }
    }
    kavolib::OutputTarget output;
    std::string why;
    bool exists = false;
    if (!output.open(out, false, why) || !output.write_file(work.file(produced), why) ||
        !output.commit(true, exists, why)) {
        std::fprintf(stderr, "kavo: cannot write '%s': %s\n", out.c_str(), why.c_str());
        return kPrivateRunFailed;
    }
    return 0;
}

void report_not_written(const char* doing, const std::string& in, int code,
                        const std::string& out) {
    // A stage ended by a signal (a file-size limit, a memory limit) is named by its cause.
    if (code > 128 && code != kChildFailed) {
        std::fprintf(stderr, "kavo: %s: %s failed: %s; '%s' was not written\n", in.c_str(), doing,
                     strsignal(code - 128), out.c_str());
        return;
    }
    std::fprintf(stderr, "kavo: %s: %s failed (exit code %d); '%s' was not written\n", in.c_str(),
                 doing, code, out.c_str());
}

void report_written(const std::string& out, bool quiet) {
    if (quiet) return;
    std::error_code error;
    const auto size = fs::file_size(out, error);
    // A device or FIFO has no size to tell.
    if (error) {
        std::fprintf(stderr, "wrote '%s'\n", out.c_str());
    } else {
        std::fprintf(stderr, "wrote '%s': %ju bytes\n", out.c_str(), static_cast<uintmax_t>(size));
    }
}

}  // namespace kavocli
