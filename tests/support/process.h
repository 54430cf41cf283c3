// Test support: run a program in a chosen directory and capture what it prints, and
// temporary directories that clean up after themselves.
#pragma once

#include <string>
#include <vector>

namespace kavotest {

struct ProcessResult {
    int exit_code = -1;  // 128 + signal when the process was killed
    std::string out;
    std::string err;
};

// Runs argv[0] with the given arguments in directory cwd (empty: the current one).
ProcessResult run_process(const std::vector<std::string>& argv, const std::string& cwd = {});

// A fresh directory under the system's temporary directory, removed on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    // Names of the entries in the directory, sorted.
    std::vector<std::string> entries() const;

private:
    std::string path_;
};

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& bytes);
bool file_exists(const std::string& path);

}  // namespace kavotest
