// Cancelling the long preparation stages (noise description, spectra,
// peaks, scales, shapes) from the caller's progress callback. A stage
// installs a CancelScope on the calling thread; the loops of the stages call
// cancel_point() now and then, which calls the scope's callback at most
// every 50 ms, on that thread only, and throws what the callback throws.
// On any other thread, or with no scope installed, cancel_point() does
// nothing.
#ifndef SHAPEWIENER_CANCEL_CANCEL_H
#define SHAPEWIENER_CANCEL_CANCEL_H

#include <cstddef>
#include <functional>
#include <vector>

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

// Allocating, first touching and freeing arrays of hundreds of megabytes
// takes a noticeable while: the stages make them `step` values at a time
// (value p is make(p)) and free them between cancel points.
template <typename T, typename Make>
std::vector<T> make_vector(size_t count, size_t step, Make make) {
    std::vector<T> v;
    v.reserve(count);
    for (size_t p = 0; p < count; ++p) {
        if (p % step == 0) cancel_point();
        v.push_back(make(p));
    }
    return v;
}

template <typename T>
void release(std::vector<T>* v) {
    cancel_point();
    std::vector<T>().swap(*v);
    cancel_point();
}

}  // namespace swcancel

#endif  // SHAPEWIENER_CANCEL_CANCEL_H
