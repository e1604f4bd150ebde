// The sixteen gateway arguments as the filter reads them.
#ifndef SHAPEWIENER_MEX_ARGUMENTS_H
#define SHAPEWIENER_MEX_ARGUMENTS_H

#include <cstdint>

#include "mex.h"

namespace sw {

// Argument positions (0-based, as in prhs).
enum ArgumentIndex : int {
    kArgScaleSet = 0,
    kArgDirectionScaleMap = 1,
    kArgTransformBank = 2,
    kArgSectorMaskBank = 3,
    kArgDftSize = 6,
    kArgNoisePsd = 7,
    kArgNoisyImage = 8,
    kArgProcessingList = 9,
    kArgNoiseLevelFactor = 10,
    kArgMaxScale = 12,
    kArgPilotImage = 13,
    kArgWienerVarianceFactor = 14,
    kArgCoverageThreshold = 15,
    kArgumentCount = 16,
};

// Double to unsigned 32-bit: add 0.5, NaN gives 2^31, otherwise clamp to
// [0, 2^32 - 1] and truncate.
inline uint32_t round_to_unsigned(double x) {
    const double v = x + 0.5;
    if (v != v) return 2147483648u;
    if (!(v > 0.0)) return 0u;
    if (v >= 4294967295.0) return 4294967295u;
    return static_cast<uint32_t>(v);
}

// First element of a numeric argument, read as a double.
inline double first_element(const mxArray* a) {
    return *static_cast<const double*>(mxGetData(a));
}

struct CallArguments {
    uint32_t m;  // image rows
    uint32_t k;  // image columns
    uint32_t l;  // ScaleSet length
    uint32_t n;  // DFT grid side
    uint32_t coverage_threshold;
    double wiener_variance_factor;
    double noise_level_factor;
    double* noisy_image;
    double* pilot_image;
    const uint8_t* direction_scale_map;
    const mxArray* sector_mask_bank;
    const mxArray* transform_bank;
    const double* noise_psd;
    const int32_t* processing_pixels;  // plane 0: 1-based pixel indices
    const int32_t* processing_keys;    // plane 1: ShapeKeys
    const double* scale_set;
};

// Reads everything but the maximum scale, in the gateway's fixed order.
inline CallArguments read_arguments(const mxArray* const* prhs) {
    CallArguments a;
    const mxArray* image = prhs[kArgNoisyImage];
    a.m = static_cast<uint32_t>(mxGetM(image));
    a.k = static_cast<uint32_t>(mxGetN(image));
    a.coverage_threshold = round_to_unsigned(first_element(prhs[kArgCoverageThreshold]));
    a.wiener_variance_factor = first_element(prhs[kArgWienerVarianceFactor]);
    a.noise_level_factor = first_element(prhs[kArgNoiseLevelFactor]);
    a.noisy_image = static_cast<double*>(mxGetData(image));
    a.pilot_image = static_cast<double*>(mxGetData(prhs[kArgPilotImage]));
    a.direction_scale_map = static_cast<const uint8_t*>(mxGetData(prhs[kArgDirectionScaleMap]));
    a.sector_mask_bank = prhs[kArgSectorMaskBank];
    a.n = round_to_unsigned(first_element(prhs[kArgDftSize]));
    a.noise_psd = static_cast<const double*>(mxGetData(prhs[kArgNoisePsd]));
    a.processing_pixels = static_cast<const int32_t*>(mxGetData(prhs[kArgProcessingList]));
    a.processing_keys = a.processing_pixels + static_cast<size_t>(a.m) * a.k;
    const mxArray* scales = prhs[kArgScaleSet];
    const size_t rows = mxGetM(scales);
    const size_t cols = mxGetN(scales);
    a.l = static_cast<uint32_t>(rows > cols ? rows : cols);
    a.scale_set = static_cast<const double*>(mxGetData(scales));
    a.transform_bank = prhs[kArgTransformBank];
    return a;
}

}  // namespace sw

#endif  // SHAPEWIENER_MEX_ARGUMENTS_H
