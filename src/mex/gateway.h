// The size-specialised entry points behind the gateway. Internal to the
// module: only mexFunction is exported.
#ifndef SHAPEWIENER_MEX_GATEWAY_H
#define SHAPEWIENER_MEX_GATEWAY_H

#include <cstdint>

#include "mex.h"

namespace sw {

void mexFunction_h4(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]);
void mexFunction_h5(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]);
void mexFunction_h6(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]);
void mexFunction_h7(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]);
void mexFunction_h8(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]);
void mexFunction_h9(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]);
void mexFunction_h10(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]);
void mexFunction_h11(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]);

using MexEntry = void (*)(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]);

// The variant that serves maximum scale h (4..11), or null when the general
// path does.
MexEntry variant_for(uint32_t h);

}  // namespace sw

#endif  // SHAPEWIENER_MEX_GATEWAY_H
