// Cancelling the long preparation stages (noise description, spectra,
// peaks, scales, shapes) from the caller's progress callback. A stage
// installs a CancelScope on the calling thread; the loops of the stages call
// cancel_point() now and then, which calls the scope's callback at most
// every 50 ms, on that thread only, and throws what the callback throws.
// On any other thread, or with no scope installed, cancel_point() does
// nothing.
#ifndef SHAPEWIENER_CANCEL_CANCEL_H
#define SHAPEWIENER_CANCEL_CANCEL_H

#include <functional>

namespace swcancel {

class CancelScope {
public:
    // `poll` returns normally to go on; it throws to stop the stage.
    explicit CancelScope(std::function<void()> poll);
    ~CancelScope();
    CancelScope(const CancelScope&) = delete;
    CancelScope& operator=(const CancelScope&) = delete;

private:
    CancelScope* outer_;
    std::function<void()> poll_;
    long long last_ns_;
    friend void cancel_point();
};

void cancel_point();

}  // namespace swcancel

#endif  // SHAPEWIENER_CANCEL_CANCEL_H
