// The MEX gateway: a thin adapter from the host's sixteen arrays to the
// filter call of include/shapewiener/filter.h. Only mexFunction is exported.
#ifndef SHAPEWIENER_MEX_GATEWAY_H
#define SHAPEWIENER_MEX_GATEWAY_H

#include <cstdint>

#include "mex.h"
#include "shapewiener/filter.h"

namespace sw {

using MexEntry = void (*)(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]);

// The size-specialised entry for maximum scale H (one of kSpecialisedScales):
// runs an already validated call with the instantiation for H.
template <uint32_t H>
void mexFunction_h(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]);

// The entry that serves maximum scale h, or null when the general path does.
MexEntry variant_for(uint32_t h);

// The gateway's validation of a call: the host's classes and cells, then
// the library's contract check. Raises nothing.
Error mex_check(int nlhs, int nrhs, const mxArray* const* prhs);

// Runs an already validated call on the general path with maximum scale h,
// whatever h is: for checks that compare it with the variants.
void mex_run_general(mxArray* plhs[], const mxArray* const* prhs, uint32_t h);

}  // namespace sw

#endif  // SHAPEWIENER_MEX_GATEWAY_H
