// Outputs written by what their names are: files through a partial file beside the final name,
// streams (devices, FIFOs, sockets) in place, links followed to their targets.
#include "engine/output_target.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#ifdef _WIN32
#include <io.h>
#include <process.h>
#include <windows.h>
#else
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#endif

namespace kavolib {

namespace fs = std::filesystem;

namespace {

std::string errno_text(int number) {
    return std::strerror(number);
}

std::atomic<unsigned> g_partial_counter{0};

// The name a chain of symbolic links ends in (path itself when it is no link), each relative
// link taken from the directory that holds it. The target need not exist.
bool follow_links(const std::string& path, std::string& target, std::string& why) {
    fs::path name(path);
    for (int hops = 0; hops < 40; ++hops) {
        std::error_code error;
        if (!fs::is_symlink(fs::symlink_status(name, error))) {
            target = name.string();
            return true;
        }
        const fs::path next = fs::read_symlink(name, error);
        if (error) {
            why = error.message();
            return false;
        }
        name = next.is_absolute() ? next : name.parent_path() / next;
    }
    why = errno_text(ELOOP);
    return false;
}

#ifdef _WIN32
int create_exclusive(const std::string& path) {
    return _open(path.c_str(), _O_WRONLY | _O_CREAT | _O_EXCL | _O_BINARY, _S_IREAD | _S_IWRITE);
}
int process_id() {
    return _getpid();
}
int open_stream(const std::string& target) {
    return _open(target.c_str(), _O_WRONLY | _O_BINARY);
}
long long write_without_sigpipe(int fd, const void* bytes, size_t size) {
    return _write(fd, bytes, static_cast<unsigned>(size));
}
int close_descriptor(int fd) {
    return _close(fd);
}
#else
int close_descriptor(int fd) {
    return ::close(fd);
}
int create_exclusive(const std::string& path) {
    return ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
}
int process_id() {
    return static_cast<int>(getpid());
}

// A write to a stream whose reader has gone raises SIGPIPE, which would end the whole process
// (a library's host among them): the signal is held back on this thread for the write and a
// SIGPIPE it caused is taken away, so the failure comes back as EPIPE.
long long write_without_sigpipe(int fd, const void* bytes, size_t size) {
    sigset_t pipe_set;
    sigset_t old_mask;
    sigset_t pending;
    sigemptyset(&pipe_set);
    sigaddset(&pipe_set, SIGPIPE);
    sigpending(&pending);
    const bool was_pending = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipe_set, &old_mask);
    const long long written = ::write(fd, bytes, size);
    const int error = errno;
    if (written < 0 && error == EPIPE && !was_pending) {
        const timespec now = {0, 0};
        sigtimedwait(&pipe_set, nullptr, &now);
    }
    pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
    errno = error;
    return written;
}

// A device or FIFO opened for writing as it is (a FIFO waits for its reader), a socket
// connected to; -1 with errno set when it cannot be.
int open_stream(const std::string& target) {
    struct stat info = {};
    if (stat(target.c_str(), &info) != 0) return -1;
    if (!S_ISSOCK(info.st_mode)) return ::open(target.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (target.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(address.sun_path, target.c_str(), target.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int error = errno;
        ::close(fd);
        errno = error;
        return -1;
    }
    return fd;
}
#endif

}  // namespace

bool same_file(const std::string& a, const std::string& b) {
#ifdef _WIN32
    std::error_code error;
    return fs::equivalent(a, b, error) && !error;
#else
    struct stat first = {};
    struct stat second = {};
    return stat(a.c_str(), &first) == 0 && stat(b.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
#endif
}

bool output_exists(const std::string& path) {
    std::error_code error;
    return fs::is_regular_file(fs::status(path, error));
}

bool OutputTarget::open(const std::string& path, bool allow_stdout, std::string& why) {
    discard();
    if (allow_stdout && path == "-") {
#ifdef _WIN32
        _setmode(_fileno(stdout), _O_BINARY);
#endif
        kind_ = Kind::standard_output;
        file_ = stdout;
        return true;
    }
    if (!prepare(path, true, why)) return false;
    if (kind_ == Kind::stream) {
        fd_ = open_stream(writer_path_);
        if (fd_ >= 0) return true;
        why = errno_text(errno);
        discard();
        return false;
    }
    const int fd = fd_;
    fd_ = -1;
#ifdef _WIN32
    file_ = _fdopen(fd, "wb");
#else
    file_ = fdopen(fd, "wb");
#endif
    if (file_ == nullptr) {
        why = errno_text(errno);
        close_descriptor(fd);
        discard();
        return false;
    }
    std::setvbuf(file_, nullptr, _IOFBF, 1 << 16);
    return true;
}

bool OutputTarget::reserve(const std::string& path, std::string& why) {
    return prepare(path, false, why);
}

bool OutputTarget::prepare(const std::string& path, bool keep_open, std::string& why) {
    discard();
    std::string target;
    if (!follow_links(path, target, why)) return false;
    std::error_code error;
    const fs::file_status status = fs::status(target, error);
    if (fs::is_directory(status)) {
        why = errno_text(EISDIR);
        return false;
    }
    if (fs::is_block_file(status)) {
        why = "a block device is not written to";
        return false;
    }
    if (fs::is_character_file(status) || fs::is_fifo(status) || fs::is_socket(status)) {
        kind_ = Kind::stream;
        writer_path_ = target;
        return true;
    }
    // A fresh name beside the final one: this process's id and a counter shared by every
    // output, tried until one is free, so that no existing file is ever opened.
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string name = target + "." + std::to_string(process_id()) + "." +
                                 std::to_string(g_partial_counter.fetch_add(1)) + ".part";
        const int fd = create_exclusive(name);
        if (fd < 0 && errno == EEXIST) continue;
        if (fd < 0) {
            why = errno_text(errno);
            return false;
        }
        if (keep_open) {
            fd_ = fd;
        } else {
            close_descriptor(fd);
        }
        kind_ = Kind::file;
        final_ = target;
        partial_ = writer_path_ = name;
        return true;
    }
    why = "no free name for the partial file beside it";
    return false;
}

bool OutputTarget::write(const void* bytes, size_t size, std::string& why) {
    if (kind_ != Kind::stream) {
        if (file_ != nullptr && std::fwrite(bytes, 1, size, file_) == size) return true;
        why = errno_text(file_ == nullptr ? EBADF : errno);
        return false;
    }
    const auto* next = static_cast<const unsigned char*>(bytes);
    while (size > 0) {
        const long long written = write_without_sigpipe(fd_, next, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) {
            why = errno_text(written < 0 ? errno : EIO);
            return false;
        }
        next += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

bool OutputTarget::write_file(const std::string& path, std::string& why) {
    std::FILE* from = std::fopen(path.c_str(), "rb");
    if (from == nullptr) {
        why = errno_text(errno);
        return false;
    }
    char buffer[1 << 16];
    bool ok = true;
    for (size_t got; ok && (got = std::fread(buffer, 1, sizeof buffer, from)) > 0;) {
        ok = write(buffer, got, why);
    }
    if (ok && std::ferror(from) != 0) {
        why = errno_text(EIO);
        ok = false;
    }
    std::fclose(from);
    return ok;
}

bool OutputTarget::commit(bool replace, bool& exists, std::string& why) {
    exists = false;
    if (kind_ == Kind::standard_output) {
        kind_ = Kind::none;
        file_ = nullptr;
        if (std::fflush(stdout) == 0) return true;
        why = errno_text(errno);
        return false;
    }
    if (kind_ == Kind::stream) {
        const bool closed = fd_ < 0 || close_descriptor(fd_) == 0 || errno == EINTR;
        if (!closed) why = errno_text(errno);
        fd_ = -1;
        kind_ = Kind::none;
        return closed;
    }
    if (kind_ != Kind::file) {
        why = errno_text(EBADF);
        return false;
    }
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
        kind_ = Kind::none;
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
            discard();
            return true;
        }
        std::error_code error;
        if (errno == EEXIST || fs::exists(fs::symlink_status(final_, error))) {
            exists = true;
            why = errno_text(EEXIST);
            discard();
            return false;
        }
        // A file system without links: the check above, then the move.
    }
    if (std::rename(partial_.c_str(), final_.c_str()) == 0) {
        partial_.clear();
        kind_ = Kind::none;
        return true;
    }
    why = errno_text(errno);
#endif
    discard();
    return false;
}

void OutputTarget::discard() {
    if (file_ != nullptr && file_ != stdout) std::fclose(file_);
    file_ = nullptr;
    if (fd_ >= 0) close_descriptor(fd_);
    fd_ = -1;
    if (!partial_.empty()) std::remove(partial_.c_str());
    partial_.clear();
    final_.clear();
    writer_path_.clear();
    kind_ = Kind::none;
}

}  // namespace kavolib
