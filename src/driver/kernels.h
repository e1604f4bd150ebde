// The per-entry kernels a pixel loop runs: the straightforward routines
// (the reference) or the optimised ones, which give the same bits.
#ifndef SHAPEWIENER_DRIVER_KERNELS_H
#define SHAPEWIENER_DRIVER_KERNELS_H

#include <utility>

#include "spectrum/levels_fast.h"
#include "spectrum/noise_level.h"
#include "transform/shape_transform.h"
#include "transform/transform_fast.h"

namespace sw {

struct ReferenceKernels {
    // Gather and aggregate through the shape's pixel list (shape_layout.h).
    static constexpr bool kListedShapes = false;
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

// The optimised path's kernels: the same bits in the widest SIMD lanes the
// processor offers (the reference routines where it offers none).
struct FastKernels {
    static constexpr bool kListedShapes = true;
    template <class... A>
    static void forward(A&&... a) {
        forward_transform_fast(std::forward<A>(a)...);
    }
    template <class... A>
    static void inverse(A&&... a) {
        inverse_transform_fast(std::forward<A>(a)...);
    }
    template <class... A>
    static float noise_levels(A&&... a) {
        return noise_levels_fast(std::forward<A>(a)...);
    }
};

}  // namespace sw

#endif  // SHAPEWIENER_DRIVER_KERNELS_H
