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
    // Where the directory was to be made and why it could not be, when !ok().
    const std::string& why() const { return why_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
    std::string why_;
};

inline constexpr int kChildFailed = 125;

// Runs body in a child process whose current directory is dir; returns the child's exit
// code, kChildFailed when the child could not be started, or 128 + the signal number when it
// was killed.
int run_in_child(const std::string& dir, const std::function<int()>& body);

// The path made absolute against the current directory (unchanged when already absolute
// or empty).
std::string absolute_path(const std::string& path);

// True when the file can be opened for reading; otherwise fills why.
bool readable(const std::string& path, std::string& why);

// What run_privately returns besides the child's own exit code (0 when the output is in place).
inline constexpr int kPrivateRunFailed = -1;

// The way every subcommand runs a library stage: stage runs in a child process inside a fresh
// private directory, where it writes the file named produced; when the child exits with 0 and
// check (if given) finds nothing wrong with the produced file (it returns an empty text), the
// file is copied to out by what out is (engine/output_target.h). Returns 0 when out holds the
// result, the child's exit code when the stage failed (nothing is printed: the caller knows
// what that code means), or kPrivateRunFailed after printing "kavo: ..." for a failure of its
// own.
// With quiet set, what the stage prints is kept back and shown only when it fails.
int run_privately(const std::string& produced, const std::string& out, bool quiet,
                  const std::function<int()>& stage,
                  const std::function<std::string(const std::string& path)>& check = {});

// "kavo: <in>: <doing> failed (exit code <code>); '<out>' was not written".
void report_not_written(const char* doing, const std::string& in, int code,
                        const std::string& out);

// "wrote '<out>': <size> bytes" ("wrote '<out>'" for a device or FIFO), unless quiet.
void report_written(const std::string& out, bool quiet);

}  // namespace kavocli
