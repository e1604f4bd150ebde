// Entry points of the lane-parallel one-dimensional transform products, one
// per instruction set (see transform_lanes.h). Call a level's entry only when
// simd::supported() says the processor has it.
#ifndef SHAPEWIENER_TRANSFORM_TRANSFORM_KERNELS_H
#define SHAPEWIENER_TRANSFORM_TRANSFORM_KERNELS_H

#include <cstddef>
#include <cstdint>

#include "simd/x86.h"

namespace sw {

// One line of products: out[i] = apply_row(x, m, len, i) for i < len, and
// the same for y into yo when y is not null. The inputs are the float
// values widened to double (exactly), as the products use them.
struct ProductLine {
    const double* m;
    const double* x;
    float* out;
    const double* y;
    float* yo;
    uint32_t len;
};

// The same with a float matrix and float inputs (the float sums).
struct ProductLineF {
    const float* m;
    const float* x;
    float* out;
    const float* y;
    float* yo;
    uint32_t len;
};

// The longest line the kernels take; longer ones are the caller's.
constexpr uint32_t kMaxProductLine = 64;

// Runs all lines (each len <= kMaxProductLine). No output may overlap
// another line's output. Each level's `floats::run_lines` forms the products
// and sums in float (apply_row_float()).
using LinesFunction = void (*)(const ProductLine* lines, uint32_t count);
using FloatLinesFunction = void (*)(const ProductLineF* lines, uint32_t count);

namespace transform_scalar {
void run_lines(const ProductLine* lines, uint32_t count);
namespace floats {
void run_lines(const ProductLineF* lines, uint32_t count);
}
}
#if SHAPEWIENER_X86_SIMD
namespace transform_sse2 {
void run_lines(const ProductLine* lines, uint32_t count);
namespace floats {
void run_lines(const ProductLineF* lines, uint32_t count);
}
}
namespace transform_avx2 {
void run_lines(const ProductLine* lines, uint32_t count);
namespace floats {
void run_lines(const ProductLineF* lines, uint32_t count);
}
}
namespace transform_avx512 {
void run_lines(const ProductLine* lines, uint32_t count);
namespace floats {
void run_lines(const ProductLineF* lines, uint32_t count);
}
}
#endif

}  // namespace sw

#endif  // SHAPEWIENER_TRANSFORM_TRANSFORM_KERNELS_H
