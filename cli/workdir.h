// Running a library stage in a child process with a private working directory, so that the
// fixed temporary names of the library never touch the user's directory, a fatal condition
// (which ends the process) cannot take the command down with it, and only the requested
// output reaches its destination.
#pragma once

#include <functional>
#include <string>

namespace kavocli {

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it on destruction.
class PrivateDir {
public:
    PrivateDir();
    ~PrivateDir();
    PrivateDir(const PrivateDir&) = delete;
    PrivateDir& operator=(const PrivateDir&) = delete;
    bool ok() const { return !path_.empty(); }
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

inline constexpr int kChildFailed = 125;

// Runs body in a child process whose current directory is dir; returns the child's exit
// code, kChildFailed when the child could not be started, or 128 + the signal number when it
// was killed.
int run_in_child(const std::string& dir, const std::function<int()>& body);

// The path made absolute against the current directory (unchanged when already absolute
// or empty).
std::string absolute_path(const std::string& path);

// Moves a file, copying when source and destination lie on different file systems.
// Returns an empty string on success, else a description of the failure.
std::string move_file(const std::string& from, const std::string& to);

// True when the file can be opened for reading; otherwise fills why.
bool readable(const std::string& path, std::string& why);

}  // namespace kavocli
