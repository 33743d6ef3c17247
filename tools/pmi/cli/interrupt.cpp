// The handler of SIGINT. It sets a flag, or ends the process by the signal itself, which are things
// that a signal handler may do.
#include "cli/interrupt.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include <unistd.h>

namespace pmi_cli {

namespace {

enum Stage { kEnds, kNotes, kNoted };

std::atomic<Stage> g_stage{kEnds};
static_assert(std::atomic<Stage>::is_always_lock_free, "a signal handler uses it");

void on_interrupt(int number) {
    const int saved_errno = errno;
    Stage notes = kNotes;
    if (!g_stage.compare_exchange_strong(notes, kNoted)) {
        if (isatty(STDERR_FILENO) == 1) {
            // Ends the line of progress.
            [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, "\n", 1);
        }
        std::signal(number, SIG_DFL);
        std::raise(number); // is delivered when this handler returns
    }
    errno = saved_errno;
}

} // namespace

void handle_interrupts() {
    struct sigaction action {};
    sigaction(SIGINT, nullptr, &action);
    if (action.sa_handler == SIG_IGN) {
        return; // whoever started the program wants it to go on
    }
    action.sa_handler = on_interrupt;
    action.sa_flags = 0; // a call that blocks ends: nobody wants any more what it waits for
    sigaction(SIGINT, &action, nullptr);
}

InterruptNote::InterruptNote() {
    g_stage = kNotes;
}

InterruptNote::~InterruptNote() {
    g_stage = kEnds;
}

bool InterruptNote::is_interrupted() const {
    return g_stage == kNoted;
}

void end_interrupted() {
    std::signal(SIGINT, SIG_DFL);
    std::raise(SIGINT);
    std::_Exit(128 + SIGINT); // the signal is blocked
}

} // namespace pmi_cli
