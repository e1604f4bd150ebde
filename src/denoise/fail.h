// Raising sw::DenoiseError with an identifier and a message.
#ifndef SHAPEWIENER_DENOISE_FAIL_H
#define SHAPEWIENER_DENOISE_FAIL_H

#include <string>

#include "shapewiener/denoise.h"

namespace swdenoise {

// Throws sw::DenoiseError: `identifier` is "shapewiener:<what>:<reason>".
[[noreturn]] void fail(const std::string& identifier, const std::string& message,
                       sw::ErrorCode code = sw::ErrorCode::kInvalid);

}  // namespace swdenoise

#endif  // SHAPEWIENER_DENOISE_FAIL_H
