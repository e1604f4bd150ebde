// The per-entry kernels a pixel loop runs: the straightforward routines
// (the reference) or the optimised ones, which give the same bits.
#ifndef SHAPEWIENER_DRIVER_KERNELS_H
#define SHAPEWIENER_DRIVER_KERNELS_H

#include <utility>

#include "spectrum/noise_level.h"
#include "transform/shape_transform.h"

namespace sw {

struct ReferenceKernels {
    template <class... A>
    static void forward(A&&... a) {
        forward_transform(std::forward<A>(a)...);
    }
    template <class... A>
    static void inverse(A&&... a) {
        inverse_transform(std::forward<A>(a)...);
    }
    template <class... A>
    static float noise_levels(A&&... a) {
        return sw::noise_levels(std::forward<A>(a)...);
    }
};

// The optimised path's kernels.
struct FastKernels : ReferenceKernels {};

}  // namespace sw

#endif  // SHAPEWIENER_DRIVER_KERNELS_H
