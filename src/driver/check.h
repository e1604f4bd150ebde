// Errors of the argument contract, shared by the check and the front ends.
#ifndef SHAPEWIENER_DRIVER_CHECK_H
#define SHAPEWIENER_DRIVER_CHECK_H

#include "shapewiener/filter.h"

namespace sw {

// The name by which errors refer to argument k (0-based), e.g. "NoisyImage".
const char* argument_name(int k);

// An Error "shapewiener:<what>:<reason of code>" (what: the argument's name
// when null) with a printf-formatted message.
Error make_error(ErrorCode code, int argument, const char* what, const char* fmt, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 4, 5)))
#endif
    ;

}  // namespace sw

#endif  // SHAPEWIENER_DRIVER_CHECK_H
