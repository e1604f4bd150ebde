// The lane-parallel transform products, compiled once per instruction set.
// Every header is included before the first target region, so that no
// inline function shared with other files is compiled for a wider
// instruction set.
// The vector types below are local to this file, so the ABI notes about
// passing wide vectors between files do not concern them.
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wunknown-warning-option"
#pragma clang diagnostic ignored "-Wpsabi"
#elif defined(__GNUC__)
#pragma GCC diagnostic ignored "-Wpsabi"
#endif

#include "transform/transform_kernels.h"

#include <cstddef>
#include <cstdint>

#include "simd/opaque.h"

#if SHAPEWIENER_X86_SIMD
// GCC 12 warns about the deliberately undefined upper part in its own
// AVX-512 conversion intrinsics (as -Wuninitialized in sanitizer builds).
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#endif
#include <immintrin.h>
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#endif

namespace sw {
namespace transform_scalar {
#define SHAPEWIENER_DOUBLE_LANES 1
#include "transform/transform_lanes_both.h"
#undef SHAPEWIENER_DOUBLE_LANES
}  // namespace transform_scalar
}  // namespace sw

#if SHAPEWIENER_X86_SIMD

namespace sw {
namespace transform_sse2 {
#define SHAPEWIENER_DOUBLE_LANES 2
#include "transform/transform_lanes_both.h"
#undef SHAPEWIENER_DOUBLE_LANES
}  // namespace transform_sse2
}  // namespace sw

#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif
namespace sw {
namespace transform_avx2 {
#define SHAPEWIENER_DOUBLE_LANES 4
#include "transform/transform_lanes_both.h"
#undef SHAPEWIENER_DOUBLE_LANES
}  // namespace transform_avx2
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
namespace transform_avx512 {
#define SHAPEWIENER_DOUBLE_LANES 8
#include "transform/transform_lanes_both.h"
#undef SHAPEWIENER_DOUBLE_LANES
}  // namespace transform_avx512
}  // namespace sw
#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

#endif  // SHAPEWIENER_X86_SIMD
