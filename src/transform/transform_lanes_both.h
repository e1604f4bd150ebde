// transform_lanes.h twice: the products rounding every step (the module's),
// and in the namespace `floats` those with float matrices, products and sums
// (the denoiser's). No include guard on purpose: transform_kernels.cpp
// includes this once per instruction set, with SHAPEWIENER_DOUBLE_LANES set
// (see transform_lanes.h).
#define SHAPEWIENER_FLOAT_SUMS 0
#include "transform/transform_lanes.h"
#undef SHAPEWIENER_FLOAT_SUMS
namespace floats {
#define SHAPEWIENER_FLOAT_SUMS 1
#include "transform/transform_lanes.h"
#undef SHAPEWIENER_FLOAT_SUMS
}  // namespace floats
