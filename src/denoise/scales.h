// Per-pixel, per-direction scales: the largest length along each of the
// eight direction planes over which the noisy image still looks flat.
//
// For pixel x and plane d (E, NE, N, NW, W, SW, S, SE; see
// caller/sector_masks.h) the one-sided average of length h is
//     yhat_h = (1/h) sum_{t=0}^{h-1} y(x + t * step_d),
// with variance sigma_h^2 = (1/h^2) sum_{s,t} r((s - t) step_d) under noise
// of autocovariance r (exact for coloured noise, not sigma^2 / h). Taking
// the lengths in increasing order, the intervals yhat_h +- gamma sigma_h are
// intersected; the chosen length is the last one before the intersection
// becomes empty. Rays that leave the image read it mirrored about its
// border, the border pixel repeated.
#ifndef SHAPEWIENER_DENOISE_SCALES_H
#define SHAPEWIENER_DENOISE_SCALES_H

#include <cstdint>
#include <vector>

#include "denoise/noise.h"

namespace swdenoise {

struct ScaleRule {
    std::vector<uint32_t> lengths{1, 2, 3, 5, 7};  // increasing, the first 1
    double gamma = 1.3;                             // interval half-width in sigma_h
};

// sigma_h^2 of the average of `length` pixels along plane d.
double ray_average_variance(const Autocovariance& r, uint32_t plane, uint32_t length);

// For a rows x cols column-major image: the 0-based index into rule.lengths
// chosen for pixel p in plane d, at p + d * rows * cols. `threads` (at
// least 1) share the planes out; the result does not depend on them.
std::vector<uint8_t> choose_scales(const double* image, uint32_t rows, uint32_t cols,
                                   const Autocovariance& r, const ScaleRule& rule,
                                   unsigned threads = 1);

}  // namespace swdenoise

#endif  // SHAPEWIENER_DENOISE_SCALES_H
