// What the command reads and writes: whole inputs read into memory (standard input for "-"),
// and outputs written beside their final name and moved into place only when complete, so
// that an existing file is replaced by a whole result or not at all.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace kavocli {

// Reads the whole file at path ("-": standard input). Stops early, returning false with an
// empty why, when an interrupt arrives; otherwise false with the reason ("No such file or
// directory", "Is a directory").
bool read_whole(const std::string& path, std::vector<uint8_t>& bytes, std::string& why);

// Reads what remains of an open descriptor (a pipe, a device) onto the end of bytes.
bool read_descriptor(int fd, std::vector<uint8_t>& bytes, std::string& why);

// False, with why, when path no longer names the file open as fd, or when that (regular) file
// no longer holds size bytes: the input was removed, replaced or changed while it was used.
bool still_whole(int fd, const std::string& path, uintmax_t size, std::string& why);

// True when path names a file that can be opened for reading; its size goes to size.
bool readable_size(const std::string& path, uintmax_t& size, std::string& why);

// True when both paths name one existing file (also through links or different spellings).
bool same_file(const std::string& a, const std::string& b);

bool file_exists(const std::string& path);

// Standard output switched to binary (on systems that distinguish) for ADPCM bytes.
void make_stdout_binary();

// A file written under a fresh name beside its final path ("<final>.<pid>.<n>.part"),
// moved onto the final path by commit. Destroying it before commit removes the partial file.
class OutputFile {
  public:
    OutputFile() = default;
    ~OutputFile() { discard(); }
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // Creates the partial file; false with why when it cannot.
    bool create(const std::string& final_path, std::string& why);
    // Creates the partial file empty and closes it, for a writer that takes a path; commit
    // then moves it into place as it is.
    bool reserve(const std::string& final_path, std::string& why);
    // False with why when the bytes cannot be written.
    bool write(const void* bytes, size_t size, std::string& why);
    // Closes the partial file and moves it onto the final path. With replace false an existing
    // final file is kept, and exists is set (in that case and no other).
    bool commit(bool replace, bool& exists, std::string& why);
    // Closes and removes the partial file (nothing when there is none).
    void discard();

    const std::string& partial_path() const { return partial_; }

  private:
    std::FILE* file_ = nullptr;
    std::string final_;
    std::string partial_;
};

}  // namespace kavocli
