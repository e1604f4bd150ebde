// Pixels where the noise was cut off: a sensor's black level or saturation,
// or the ends of an 8-bit range. A flat block there holds less noise than
// the noise has, and a flat block is what the noise estimate looks for.
#ifndef SHAPEWIENER_DENOISE_CLIPPED_H
#define SHAPEWIENER_DENOISE_CLIPPED_H

#include <cstddef>
#include <vector>

#include "shapewiener/noise.h"

namespace swdenoise {

// A value counts as a clipped extreme when it is a plane's smallest or
// largest and at least this share of the plane's pixels holds it (a
// continuous noisy image holds its extremes once or twice).
const double kClippedShare = 0.005;

// 1 for pixel p when any of the `planes` planes (each `count` values, one
// after the other) holds a clipped extreme there.
std::vector<char> clipped_pixels(const double* values, size_t count, size_t planes);

// estimate_noise with the blocks where over 1/32 of the pixels are marked
// in `clipped` (count as the image's) left out, as long as enough blocks
// remain; an empty `clipped` leaves every block in.
sw::NoiseEstimate estimate_noise_unclipped(const sw::Image& image, const sw::NoiseEstimateOptions& options,
                                           const sw::Progress& progress, const std::vector<char>& clipped);

}  // namespace swdenoise

#endif  // SHAPEWIENER_DENOISE_CLIPPED_H
