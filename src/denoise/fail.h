// Raising sw::DenoiseError with an identifier and a message, and the one
// check of an image given to the denoiser or the noise estimate.
#ifndef SHAPEWIENER_DENOISE_FAIL_H
#define SHAPEWIENER_DENOISE_FAIL_H

#include <cstdint>
#include <string>

#include "shapewiener/denoise.h"

namespace swdenoise {

// Throws sw::DenoiseError: `identifier` is "shapewiener:<what>:<reason>".
[[noreturn]] void fail(const std::string& identifier, const std::string& message,
                       sw::ErrorCode code = sw::ErrorCode::kInvalid);

// Fails unless `image` is not empty, has a value for every pixel, at most
// 2^31 - 1 pixels, at least min_side x min_side pixels (`purpose` says what
// needs them) and only finite values, in that order.
void check_image(const sw::Image& image, uint32_t min_side = 1, const char* purpose = "");

}  // namespace swdenoise

#endif  // SHAPEWIENER_DENOISE_FAIL_H
