// The pixel loop on several threads, with the serial loop's bits.
//
// Which entries are accepted, where the key changes and which shape every
// entry uses follow from the arguments' shapes and scales alone, never from
// pixel values. So the calling thread plans the list chunk by chunk (the
// coverage test on simulated counts, the key changes, the shape parameters
// of every key), the workers and, while it has nothing to plan or commit,
// the calling thread compute the entries of planned chunks in any order
// (each key change first, as the entries of its key need its noise levels),
// and the calling thread commits every chunk's weighted values into the
// output and the weight sums in list order, so every sum keeps its order.
// Only the calling thread calls RunOptions::progress.
#ifndef SHAPEWIENER_DRIVER_PARALLEL_H
#define SHAPEWIENER_DRIVER_PARALLEL_H

#include <cstdint>

#include "driver/workspace.h"
#include "shapewiener/filter.h"

namespace sw {

// The worker count a call asks for: RunOptions::threads, else
// SHAPEWIENER_THREADS (a whole number from 1 to kMaxThreads), else every
// hardware thread.
constexpr unsigned kMaxThreads = 256;
unsigned requested_threads(const RunOptions& options);

// The workers a call with these sizes can have when everything it allocates
// (workspace with one scratch set per worker, chunk buffers) must stay
// within 4 GiB: at most `wanted`, 1 when not even two fit (serial loop).
unsigned affordable_threads(const WorkspaceSizes& sizes, unsigned wanted);

// Runs the call on `threads` (>= 2) threads, the calling one and
// threads - 1 workers, with the kernels of the optimised path. Sets *ran to false, having touched nothing, when the
// workers cannot be started; the caller then runs the serial loop.
// `store`: a plan's stored noise levels, or null (see level_store.h).
struct LevelStore;
template <uint32_t HC>
Error run_parallel(const FilterCall& call, double* output, const RunOptions& options, uint32_t h,
                   unsigned threads, LevelStore* store, bool* ran);

}  // namespace sw

#endif  // SHAPEWIENER_DRIVER_PARALLEL_H
