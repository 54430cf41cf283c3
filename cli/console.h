// What the command says on standard error: one line per event, written whole even when
// several conversions finish at once, and a progress bar over all of them that is drawn only
// on a terminal and cleared before every line.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

namespace kavocli {

// Whether the file descriptor is a terminal (standard output 1, standard error 2).
bool is_terminal(int fd);

class Console {
  public:
    // quiet: only errors are printed. The bar is drawn when standard error is a terminal and
    // the command is not quiet.
    Console(bool quiet, size_t jobs);

    void info(const std::string& line);   // left out when quiet
    void error(const std::string& line);  // "kavo: " and the line
    void warning(const std::string& line);  // the same, left out when quiet

    // Job index has reached percent (0..100); a job that ends is reported as done.
    void progress(size_t job, int percent);
    void done(size_t job);
    // Takes the bar away for good.
    void finish();

  private:
    void print(const std::string& text);
    void clear_bar();
    void draw_bar();

    std::mutex mutex_;
    bool quiet_;
    bool bar_;
    bool bar_drawn_ = false;
    int drawn_percent_ = -1;
    size_t drawn_done_ = 0;
    size_t done_ = 0;
    std::vector<int> percent_;
};

}  // namespace kavocli
