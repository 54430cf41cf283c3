// Signal handling for the kavo command.
#include "interrupt.h"

#include <atomic>
#include <csignal>
#include <cstdlib>

#ifndef _WIN32
#include <pthread.h>
#endif

namespace kavocli {

namespace {

// Lock-free, so the handler may store into it.
std::atomic<int> g_signal{0};
static_assert(std::atomic<int>::is_always_lock_free);

extern "C" void record_signal(int number) {
    int none = 0;
    g_signal.compare_exchange_strong(none, number);
#ifdef _WIN32
    std::signal(number, record_signal);  // the runtime resets the handler on delivery
#endif
}

}  // namespace

void install_interrupt_handlers() {
#ifdef _WIN32
    std::signal(SIGINT, record_signal);
    std::signal(SIGTERM, record_signal);
#else
    // A signal the caller chose to ignore (a job started with nohup) stays ignored.
    struct sigaction action = {};
    action.sa_handler = record_signal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: a blocking read returns with EINTR
    for (const int number : {SIGINT, SIGTERM}) {
        struct sigaction before = {};
        sigaction(number, nullptr, &before);
        if (before.sa_handler != SIG_IGN) sigaction(number, &action, nullptr);
    }
    // A write past the file-size limit (ulimit -f) then fails with EFBIG and is reported like
    // any failed write, with the partial file removed, instead of ending the command at once.
    std::signal(SIGXFSZ, SIG_IGN);
#endif
}

int interrupt_signal() {
    return g_signal.load();
}

void end_interrupted() {
    const int number = g_signal.load();
#ifndef _WIN32
    std::signal(number, SIG_DFL);
    block_interrupts(false);
    std::raise(number);
#endif
    std::_Exit(128 + number);
}

void block_interrupts(bool blocked) {
#ifdef _WIN32
    (void)blocked;  // console control events arrive on a thread of their own
#else
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(blocked ? SIG_BLOCK : SIG_UNBLOCK, &set, nullptr);
#endif
}

}  // namespace kavocli
