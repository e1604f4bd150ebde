// The optimised path's shrinkage and aggregation through a shape's pixel
// list (shape/shape_layout.h), with the operations, in the same order, of
// wiener_shrink() and aggregate_shape().
#ifndef SHAPEWIENER_ESTIMATE_LISTED_H
#define SHAPEWIENER_ESTIMATE_LISTED_H

#include <cstdint>
#include <cstring>

#include "estimate/wiener.h"
#include "shape/shape.h"
#include "shape/shape_layout.h"

namespace sw {

// wiener_shrink() after the forward transform, which leaves non-zero
// coefficients only at r * W + k with k < row_count[r]: visits those
// positions alone, in wiener_shrink()'s order.
template <class Box>
ShrinkResult wiener_shrink_listed(const Box& box, const int32_t* row_count,
                                  int32_t max_column_count, float* noisy_coefficients,
                                  const float* pilot_coefficients, const float* noise_level,
                                  float dc_noise_level, float noisy_mean, float pilot_mean,
                                  double shape_size, double lambda, float* noisy_gather,
                                  float* pilot_gather) {
    const uint32_t w = box.W();
    float variance = 0.0f;
    for (uint32_t r = 0; r < static_cast<uint32_t>(max_column_count); ++r) {
        const uint32_t end = r * w + static_cast<uint32_t>(row_count[r]);
        for (uint32_t t = r * w; t < end; ++t) {
            const float y = noisy_coefficients[t];
            if (y != 0.0f) {
                const float e = pilot_coefficients[t];
                const float sigma = noise_level[t];
                const float energy = e * e;
                const float noise = sigma * sigma;
                const double de = static_cast<double>(energy);
                const float factor =
                    static_cast<float>(de / (static_cast<double>(noise) * lambda + de));
                noisy_coefficients[t] = y * factor;
                variance = variance + sigma * ((factor * factor) * sigma);
            }
        }
    }
    std::memset(noisy_gather, 0, sizeof(float) * w * w);
    std::memset(pilot_gather, 0, sizeof(float) * w * w);
    return shrink_mean(variance, dc_noise_level, noisy_mean, pilot_mean, shape_size, lambda);
}

// The clipped estimate of shape pixel e (aggregate_shape()'s operations).
inline float listed_estimate(const ShapeLayout& layout, const float* packed, float dc_estimate,
                             uint32_t e) {
    const float v = dc_estimate + packed[layout.packed_slot[e]];
    float clipped = 0.0f;
    if (v > 0.0f) clipped = 1.0f > v ? v : 1.0f;
    return clipped;
}

// aggregate_shape() for a listed shape; leaves `reconstruction` alone.
inline void aggregate_listed(const ClippedBox& clip, const ShapeLayout& layout,
                             const float* packed, float dc_estimate, float estimate_variance,
                             double shape_size, uint32_t m, double* output, float* weight_sum,
                             uint16_t* coverage_count) {
    const double weight = 1.0 / (static_cast<double>(estimate_variance) * shape_size);
    const size_t first = clip.r0 + static_cast<size_t>(clip.c0) * m;
    double* out = output + first;
    float* sums = weight_sum + first;
    uint16_t* counts = coverage_count + first;
    for (uint32_t e = 0; e < layout.size; ++e) {
        const double clipped = static_cast<double>(listed_estimate(layout, packed, dc_estimate, e));
        const uint32_t p = layout.pixel_offset[e];
        out[p] = out[p] + clipped * weight;
        sums[p] = static_cast<float>(static_cast<double>(sums[p]) + weight);
        counts[p] = static_cast<uint16_t>(counts[p] + 1);
    }
}

// The threaded driver's aggregation in two halves. estimate_listed() stores
// the clipped estimate of every listed pixel, in list order, and returns
// the weight; commit_listed() adds them into output and weight_sum with
// aggregate_listed()'s operations (coverage is counted apart). Committed in
// list order, the two give aggregate_shape()'s bits.
inline double estimate_listed(const ShapeLayout& layout, const float* packed, float dc_estimate,
                              float estimate_variance, double shape_size, float* values) {
    for (uint32_t e = 0; e < layout.size; ++e) {
        values[e] = listed_estimate(layout, packed, dc_estimate, e);
    }
    return 1.0 / (static_cast<double>(estimate_variance) * shape_size);
}

inline void commit_listed(const ClippedBox& clip, const ShapeLayout& layout, const float* values,
                          double weight, uint32_t m, double* output, float* weight_sum) {
    const size_t first = clip.r0 + static_cast<size_t>(clip.c0) * m;
    double* out = output + first;
    float* sums = weight_sum + first;
    for (uint32_t e = 0; e < layout.size; ++e) {
        const uint32_t p = layout.pixel_offset[e];
        out[p] = out[p] + static_cast<double>(values[e]) * weight;
        sums[p] = static_cast<float>(static_cast<double>(sums[p]) + weight);
    }
}

}  // namespace sw

#endif  // SHAPEWIENER_ESTIMATE_LISTED_H
