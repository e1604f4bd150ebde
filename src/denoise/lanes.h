// The denoiser's set-up stages (scales, the noise estimate's blocks, the
// colour estimate's images) share their work out in fixed lanes: lane k
// always does the same part, so the result does not depend on how many
// threads actually ran.
#ifndef SHAPEWIENER_DENOISE_LANES_H
#define SHAPEWIENER_DENOISE_LANES_H

#include <atomic>
#include <exception>
#include <thread>
#include <vector>

namespace swdenoise {

// Runs body(k) for every lane k in [0, lanes): lane 0 on the calling thread,
// each other lane on a thread of its own. A lane that throws sets `*stop`
// (when given) so that the others may leave early; once every lane has ended,
// the exception of the lowest lane that threw is rethrown on the calling
// thread (no exception ever leaves a worker thread). A lane whose thread
// cannot be started runs on the calling thread after lane 0.
template <typename Body>
void run_lanes(unsigned lanes, Body&& body, std::atomic<bool>* stop = nullptr) {
    if (lanes < 1) lanes = 1;
    std::vector<std::exception_ptr> failed(lanes);
    std::atomic<bool> any_failed{false};
    const auto lane = [&](unsigned k) {
        try {
            body(k);
        } catch (...) {
            failed[k] = std::current_exception();
            any_failed = true;
            if (stop) *stop = true;
        }
    };
    std::vector<std::thread> pool;
    unsigned started = 1;
    try {
        pool.reserve(lanes - 1);
        for (; started < lanes; ++started) pool.emplace_back(lane, started);
    } catch (...) {
        // Out of threads or memory: the lanes not started run here below.
    }
    lane(0);
    for (unsigned k = started; k < lanes && !any_failed; ++k) lane(k);
    for (std::thread& t : pool) t.join();
    for (const std::exception_ptr& e : failed) {
        if (e) std::rethrow_exception(e);
    }
}

}  // namespace swdenoise

#endif  // SHAPEWIENER_DENOISE_LANES_H
