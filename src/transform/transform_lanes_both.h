// transform_lanes.h twice: the products rounding every step (the module's),
// and in the namespace `unrounded` those keeping the sums in double (the
// denoiser's). No include guard on purpose: transform_kernels.cpp includes
// this once per instruction set, with SHAPEWIENER_DOUBLE_LANES set (see
// transform_lanes.h).
#define SHAPEWIENER_ROUND_STEPS 1
#include "transform/transform_lanes.h"
#undef SHAPEWIENER_ROUND_STEPS
namespace unrounded {
#define SHAPEWIENER_ROUND_STEPS 0
#include "transform/transform_lanes.h"
#undef SHAPEWIENER_ROUND_STEPS
}  // namespace unrounded
