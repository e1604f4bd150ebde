// Argument validation of the gateway: every call is checked before anything
// is allocated or modified, and a call outside the argument contract is
// answered with a host error "shapewiener:<argument>:<reason>".
#ifndef SHAPEWIENER_MEX_VALIDATE_H
#define SHAPEWIENER_MEX_VALIDATE_H

#include "mex.h"

namespace sw {

// Raises an error through mexErrMsgIdAndTxt on the first violation found;
// returns normally when the call is valid.
void validate_arguments(int nlhs, int nrhs, const mxArray* const* prhs);

}  // namespace sw

#endif  // SHAPEWIENER_MEX_VALIDATE_H
