// The lane-parallel spectrum sums, compiled once per instruction set. Every
// header is included before the first target region, so that no inline
// function shared with other files is compiled for a wider instruction set.
// The vector types below are local to this file, so the ABI notes about
// passing wide vectors between files do not concern them.
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wunknown-warning-option"
#pragma clang diagnostic ignored "-Wpsabi"
#elif defined(__GNUC__)
#pragma GCC diagnostic ignored "-Wpsabi"
#endif

#include "spectrum/spectrum_kernels.h"

#include <cstddef>
#include <cstdint>
#include <utility>

#include "simd/opaque.h"
#include "spectrum/twiddle_constants.h"

namespace sw {
namespace spectrum_scalar {
#define SHAPEWIENER_LANES 1
#include "spectrum/spectrum_lanes.h"
#undef SHAPEWIENER_LANES
}  // namespace spectrum_scalar
}  // namespace sw

#if SHAPEWIENER_X86_SIMD

namespace sw {
namespace spectrum_sse2 {
#define SHAPEWIENER_LANES 4
#include "spectrum/spectrum_lanes.h"
#undef SHAPEWIENER_LANES
}  // namespace spectrum_sse2
}  // namespace sw

#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif
namespace sw {
namespace spectrum_avx2 {
#define SHAPEWIENER_LANES 8
#include "spectrum/spectrum_lanes.h"
#undef SHAPEWIENER_LANES
}  // namespace spectrum_avx2
}  // namespace sw
#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx512f,avx512dq,avx512vl"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx512f,avx512dq,avx512vl")
#endif
namespace sw {
namespace spectrum_avx512 {
#define SHAPEWIENER_LANES 16
#include "spectrum/spectrum_lanes.h"
#undef SHAPEWIENER_LANES
}  // namespace spectrum_avx512
}  // namespace sw
#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

#endif  // SHAPEWIENER_X86_SIMD
