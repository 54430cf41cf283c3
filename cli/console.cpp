// Standard error for the kavo command.
#include "console.h"

#include <cstdio>

#ifdef _WIN32
#include <io.h>
#define KAVO_ISATTY _isatty
#else
#include <unistd.h>
#define KAVO_ISATTY isatty
#endif

namespace kavocli {

bool is_terminal(int fd) {
    return KAVO_ISATTY(fd) != 0;
}

namespace {
constexpr int kBarWidth = 40;
constexpr int kLineWidth = kBarWidth + 30;
}  // namespace

Console::Console(bool quiet, size_t jobs)
    : quiet_(quiet), bar_(!quiet && is_terminal(2)), percent_(jobs, 0) {}

void Console::info(const std::string& line) {
    if (quiet_) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    print(line);
}

void Console::error(const std::string& line) {
    const std::lock_guard<std::mutex> lock(mutex_);
    print("kavo: " + line);
}

void Console::warning(const std::string& line) {
    if (quiet_) return;
    error(line);
}

void Console::print(const std::string& text) {
    clear_bar();
    std::fprintf(stderr, "%s\n", text.c_str());
    draw_bar();
}

void Console::progress(size_t job, int percent) {
    if (!bar_) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (job < percent_.size()) percent_[job] = percent;
    draw_bar();
}

void Console::done(size_t job) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (job < percent_.size()) percent_[job] = 100;
    ++done_;
    if (bar_) draw_bar();
}

void Console::finish() {
    const std::lock_guard<std::mutex> lock(mutex_);
    clear_bar();
    bar_ = false;
}

void Console::clear_bar() {
    if (!bar_drawn_) return;
    std::fprintf(stderr, "\r%*s\r", kLineWidth, "");
    bar_drawn_ = false;
    drawn_percent_ = -1;
}

void Console::draw_bar() {
    if (!bar_ || percent_.empty()) return;
    long long sum = 0;
    for (const int p : percent_) sum += p;
    const int overall = static_cast<int>(sum / static_cast<long long>(percent_.size()));
    if (bar_drawn_ && overall == drawn_percent_ && done_ == drawn_done_) return;
    const int filled = overall * kBarWidth / 100;
    std::string bar(static_cast<size_t>(filled), '#');
    bar.append(static_cast<size_t>(kBarWidth - filled), '-');
    if (percent_.size() > 1) {
        std::fprintf(stderr, "\r[%s] %3d%%  %zu/%zu files", bar.c_str(), overall, done_,
                     percent_.size());
    } else {
        std::fprintf(stderr, "\r[%s] %3d%%", bar.c_str(), overall);
    }
    std::fflush(stderr);
    bar_drawn_ = true;
    drawn_percent_ = overall;
    drawn_done_ = done_;
}

}  // namespace kavocli
