// The progress bar of the long commands, and Ctrl-C.
#ifndef SHAPEWIENER_TOOLS_PROGRESS_BAR_H
#define SHAPEWIENER_TOOLS_PROGRESS_BAR_H

#include <unistd.h>

#include <csignal>
#include <cstdio>

namespace swcli {

// Ctrl-C: SIGINT sets the flag; the progress callback, which the library
// calls on this thread, then cancels the call.
inline volatile std::sig_atomic_t interrupted = 0;
inline void on_interrupt(int) { interrupted = 1; }

// A progress bar on stderr, drawn only when stderr is a terminal; it also
// answers a pending Ctrl-C.
class ProgressBar {
public:
    explicit ProgressBar(bool enabled) : enabled_(enabled && isatty(STDERR_FILENO)) {
        std::signal(SIGINT, on_interrupt);
    }
    ~ProgressBar() {
        finish();
        std::signal(SIGINT, SIG_DFL);
    }
    bool operator()(double fraction, const char* phase) {
        if (interrupted) return false;
        if (!enabled_) return true;
        const int width = 30;
        const int filled = static_cast<int>(fraction * width + 0.5);
        std::fprintf(stderr, "\r[%.*s%*s] %3d%% %-14s", filled, "##############################",
                     width - filled, "", static_cast<int>(fraction * 100 + 0.5), phase);
        std::fflush(stderr);
        drawn_ = true;
        return true;
    }
    void finish() {
        if (drawn_) std::fprintf(stderr, "\r%*s\r", 64, "");
        drawn_ = false;
    }

private:
    bool enabled_;
    bool drawn_ = false;
};

}  // namespace swcli

#endif  // SHAPEWIENER_TOOLS_PROGRESS_BAR_H
