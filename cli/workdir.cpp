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
    std::string pattern = std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") +
                          "/kavo-XXXXXX";
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

}  // namespace kavocli
