// The filter of one gateway call, defined once for every box size.
#ifndef SHAPEWIENER_DRIVER_FILTER_H
#define SHAPEWIENER_DRIVER_FILTER_H

#include <cstdint>

#include "mex.h"

namespace sw {

// Runs the whole filter for one call: reads the arguments (all but the
// maximum scale, which is HC, or h when HC == 0), allocates the workspace,
// creates plhs[0], dithers the two images in place, walks the processing
// list and normalises the output. The arguments must already be validated.
template <uint32_t HC>
void run_filter(mxArray** plhs, const mxArray* const* prhs, uint32_t h);

extern template void run_filter<0>(mxArray**, const mxArray* const*, uint32_t);
extern template void run_filter<4>(mxArray**, const mxArray* const*, uint32_t);
extern template void run_filter<5>(mxArray**, const mxArray* const*, uint32_t);
extern template void run_filter<6>(mxArray**, const mxArray* const*, uint32_t);
extern template void run_filter<7>(mxArray**, const mxArray* const*, uint32_t);
extern template void run_filter<8>(mxArray**, const mxArray* const*, uint32_t);
extern template void run_filter<9>(mxArray**, const mxArray* const*, uint32_t);
extern template void run_filter<10>(mxArray**, const mxArray* const*, uint32_t);
extern template void run_filter<11>(mxArray**, const mxArray* const*, uint32_t);

}  // namespace sw

#endif  // SHAPEWIENER_DRIVER_FILTER_H
