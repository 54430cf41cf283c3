// Input reading and safe output placement, for POSIX systems and Windows.
#include "files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "interrupt.h"

#ifdef _WIN32
#include <io.h>
#include <process.h>
#include <windows.h>
#else
#include <unistd.h>
#endif

namespace kavocli {

namespace fs = std::filesystem;

namespace {

#ifdef _WIN32
int open_exclusive(const std::string& path) {
    return _open(path.c_str(), _O_WRONLY | _O_CREAT | _O_EXCL | _O_BINARY, _S_IREAD | _S_IWRITE);
}
long long read_some(int fd, void* buffer, size_t size) {
    return _read(fd, buffer, static_cast<unsigned>(size));
}
int process_id() {
    return _getpid();
}
#else
int open_exclusive(const std::string& path) {
    return open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
}
long long read_some(int fd, void* buffer, size_t size) {
    return read(fd, buffer, size);
}
int process_id() {
    return static_cast<int>(getpid());
}
#endif

// Capitalised the way ls and cat print them ("No such file or directory").
std::string errno_text(int number) {
    return std::strerror(number);
}

std::atomic<unsigned> g_partial_counter{0};

}  // namespace

bool still_whole(int fd, const std::string& path, uintmax_t size, std::string& why) {
#ifndef _WIN32
    struct stat opened = {};
    struct stat named = {};
    if (fstat(fd, &opened) != 0) return true;
    if (stat(path.c_str(), &named) != 0 || named.st_ino != opened.st_ino ||
        named.st_dev != opened.st_dev) {
        why = "the file was removed or replaced while it was read";
        return false;
    }
    if (S_ISREG(opened.st_mode) && static_cast<uintmax_t>(opened.st_size) != size) {
        why = "the file changed size while it was read";
        return false;
    }
#else
    (void)fd;
    (void)path;
    (void)size;
    (void)why;
#endif
    return true;
}

bool read_descriptor(int fd, std::vector<uint8_t>& bytes, std::string& why) {
    uint8_t chunk[1 << 16];
    for (;;) {
        if (interrupted()) return false;
        const long long got = read_some(fd, chunk, sizeof chunk);
        if (got > 0) {
            bytes.insert(bytes.end(), chunk, chunk + got);
        } else if (got == 0) {
            return true;
        } else if (errno != EINTR) {
            why = errno_text(errno);
            return false;
        }
    }
}

bool read_whole(const std::string& path, std::vector<uint8_t>& bytes, std::string& why) {
    bytes.clear();
    why.clear();
    if (path == "-") {
#ifdef _WIN32
        _setmode(0, _O_BINARY);
#endif
        return read_descriptor(0, bytes, why);
    }
    std::error_code error;
    if (fs::is_directory(path, error)) {
        why = errno_text(EISDIR);
        return false;
    }
#ifdef _WIN32
    const int fd = _open(path.c_str(), _O_RDONLY | _O_BINARY);
#else
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
#endif
    if (fd < 0) {
        why = errno_text(errno);
        return false;
    }
    struct stat info = {};
    if (fstat(fd, &info) == 0 && info.st_size > 0) bytes.reserve(static_cast<size_t>(info.st_size));
    const bool ok = read_descriptor(fd, bytes, why) && still_whole(fd, path, bytes.size(), why);
#ifdef _WIN32
    _close(fd);
#else
    close(fd);
#endif
    return ok;
}

bool readable_size(const std::string& path, uintmax_t& size, std::string& why) {
    std::error_code error;
    if (fs::is_directory(path, error)) {
        why = errno_text(EISDIR);
        return false;
    }
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        why = errno_text(errno);
        return false;
    }
    std::fclose(file);
    size = fs::file_size(path, error);
    if (error) size = 0;
    return true;
}

bool same_file(const std::string& a, const std::string& b) {
    std::error_code error;
    return fs::equivalent(a, b, error) && !error;
}

bool file_exists(const std::string& path) {
    std::error_code error;
    return fs::exists(fs::symlink_status(path, error));
}

void make_stdout_binary() {
#ifdef _WIN32
    _setmode(_fileno(stdout), _O_BINARY);
#endif
}

bool OutputFile::create(const std::string& final_path, std::string& why) {
    discard();
    final_ = final_path;
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string name = final_path + "." + std::to_string(process_id()) + "." +
                                 std::to_string(g_partial_counter.fetch_add(1)) + ".part";
        const int fd = open_exclusive(name);
        if (fd < 0 && errno == EEXIST) continue;
        if (fd < 0) {
            why = errno_text(errno);
            return false;
        }
#ifdef _WIN32
        file_ = _fdopen(fd, "wb");
#else
        file_ = fdopen(fd, "wb");
#endif
        partial_ = name;
        if (file_ == nullptr) {
            why = errno_text(errno);
#ifdef _WIN32
            _close(fd);
#else
            close(fd);
#endif
            discard();
            return false;
        }
        std::setvbuf(file_, nullptr, _IOFBF, 1 << 16);
        return true;
    }
    why = "cannot find a free name for the partial file";
    return false;
}

bool OutputFile::reserve(const std::string& final_path, std::string& why) {
    if (!create(final_path, why)) return false;
    std::fclose(file_);
    file_ = nullptr;
    return true;
}

bool OutputFile::write(const void* bytes, size_t size, std::string& why) {
    if (std::fwrite(bytes, 1, size, file_) == size) return true;
    why = errno_text(errno);
    return false;
}

bool OutputFile::commit(bool replace, bool& exists, std::string& why) {
    exists = false;
    const bool closed = file_ == nullptr || std::fclose(file_) == 0;
    file_ = nullptr;
    if (!closed) {
        why = errno_text(errno);
        discard();
        return false;
    }
#ifdef _WIN32
    if (MoveFileExA(partial_.c_str(), final_.c_str(), replace ? MOVEFILE_REPLACE_EXISTING : 0)) {
        partial_.clear();
        return true;
    }
    const DWORD error = GetLastError();
    exists = error == ERROR_ALREADY_EXISTS || error == ERROR_FILE_EXISTS;
    why = exists ? errno_text(EEXIST)
          : error == ERROR_ACCESS_DENIED
              ? errno_text(EACCES)
              : "cannot be moved into place (error " + std::to_string(error) + ")";
#else
    if (!replace) {
        // A new link fails on an existing name, so nothing can slip in between check and move.
        if (link(partial_.c_str(), final_.c_str()) == 0) {
            unlink(partial_.c_str());
            partial_.clear();
            return true;
        }
        if (errno == EEXIST || file_exists(final_)) {
            exists = true;
            why = errno_text(EEXIST);
            discard();
            return false;
        }
        // A file system without links: the check above, then the move.
    }
    if (std::rename(partial_.c_str(), final_.c_str()) == 0) {
        partial_.clear();
        return true;
    }
    why = errno_text(errno);
#endif
    discard();
    return false;
}

void OutputFile::discard() {
    if (file_ != nullptr) std::fclose(file_);
    file_ = nullptr;
    if (!partial_.empty()) std::remove(partial_.c_str());
    partial_.clear();
}

}  // namespace kavocli
