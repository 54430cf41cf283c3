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

namespace kavocli {

namespace fs = std::filesystem;

PrivateDir::PrivateDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/kavo-XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
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

std::string move_file(const std::string& from, const std::string& to) {
    std::error_code error;
    fs::rename(from, to, error);
    if (!error) return {};
    if (error != std::errc::cross_device_link) return error.message();
    error.clear();
    fs::copy_file(from, to, fs::copy_options::overwrite_existing, error);
    if (error) return error.message();
    fs::remove(from, error);
    return {};
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

int run_privately(const char* command, const std::string& produced, const std::string& out,
                  const std::function<int()>& stage,
                  const std::function<std::string(const std::string& path)>& check) {
    PrivateDir work;
    if (!work.ok()) {
        std::fprintf(stderr, "kavo %s: cannot create a private working directory\n", command);
        return kPrivateRunFailed;
    }
    const int code = run_in_child(work.path(), stage);
    if (code != 0) return code;
    if (check) {
        const std::string wrong = check(work.file(produced));
        if (!wrong.empty()) {
            std::fprintf(stderr, "kavo %s: %s; '%s' was not written\n", command, wrong.c_str(),
                         out.c_str());
            return kPrivateRunFailed;
        }
    }
    const std::string moved = move_file(work.file(produced), out);
    if (!moved.empty()) {
        std::fprintf(stderr, "kavo %s: cannot write '%s': %s\n", command, out.c_str(),
                     moved.c_str());
        return kPrivateRunFailed;
    }
    return 0;
}

void report_not_written(const char* command, const char* doing, const std::string& in, int code,
                        const std::string& out) {
    std::fprintf(stderr, "kavo %s: %s '%s' failed (exit code %d); '%s' was not written\n", command,
                 doing, in.c_str(), code, out.c_str());
}

}  // namespace kavocli
