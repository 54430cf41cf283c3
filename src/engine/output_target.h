// Writing an output by what its name is, for the library's kavo_convert_file and every
// subcommand of the command: a file through a partial file renamed into place, a link through
// to its target, a device, FIFO or socket in place as a stream, "-" as standard output.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

namespace kavolib {

// True when both names reach one existing file (device and inode, through links and any
// spelling of the path).
bool same_file(const std::string& a, const std::string& b);

// True when path names an output that is already there to be replaced: a regular file, itself
// or at the end of its links. A device, FIFO or socket replaces nothing when written.
bool output_exists(const std::string& path);

// A regular file, or a name not taken yet, is written beside its final name and renamed into
// place only when complete. A symbolic link is followed and its target is what gets written:
// the link stays, and a dangling link's target is created, as the shell's ">" does. A
// character device, a FIFO or a socket is written in place, with no temporary file and no
// rename. A directory or a block device is refused. Every reason given is a cause ("Is a
// directory"), never a temporary name: the caller names its own path around it.
class OutputTarget {
  public:
    enum class Kind { none, file, stream, standard_output };

    OutputTarget() = default;
    ~OutputTarget() { discard(); }
    OutputTarget(const OutputTarget&) = delete;
    OutputTarget& operator=(const OutputTarget&) = delete;

    // Opens the output named path for writing: the partial file beside a file, the stream
    // itself otherwise ("-" is standard output when allow_stdout). False with why.
    bool open(const std::string& path, bool allow_stdout, std::string& why);
    // For a writer that opens a name itself: a file gets its partial file made empty and
    // closed, a stream is not opened at all; writer_path() is then the name to hand it.
    bool reserve(const std::string& path, std::string& why);
    const std::string& writer_path() const { return writer_path_; }

    // False with why when the bytes cannot be written (a stream's reader gone: "Broken pipe",
    // without a signal that would end the process).
    bool write(const void* bytes, size_t size, std::string& why);
    // Copies the whole file at path onto the output (a stage that wrote a file elsewhere).
    bool write_file(const std::string& path, std::string& why);

    // Finishes the output: a file is closed and moved onto its final name (with replace
    // false an existing one is kept and exists is set, in that case and no other); a stream is
    // flushed and closed. False with why.
    bool commit(bool replace, bool& exists, std::string& why);
    // Closes the output and removes the partial file, if any. A stream keeps what it was given.
    void discard();

    Kind kind() const { return kind_; }

  private:
    // Follows the links of path and, for a file, makes the partial file (kept open as fd_
    // with keep_open); a stream is only recognised.
    bool prepare(const std::string& path, bool keep_open, std::string& why);

    Kind kind_ = Kind::none;
    std::FILE* file_ = nullptr;  // the partial file, or standard output
    int fd_ = -1;                // a stream (or the partial file until open wraps it)
    std::string final_;          // the file the partial file becomes (a link's target)
    std::string partial_;
    std::string writer_path_;
};

}  // namespace kavolib
